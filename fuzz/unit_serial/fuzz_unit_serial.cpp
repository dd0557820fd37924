// The bytes as a unit serial number page (the kernel's copy in sysfs, or an INQUIRY's
// answer): the text is what scsi_id prints of them as ID_SCSI_SERIAL, and the identifier
// the one that the library took from that output of scsi_id; then the bytes as scsi_id's
// output itself.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/common/error.h"
#include "core/common/unicode.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/disk_text.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/unit_serial.h"
#include "../fuzz_setup.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text = SCSI::Detail::UnitSerialText(data, size);
  const auto at = [&](size_t i) -> size_t { return i < size ? data[i] : 0; };  // scsi_id's buffer is cleared
  const size_t n = text.size(), count = at(3);
  // Byte 3 counts the serial's bytes, taken as they are up to a NUL; another page, or a
  // serial too long for scsi_id's buffer, prints nothing.
  const bool none = at(1) != 0x80 || count > 231;
  const bool asTheBytesSay = n <= count && (n == 0 || (4 + n <= size && std::memcmp(data + 4, text.data(), n) == 0)) &&
                             text.find('\0') == std::string::npos && (n == count || at(4 + n) == 0);
  if (none ? n != 0 : !asTheBytesSay) __builtin_trap();

  // scsi_id prints the line only for a serial, and the library reads its output line by line.
  std::string output = "ID_SCSI=1\nID_TYPE=disk\n" + (text.empty() ? std::string() : "ID_SCSI_SERIAL=" + text + "\n");
  const String device = Common::Str(u"/dev/sdz");
  GUID printed, read;
  printed.Data1 = read.Data1 = 0xDEADBEEF;
  const bool fromOutput = !SCSI::Detail::ReadScsiSerial(output, device, printed);
  const bool fromPage = !SCSI::Detail::ParseScsiSerial(text + "\n", device, read);
  if (fromOutput != fromPage || printed != read || (!fromPage && !read.IsNull())) __builtin_trap();

  // The same bytes as scsi_id's whole output, the last resort: only its serial line counts.
  const std::string raw(reinterpret_cast<const char*>(data), size);
  GUID id;
  id.Data1 = 0xDEADBEEF;
  const Common::Error empty = SCSI::Detail::ReadScsiSerial(raw, device, id);
  if (empty ? empty.GetCode() != SCSI::kErrorScsiIdEmpty || !id.IsNull()
            : raw.find("ID_SCSI_SERIAL=") == std::string::npos)
    __builtin_trap();
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  return Fuzz::Setup(argc, argv, 512, {}, LLVMFuzzerTestOneInput);
}
