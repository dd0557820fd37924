#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

#include "core/common/message_ids.h"
#include "core/include/file/file.h"
#include "processor/format/format_message.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"

namespace SCSI {
namespace Detail {

size_t ReadFile(const std::string& path, std::vector<uint8_t>& buffer, size_t limit) {
  FileSystem::File file;
  if (Common::Error e = FileSystem::File::Open(path, FileSystem::File::kRead, file))
    throw Common::Error(kErrorSysfsOpen, Core::FormatMessage(Messages::FailedToOpenFile, path),
                        AS_LOCATION("OpenFile", __LINE__))
        .WithCause(e);
  if (buffer.size() < limit) buffer.resize(limit);
  size_t count = 0;
  if (Common::Error e = file.Read(buffer.data(), limit, count))
    throw Common::Error(kErrorSysfsRead, Core::FormatMessage(Messages::FailedToReadFile, path),
                        AS_LOCATION("ReadFile", __LINE__))
        .WithCause(e);
  return count;
}

Common::Error WriteCommand(const std::string& path, const std::string& command) {
  FileSystem::File file;
  Common::Error e = FileSystem::File::Open(path, FileSystem::File::kWrite, file);
  if (!e) e = file.Write(command.data(), command.size());
  if (!e) return e;
  return Common::Error(kErrorSysfsWrite, Core::FormatMessage(Messages::FailedToWriteCommand, command, path),
                       AS_LOCATION("WriteCommand", __LINE__))
      .WithCause(e);
}

}  // namespace Detail
}  // namespace SCSI
