#pragma once
// The unit serial number page (VPD 0x80) as `scsi_id --page=0x83 --export` prints it.
// scsi_id takes ID_SCSI_SERIAL from this page whatever page 0x83 holds, so the kernel's
// copy of the page (or one INQUIRY) gives the identifier without running it.
#include <cstddef>
#include <cstdint>
#include <string>

namespace SCSI {
namespace Detail {

// The value of ID_SCSI_SERIAL for `page` (header and all), "" where scsi_id prints no such
// line: the bytes after the 4-byte header, as many as byte 3 says, kept as they are (padding
// and control bytes too) up to the first NUL; nothing unless byte 1 is 0x80 and byte 3 at
// most 231. Bytes past `size` read as zero, as in scsi_id's cleared buffer.
std::string UnitSerialText(const uint8_t* page, size_t size);

}  // namespace Detail
}  // namespace SCSI
