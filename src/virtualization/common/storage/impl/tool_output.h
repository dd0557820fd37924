#pragma once
// Readers of what the disk tools print, apart from starting them: each takes the
// tool's output stream and stands any bytes (NULs, binary, over-long lines).
#include <cstdio>
#include <string>

#include "core/common/guid.h"
#include "core/common/ustring.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

// `blkid -o export`: the GUID after the first "UUID=" that starts a line, all zero
// when that is no GUID. Throws kErrorPartitionUuid naming the partition `name` when
// there is no such line or no stream (blkid did not start).
GUID ReadPartitionUuid(FILE* blkid, const String& name);

// `e2label`: the first line up to its first byte that is not printable ASCII, each
// byte one unit.
String ReadLabel(FILE* e2label);

// `lsblk -n -o mountpoint` of one device: its first line up to its first byte that
// is not printable ASCII.
std::string ReadMountpoint(FILE* lsblk);

// `lsblk -n -o mountpoint` of a disk, read to the end: whether any line is more than
// a line feed, i.e. names a mount point of the disk or a partition.
bool AnyMountpoint(FILE* lsblk);

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
