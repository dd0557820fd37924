#pragma once
// The process's mount table (/proc/self/mountinfo) read in the process through
// libmount, and where it says a block device is mounted.
//
//   const Detail::MountTable table = Detail::MountTable::Read();
//   std::string dir = table.MountPointOf(Detail::BlockDeviceOf("/sys/block/sdb/sdb1", "/dev/sdb1"));
//
// SharedMountTable lets every partition of a listing use one read of the table.
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace Virtualization {
namespace Appliance {
namespace Detail {

// A block device as the mount table may name it: its number and its /dev path.
struct BlockDeviceId {
  std::optional<dev_t> devno;  // none when sysfs no longer has the device
  std::string path;            // "/dev/sdb1"
};

// The device whose sysfs directory is `sysfsDir`, by its "dev" file ("8:17"). Throws the
// file layer's error when that cannot be read for another reason than being gone.
BlockDeviceId BlockDeviceOf(const std::string& sysfsDir, const std::string& path);

class MountTable {
 public:
  struct Entry {
    dev_t devno = 0;
    std::string root;    // of the file system, "/" unless a bind mount of a part of it
    std::string target;  // the mount point, unescaped
    std::string source;
  };

  // Throws the file layer's error when the table cannot be read or holds a line that is
  // no mount: a table read in part could hide a mounted storage.
  static MountTable Read();
  // The same for mountinfo text.
  static MountTable Parse(const std::string& text);

  // Where `device` is mounted, as `lsblk -o MOUNTPOINT` shows it: of the entries with
  // its number, or its path as source, the last that mounts the root of its file
  // system, else the last; empty when there is none.
  std::string MountPointOf(const BlockDeviceId& device) const;

  const std::vector<Entry>& Entries() const { return entries_; }

 private:
  std::vector<Entry> entries_;  // in the table's order
};

// The table that code in its scope on this thread uses: read on entry unless an
// enclosing scope on this thread already did. A listing thus reads it once and a
// partition made on its own reads it itself. Throws what MountTable::Read throws.
class SharedMountTable {
 public:
  SharedMountTable();
  ~SharedMountTable();
  SharedMountTable(const SharedMountTable&) = delete;
  SharedMountTable& operator=(const SharedMountTable&) = delete;

  const MountTable& operator*() const { return *table_; }
  const MountTable* operator->() const { return table_; }

 private:
  std::optional<MountTable> own_;
  const MountTable* table_;
};

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
