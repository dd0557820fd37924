#pragma once
// The appliance's local disks and the storages on them.
//
// StoragesManager lists the SCSI disks that can hold storages as BlockDevice objects:
// disks marked "Temporary" in the disk attributes, the disk that holds "/" and disks
// under 10 GiB are left out. A BlockDevice knows its partitions (Partition), can be
// turned into a storage (CreateBackupPartition: one GPT partition, ext4, labelled
// "ZLM"), and a Partition can be labelled, mounted below a mount root and unmounted.
//
//   Virtualization::Appliance::StoragesManager manager;
//   for (const auto& device : manager.GetBlockDevices(false))
//     for (const auto& partition : device->GetPartitions())
//       if (partition->IsSupported()) ... partition->GetLabel() ...
//
// Failures: queries and constructors throw Common::Error; operations that change the
// machine (label, mount, unmount) return it; CreateBackupPartition throws.
//
// Ownership: devices and partitions are shared by std::shared_ptr. A device owns its
// partitions; a partition handed out by GetPartitions keeps its device (and itself)
// alive for as long as the caller holds it. Nothing is kept once the caller lets go.
//
// Threads: GetBlockDevices serialises with other processes and threads on the disk
// subsystem's lock. A BlockDevice may be read from several threads while one reloads
// it. A Partition has no lock: do not change one object from two threads at once.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/export.h"
#include "core/common/guid.h"
#include "core/common/ustring.h"

namespace SCSI {
struct Disk;
}

namespace Virtualization {
namespace Appliance {

class BlockDevice;
class Partition;

class AS_EXPORT StoragesManager {
 public:
  // The directory below which storages are mounted: "/mnt/local_storages".
  static const String PartitionsMountRoot;

  // Creates the mount root when it is missing. Throws the file layer's error.
  StoragesManager();

  // The disks that may hold storages, in the disk subsystem's order. With `rescan`,
  // disks without a mounted partition are first removed from the kernel, the SCSI
  // hosts rescanned, and after a second's wait the disks listed again. Throws
  // 0x72001F with the error that stopped it as cause.
  std::vector<std::shared_ptr<BlockDevice>> GetBlockDevices(bool rescan) const;

  // The names of the disks marked "Temporary", each followed by a line feed; drops
  // the attribute records of disks that are gone. Throws what it meets.
  String CleanupDiskSubsystem();
};

class AS_EXPORT BlockDevice : public std::enable_shared_from_this<BlockDevice> {
 public:
  struct Private {};

  // Made by StoragesManager only, with std::make_shared. Reads the size.
  BlockDevice(Private, const SCSI::Disk& disk);
  ~BlockDevice();
  BlockDevice(const BlockDevice&) = delete;
  BlockDevice& operator=(const BlockDevice&) = delete;

  // Size in bytes of the disk `name` ("sdb") from sysfs; 0, traced, when unknown.
  static uint64_t GetDeviceSize(const String& name);

  // Re-reads the partitions from sysfs. A partition that is still there keeps its
  // object; new ones come after the old. A disk gone from sysfs has none. Throws what
  // a new Partition throws, or the file layer's error when sysfs or the mount table
  // cannot be read, leaving the list as it was.
  void ReloadPartitions();
  // Each partition handed out keeps this device alive while the caller holds it.
  std::vector<std::shared_ptr<Partition>> GetPartitions();

  // A partition is mounted at "/".
  bool IsSystemBlockDevice();
  // Usable for a storage: any disk but the system disk, and the system disk only if
  // its one partition is a supported storage.
  bool IsSupported();
  // Exactly one partition, and it is a supported storage.
  bool HasSupportedPartition();

  // Makes the whole disk one storage: zeroes the first sector, writes one GPT
  // partition, formats it as ext4 labelled "ZLM". Returns (success) only once the
  // writes are durable. Refuses, before writing anything, a disk with a mounted storage
  // (0x720021) and one that may hold data (0x720022 <- 0x72004A): a signature on the
  // disk or a partition (FindSignatures), or more than one partition. A disk left by
  // an interrupted preparation (at most one partition, nothing on it) is prepared
  // again. Throws every failure.
  Common::Error CreateBackupPartition();
  // The same, telling `progress` each step as it begins: "Check for mounted storages
  // on /dev/sdb", "Cleanup /dev/sdb", "Marking up /dev/sdb", "Formatting /dev/sdb",
  // "Labelling /dev/sdb1"; and, each indented by two spaces, the lines mke2fs prints of
  // its work while it formats ("Writing inode tables: done").
  Common::Error CreateBackupPartition(const std::function<void(const std::string& step)>& progress);

  // One thing libblkid recognises on the disk: a partition table ("gpt", "dos") or a
  // signature on the whole disk (`partition` is the disk's name) or on a partition
  // (`partition` is "sdb1"): a file system, swap, RAID or LVM member, encrypted volume.
  struct Signature {
    String partition;
    std::string type;   // as blkid prints TYPE or PTTYPE
    std::string label;  // the file system's label; empty when it has none
  };
  // What the disk holds, partition tables first; empty for a blank disk. Reads the
  // device without caches. Throws 0x72004B when the disk cannot be read.
  std::vector<Signature> FindSignatures();
  // Erases every signature of the disk and its partitions (libblkid's wiping, a few
  // bytes each, as wipefs does) and makes the kernel forget the partitions, so that the
  // disk can be prepared. Refuses a disk with anything mounted (0x720021). Returns
  // 0x72004B with the cause of a failure.
  Common::Error WipeSignatures();

  const String& GetName() const { return name; }
  uint64_t GetSize() const { return size; }
  const GUID& GetDiskId() const { return diskId; }
  uint32_t GetHost() const { return host; }
  uint32_t GetTarget() const { return target; }

 private:
  std::mutex reloadMutex;      // before partitionsMutex
  std::mutex partitionsMutex;  // held for copies and swaps only
  std::vector<std::shared_ptr<Partition>> OwnPartitions();

  std::vector<std::shared_ptr<Partition>> partitions;  // they do not own the device
  GUID diskId;
  uint32_t host = 0;
  uint32_t target = 0;
  String name;
  String deviceName;
  uint64_t size = 0;
};

class AS_EXPORT Partition {
 public:
  // Bytes of a label that an ext2/3/4 file system keeps after the "ZLM" prefix (16 in
  // all). SetLabel refuses longer labels.
  static constexpr size_t kMaxLabelLength = 13;

  // Reads the file-system UUID from the partition itself (libblkid, the value
  // `blkid -p` prints), size and number (sysfs) and where the partition is mounted.
  // A partition without exactly one identifiable file system (blank, foreign, or gone
  // meanwhile) gets a zero UUID, is never supported, and is traced as a warning.
  // Throws 0x720048 when the partition cannot be read for want of descriptors, memory
  // or rights, and the file layer's error when sysfs or the mount table cannot be read.
  Partition(const std::shared_ptr<BlockDevice>& device, const String& name);
  Partition(const Partition&) = delete;
  Partition& operator=(const Partition&) = delete;

  // The label without its "ZLM" prefix (the whole label when it lacks the prefix).
  String GetLabel() const;
  // The label of an ext2/3/4 file system as e2label prints it, up to the first byte
  // that is not printable ASCII; empty when there is none. Read from the device.
  String GetLabelImpl() const;
  // Writes "ZLM" + label with tune2fs. Returns 0x720026 with the tool's status, or with
  // 0x72004C when the label has more than kMaxLabelLength bytes (UTF-8).
  Common::Error SetLabel(const String& label);
  // "<host>_<target>_<number>", the identifier that earlier versions stored.
  std::string GetDeprecatedVolumeId() const;
  // Mounted (or mountable) below the standard root, labelled "ZLM...", at least 5 GiB,
  // with an identified file system.
  bool IsSupported() const;

  // Finds out whether and where the partition is mounted, relative to `root`, from the
  // mount table as lsblk reads it (once for a whole listing). Throws the file layer's
  // error when the table cannot be read.
  void SetMountRoot(const String& root);
  // Mounts the partition on the directory `name` below the mount root, creating it,
  // and gives an unlabelled file system the label "ZLM". `name` is one path
  // component. Returns 0x720023.
  Common::Error Mount(const String& name);
  // Only runs mount on `path`, then sets the default label where needed.
  Common::Error DoMount(const String& path);
  // Unmounts the partition and removes its mount directory. Returns 0x720024.
  Common::Error Unmount();
  // Only runs umount.
  Common::Error DoUnmount();

  // Null when the device is gone (a partition made by hand outlives it).
  std::shared_ptr<BlockDevice> GetDevice() const { return Device.lock(); }
  const GUID& GetUuid() const { return Uuid; }
  const String& GetName() const { return Name; }
  const String& GetMountRoot() const { return MountRoot; }
  // The directory name below the mount root; the absolute mount point when mounted
  // elsewhere; empty when not mounted.
  const String& GetMountPoint() const { return MountPoint; }
  uint64_t GetSize() const { return Size; }
  uint64_t GetNumber() const { return Number; }

 private:
  std::weak_ptr<BlockDevice> Device;  // a strong one would keep both forever
  String DeviceName;
  uint32_t Host = 0, Target = 0;
  bool Identified = true;  // exactly one file system found
  GUID Uuid;
  String Name;
  String MountRoot;
  String MountPoint;
  uint64_t Size = 0;
  uint64_t Number = 0;
};

}  // namespace Appliance
}  // namespace Virtualization
