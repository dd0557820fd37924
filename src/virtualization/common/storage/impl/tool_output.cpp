#include "virtualization/common/storage/impl/tool_output.h"

#include <cstring>

#include "core/common/message_ids.h"
#include "processor/format/format_message.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/storage_internal.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

namespace {

// The bytes before the first one that is not printable ASCII, searched over the whole
// buffer: fgets leaves a NUL after what it read.
template <size_t N>
size_t PrintableLength(const char (&line)[N]) {
  size_t end = 0;
  while (end < N && line[end] >= 0x20 && line[end] <= 0x7E) ++end;
  return end;
}

}  // namespace

GUID ReadPartitionUuid(FILE* blkid, const String& name) {
  char line[1024];
  bool atLineStart = true;
  while (blkid && !std::feof(blkid) && std::fgets(line, sizeof line, blkid)) {
    // The rest of an over-long line is no field of its own.
    const bool fieldStart = atLineStart;
    atLineStart = std::strchr(line, '\n') != nullptr;
    if (!fieldStart || std::strncmp(line, "UUID=", 5) != 0) continue;
    GUID uuid;
    GUID::Parse(std::string_view(line + 5), uuid);
    return uuid;
  }
  throw Common::Error(kErrorPartitionUuid, Core::FormatMessage(Messages::FailedToGetPartitionUuid, name),
                      AS_STORAGE_AT("GetPartitionUUID", 180));
}

String ReadLabel(FILE* e2label) {
  char line[256] = {};
  if (!std::fgets(line, sizeof line, e2label)) return {};
  String label;
  for (size_t i = 0, end = PrintableLength(line); i < end; ++i) label += static_cast<unsigned char>(line[i]);
  return label;
}

std::string ReadMountpoint(FILE* lsblk) {
  char line[1024] = {};
  if (!std::fgets(line, sizeof line, lsblk)) return {};
  return std::string(line, PrintableLength(line));
}

bool AnyMountpoint(FILE* lsblk) {
  bool mounted = false;
  char line[1024];
  while (std::fgets(line, sizeof line, lsblk)) mounted = mounted || line[0] != '\n';
  return mounted;
}

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
