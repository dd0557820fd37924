#include "quillenmark/raw/common/scsi_disk_helpers/impl/unit_serial.h"

#include <algorithm>

namespace SCSI {
namespace Detail {

namespace {
constexpr uint8_t kPageCode = 0x80;
// scsi_id keeps the serial in 256 bytes behind "S", vendor (8) and model (16), and refuses
// a page that would not fit.
constexpr size_t kLongest = 256 - 1 - 8 - 16;
}  // namespace

std::string UnitSerialText(const uint8_t* page, size_t size) {
  if (size < 4 || page[1] != kPageCode || page[3] > kLongest) return std::string();
  const uint8_t* first = page + 4;
  const uint8_t* last = page + std::min<size_t>(size, 4 + page[3]);
  return std::string(first, std::find(first, last, uint8_t{0}));
}

}  // namespace Detail
}  // namespace SCSI
