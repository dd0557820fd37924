#pragma once
// What a disk holds as libblkid sees it (partition tables, file systems, swap, RAID and
// LVM members, encrypted volumes), read from the devices without caches, and its wiping.
#include <cstddef>
#include <string>
#include <vector>

#include "core/common/ustring.h"
#include "virtualization/common/storage/storage_manager.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

struct DiskContents {
  std::vector<BlockDevice::Signature> tables;  // partition tables of the whole disk
  std::vector<BlockDevice::Signature> data;    // anything else, on the disk or a partition
  size_t partitions = 0;  // in the table or in the kernel's view, whichever has more
};

// Probes the disk `name` ("sdb"): the whole device, each partition of its table at its
// offset, and each partition the kernel shows through its own node. Throws
// kErrorSignatures with the cause.
DiskContents ProbeDisk(const String& name);

// Erases every signature that ProbeDisk would find, partitions first, flushes the
// devices and asks the kernel to re-read the (now empty) partition table. Throws
// kErrorSignatures with the cause.
void WipeDisk(const String& name);

// "sdb1: ext4 'data', sdb2: swap", or "N partitions" when nothing carries a signature.
std::string Describe(const DiskContents& contents);

// Writes what the page cache holds of the device `path` to the disk and waits for it.
// Returns the POSIX error.
Common::Error FlushDevice(const std::string& path);

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
