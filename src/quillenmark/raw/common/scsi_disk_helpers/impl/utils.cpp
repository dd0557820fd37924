#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

#include <charconv>

#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "processor/format/format_string.h"

namespace SCSI {
namespace Detail {

String MessageText(TextFromMessageFile id) {
  const unsigned short* text = GetTextFromMessageFile(id);
  return String(text, Common::Length(text));
}

size_t ReadFile(const std::string& path, std::vector<uint8_t>& buffer, size_t limit) {
  FileSystem::File file;
  if (Common::Error e = FileSystem::File::Open(path, FileSystem::File::kRead, file))
    throw Common::Error(0x530123, Core::FormatString(MessageText(Messages::FailedToOpenFile), path),
                        AS_LOCATION("OpenFile", __LINE__))
        .WithCause(e);
  if (buffer.size() < limit) buffer.resize(limit);
  size_t count = 0;
  if (Common::Error e = file.Read(buffer.data(), limit, count))
    throw Common::Error(0x530124, Core::FormatString(MessageText(Messages::FailedToReadFile), path),
                        AS_LOCATION("ReadFile", __LINE__))
        .WithCause(e);
  return count;
}

Common::Error WriteCommand(const std::string& path, const std::string& command) {
  FileSystem::File file;
  Common::Error e = FileSystem::File::Open(path, FileSystem::File::kWrite, file);
  if (!e) e = file.Write(command.data(), command.size());
  if (!e) return e;
  return Common::Error(0x5300C6, Core::FormatString(MessageText(Messages::FailedToWriteCommand), command, path),
                       AS_LOCATION("WriteCommand", __LINE__))
      .WithCause(e);
}

bool ParseUnsigned(std::string_view text, uint32_t& value) {
  if (text.empty()) return false;
  uint32_t parsed = 0;
  const auto r = std::from_chars(text.data(), text.data() + text.size(), parsed, 10);
  if (r.ec != std::errc() || r.ptr != text.data() + text.size()) return false;
  value = parsed;
  return true;
}

}  // namespace Detail
}  // namespace SCSI
