#pragma once
// Per-disk attributes that other programs of the appliance keep in the registry,
// one record per disk below HKLM\<brand>\Quillenmark\SCSIDevices, keyed by the
// disk's serial identifier in its upper-case text form. The record's default value
// is a multistring of (name, value) pairs. This library only reads them ("Temporary"
// hides a disk) and drops the records of disks that are gone.
#include <set>
#include <vector>

#include "core/common/error.h"
#include "core/common/guid.h"
#include "quillenmark/raw/common/scsi_disk_helpers/attributes.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "registry/key.h"

namespace SCSI {
namespace Detail {

// The root of the records, created when missing. Throws.
Registry::Key OpenAttributesRoot();

// Fills `attributes` from the disk's record; a disk without one has none. Returns
// kErrorDisk with the cause when the record cannot be read.
Common::Error LoadDiskAttributes(const GUID& id, DiskAttributes& attributes);

// The disks (their identifiers' text form) whose record holds the attribute `name`,
// from one read of the registry; none when the records cannot be read, since an
// unreadable registry hides nothing.
std::set<String> DisksWithAttribute(const String& name);

// Deletes the record of every disk not in `disks`. Throws kErrorDisk with the cause.
void SyncDisksAttributes(const std::vector<Disk>& disks);

}  // namespace Detail
}  // namespace SCSI
