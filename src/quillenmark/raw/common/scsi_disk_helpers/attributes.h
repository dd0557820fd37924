#pragma once
// The named text attributes that the appliance's programs keep per disk, in the
// registry below HKLM\<brand>\Quillenmark\SCSIDevices: one record per disk, keyed by
// the disk's serial identifier (SCSI::Disk::id). The storage classes hide a disk
// that has the attribute "Temporary".
//
//   SCSI::DiskAttributes attributes;
//   if (Common::Error e = SCSI::GetDiskAttributes(disk.id, attributes)) ...
//   if (Common::Error e = SCSI::SetDiskAttribute(disk.id, Common::Str(u"Temporary"), Common::Str(u"1"))) ...
//
// Failures are returned as kErrorDisk (errors.h) with the registry's error as cause.
// A change reads the record and writes it back: hold the disk subsystem's Lock()
// around it where other processes may change the same disk's record.
#include <map>

#include "core/common/error.h"
#include "core/common/export.h"
#include "core/common/guid.h"
#include "core/common/ustring.h"

namespace SCSI {

using DiskAttributes = std::map<String, String>;

// Replaces `attributes` with the disk's attributes; none when it has no record.
AS_EXPORT Common::Error GetDiskAttributes(const GUID& id, DiskAttributes& attributes);
// Sets `name` to `value`, creating the record when missing.
AS_EXPORT Common::Error SetDiskAttribute(const GUID& id, const String& name, const String& value);
// Removes `name` (absent already: success); a record left without attributes goes.
AS_EXPORT Common::Error RemoveDiskAttribute(const GUID& id, const String& name);

}  // namespace SCSI
