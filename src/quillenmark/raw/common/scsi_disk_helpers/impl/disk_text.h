#pragma once
// Readers of the text the disk subsystem takes from outside (scsi_id's output and
// sysfs), apart from reading it: each stands any bytes.
#include <cstdint>
#include <string>
#include <string_view>

#include "core/common/error.h"
#include "core/common/guid.h"
#include "core/common/ustring.h"

namespace SCSI {
namespace Detail {

// The output of `scsi_id --export`: the identifier of its first line that begins
// "ID_SCSI_SERIAL=", dashed or 32 hex digits. When there is none that parses, `id` is all
// zero and the returned kErrorScsiIdEmpty names `devicePath`; the caller only traces it.
Common::Error ReadScsiSerial(const std::string& output, const String& devicePath, GUID& id);

// The same for a value that follows "ID_SCSI_SERIAL=", read as far as its first line feed
// (kept), as a line reader does; "" stands for no such line.
Common::Error ParseScsiSerial(const std::string& value, const String& devicePath, GUID& id);

// A device/scsi_disk entry "H:C:T:L": H and T; false unless there are four parts and
// those two are decimal.
bool SplitAddress(std::string_view entry, uint32_t& host, uint32_t& target);

// The content of device/state of the disk `name`: `offline` when it says so. A text
// that says neither offline nor running counts as online and gives a kErrorDisk that
// names the disk and the text, which the caller only traces.
Common::Error ParseDiskState(const std::string& name, const std::string& state, bool& offline);

}  // namespace Detail
}  // namespace SCSI
