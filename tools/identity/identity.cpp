// Prints the identity of the installed library, as an appliance service sees it.
#include <cstdio>
#include <string>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/module.h"
#include "core/common/unicode.h"

int main() {
  std::printf("libappliance_storage %d.%d.%d\n", major_version, minor_version, build_number);
  std::printf("module name:  %s\n", _ErrorModuleName);
  std::printf("message file: %s\n", MsgFileName);
  std::printf("registry dir: %s\n", Common::ToUtf8(REG_LINUX_DIR, Common::Length(REG_LINUX_DIR)).c_str());
  const unsigned short* text = GetTextFromMessageFile(Messages::FailedToGetDisksWithStorages);
  std::printf("a message:    %s\n", Common::ToUtf8(text, Common::Length(text)).c_str());
  return 0;
}
