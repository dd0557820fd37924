// A client of the installed library: identity, a message text, an error, the storage interface.
#include <core/common/error.h>
#include <core/common/message_ids.h>
#include <core/common/message_text.h>
#include <core/common/module.h>
#include <core/common/unicode.h>
#include <virtualization/common/storage/storage_config.h>

#include <cstdio>

int main() {
  std::printf("%d.%d.%d %s\n", major_version, minor_version, build_number, _ErrorModuleName);
  Common::Error e(0x530040, GetTextFromMessageFile(Messages::InternalError), AS_HERE);
  e.AddPosixError(2, AS_HERE);
  std::printf("%s / %s\n", Common::ToUtf8(e.GetText()).c_str(), Common::ToUtf8(e.GetCause().GetText()).c_str());
  std::printf("%s\n", Common::ToUtf8(MigrationManagement::StorageConfig::GetStoragesRoot()).c_str());
  return e.GetCause().GetNumericField("code") == 2 ? 0 : 1;
}
