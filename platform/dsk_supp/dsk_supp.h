#pragma once
// Disk library of the appliance: finds block devices by device number or node name
// and tells their SCSI address. This is the stand-in, built on sysfs: the link
// /sys/dev/block/MAJ:MIN leads to the block device, whose device/scsi_disk entry
// H:C:T:L names the SCSI address, and /sys/block/<name>/dev leads back.
//
// Every call is safe from any thread (the disk notifications arrive on a thread of
// their own) and reports failure by its return value; nothing is thrown across this
// interface. Lookups read sysfs afresh each time: nothing is cached.
#include <atomic>
#include <string>

#define DSK_SUPP_API __attribute__((visibility("default")))

namespace dsk_supp {

// Why InitInternals failed.
enum ecodes : int {
  ec_ok = 0,
  ec_no_sysfs = 1,  // /sys/block or /sys/dev/block cannot be read
};

// Kinds of volume member the lookups accept; only whole disks are known here.
enum mtypes : int {
  mt_unknown = 0,
  mt_disk = 1,
};

// Index of a device in the disk library. Stable while the device keeps its number.
using index_t = unsigned long long;

// SCSI address part that a block device without one (virtio, loop) reports.
constexpr unsigned int kNoScsiAddress = 0xFFFFFFFFu;

// One volume as the disk library describes it.
struct UnixVolID {
  std::string DevNode;                   // "/dev/sdb"
  unsigned int Major = 0;
  unsigned int Minor = 0;
  unsigned int ScsiHost = kNoScsiAddress;
  unsigned int ScsiChannel = kNoScsiAddress;
  unsigned int ScsiTarget = kNoScsiAddress;
  unsigned int ScsiLun = kNoScsiAddress;
};

class Internals;

// Non-null once InitInternals has succeeded.
DSK_SUPP_API extern std::atomic<Internals*> Instance;

// Prepares the library; may be called any number of times. On failure `code` says why.
DSK_SUPP_API bool InitInternals(ecodes& code) noexcept;

// Index of the device with volume's Major:Minor.
DSK_SUPP_API bool IndexbyDev(const UnixVolID& volume, mtypes type, index_t& index) noexcept;

// Index of the device whose node is volume's DevNode ("/dev/sdb"; the name after the
// last '/' is what counts).
DSK_SUPP_API bool IndexbyDevName(const UnixVolID& volume, mtypes type, index_t& index) noexcept;

// Fills `volume` for the device at `index`: node path, numbers and SCSI address
// (kNoScsiAddress parts for a disk that is not on a SCSI host). `volume` is left
// unchanged on failure.
DSK_SUPP_API bool VolIDbyIndex(index_t index, mtypes type, UnixVolID& volume) noexcept;

}  // namespace dsk_supp
