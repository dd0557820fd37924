#pragma once
// The SCSI disks of the machine, as the storage code sees them.
//
// SCSI::DiskSubsystem lists the disks that sit on hosts of a known adapter kind,
// rescans hosts and disks, and adds or removes a disk, waiting (up to ten minutes)
// until the kernel reports the change. Get one from SCSI::CreateDiskSubsystem(); each
// call makes a new object. Operations return their Common::Error (codes in
// errors.h); only creation throws.
//
// Between processes, disk work is serialised through Lock(): the returned pointer
// holds the inter-process lock "SCSISubsystemLocker" for as long as any copy of it
// lives. It is recursive within a process.
//
//   auto disks = SCSI::CreateDiskSubsystem();
//   auto lock = disks->Lock();
//   std::vector<SCSI::Disk> list;
//   if (Common::Error e = disks->Enumerate(list)) { ... }
//
// Threads: the objects may be used from any thread; AddDisk and RemoveDisk block
// their caller while the snapshot driver's thread delivers device notifications.
#include <cstdint>
#include <memory>
#include <vector>

#include "core/common/error.h"
#include "core/common/export.h"
#include "core/common/guid.h"
#include "core/common/ustring.h"

namespace Common {
class SharedMutex;
}

namespace SCSI {

// Host adapter kinds, by the driver named in /sys/class/scsi_host/hostN/proc_name.
enum HostType : int32_t {
  HostTypeMptSpi = 1,
  HostTypeMptSas = 2,
  HostTypeBusLogic = 3,
  HostTypePvScsi = 4,
  HostTypeAtaPiix = 5,
  HostTypeVirtioScsi = 6,
  HostTypeAhci = 7,
  HostTypeSym53c8xx = 8,
  HostTypeMegaraidSas = 9,
};

// The driver's name as the kernel spells it in proc_name ("virtio_scsi", "vmw_pvscsi");
// "unknown" for any other value.
AS_EXPORT const char* HostTypeName(int32_t type);

// One present disk.
struct AS_EXPORT Disk {
  int32_t type = 0;      // HostType of its host
  uint32_t host = 0;     // N of hostN
  uint32_t target = 0;
  String name;           // kernel name, "sdb"
  GUID id;               // serial identifier (inquiry page 0x83); zero when unknown
  bool readable = false;  // online and its first 512 bytes could be read
};

// By type, then host, then target.
AS_EXPORT bool operator<(const Disk& a, const Disk& b);

class AS_EXPORT DiskSubsystem {
 public:
  virtual ~DiskSubsystem();
  virtual std::shared_ptr<Common::SharedMutex> Lock() = 0;
  // Scans every known host and rescans every listed disk.
  virtual Common::Error Refresh() = 0;
  // Replaces `disks` with the present disks, sorted; leaves it alone on failure.
  virtual Common::Error Enumerate(std::vector<Disk>& disks) = 0;
  // Brings up the disk at disk.host/disk.target; `name` receives its kernel name.
  virtual Common::Error AddDisk(const Disk& disk, String& name) = 0;
  virtual Common::Error RemoveDisk(const Disk& disk) = 0;
  virtual Common::Error GetScsiSerialID(const String& devicePath, GUID& id) = 0;
};

// Throws Common::Error when the disk library cannot be initialised.
AS_EXPORT std::shared_ptr<DiskSubsystem> CreateDiskSubsystem();

}  // namespace SCSI
