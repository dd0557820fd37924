#pragma once
// The facts of a partition's file system as `blkid -p` and e2label read them: from the
// device itself, no cache, no child process.
#include <string>
#include <string_view>

#include "core/common/guid.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

struct FileSystemFacts {
  std::string type;  // "" when no single file system is identified
  GUID uuid;         // zero when it has none, or one that is no GUID
  std::string label;  // as e2label prints it (ext2/3/4 only), cut as PrintableLabel does
};

// Throws ProbeFailure when the device cannot be read for want of resources or rights;
// a device that is gone or unreadable gives no type.
FileSystemFacts ProbeFileSystem(const std::string& path);
FileSystemFacts ProbeFileSystem(int fd, const std::string& path);

// The bytes before the first one that is not printable ASCII (a NUL ends the label).
std::string PrintableLabel(std::string_view raw);

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
