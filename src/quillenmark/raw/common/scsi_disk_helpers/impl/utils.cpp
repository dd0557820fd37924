#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

#include "core/common/message_ids.h"
#include "core/include/file/file.h"
#include "processor/format/format_message.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"

namespace SCSI {
namespace Detail {

std::string ReadFile(const std::string& path, size_t limit) {
  std::string text;
  Common::Error e = FileSystem::ReadFile(path, limit, text);
  if (e && e.GetCode() == FileSystem::kErrorOpen)
    throw Common::Error(kErrorSysfsOpen, Core::FormatMessage(Messages::FailedToOpenFile, path),
                        AS_LOCATION("OpenFile", 15))
        .WithCause(e);
  if (e)
    throw Common::Error(kErrorSysfsRead, Core::FormatMessage(Messages::FailedToReadFile, path),
                        AS_LOCATION("ReadFile", 21))
        .WithCause(e);
  return text;
}

Common::Error WriteCommand(const std::string& path, const std::string& command) {
  Common::Error e = FileSystem::WriteFile(path, command);
  if (!e) return e;
  return Common::Error(kErrorSysfsWrite, Core::FormatMessage(Messages::FailedToWriteCommand, command, path),
                       AS_LOCATION("WriteCommand", 31))
      .WithCause(e);
}

}  // namespace Detail
}  // namespace SCSI
