// The same bytes as each sysfs text the library reads: a number file (size,
// partition), a decimal of each width, a device/scsi_disk entry "H:C:T:L" and a
// device/state. Whatever is accepted must be what the bytes say.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/common/decimal.h"
#include "core/common/error.h"
#include "core/common/unicode.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/disk_text.h"
#include "virtualization/common/storage/impl/storage_internal.h"
#include "../fuzz_setup.h"

namespace {

const char kPlain[] = " abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";

// Digits only, as written back without leading zeros.
bool IsDecimalOf(std::string_view text, uint64_t value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string_view::npos) return false;
  const size_t first = text.find_first_not_of('0');
  const std::string_view digits = first == std::string_view::npos ? std::string_view("0") : text.substr(first);
  return digits == std::to_string(value);
}

template <typename Unsigned>
void CheckDecimal(std::string_view text) {
  Unsigned value = 7;
  if (Common::ParseDecimal(text, value) ? !IsDecimalOf(text, value) : value != 7) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);

  // What stands before the first line feed or NUL, or 0.
  const uint64_t number = Virtualization::Appliance::Detail::ReadSysfsNumber(bytes);
  const std::string_view head = std::string_view(bytes).substr(0, bytes.find_first_of(std::string("\n\0", 2)));
  if (number != 0 && !IsDecimalOf(head, number)) __builtin_trap();

  CheckDecimal<uint8_t>(bytes);
  CheckDecimal<uint16_t>(bytes);
  CheckDecimal<uint32_t>(bytes);
  CheckDecimal<uint64_t>(bytes);

  uint32_t host = 0, target = 0;
  if (SCSI::Detail::SplitAddress(bytes, host, target)) {
    const size_t one = bytes.find(':'), two = bytes.find(':', one + 1), three = bytes.find(':', two + 1);
    if (three == std::string::npos || bytes.find(':', three + 1) != std::string::npos ||
        !IsDecimalOf(std::string_view(bytes).substr(0, one), host) ||
        !IsDecimalOf(std::string_view(bytes).substr(two + 1, three - two - 1), target) ||
        bytes.substr(one + 1, two - one - 1).find_first_not_of("0123456789") != std::string::npos ||
        bytes.substr(three + 1).find_first_not_of("0123456789") != std::string::npos)
      __builtin_trap();
  }

  bool offline = false;
  const Common::Error unknown = SCSI::Detail::ParseDiskState("sdz", bytes, offline);
  if (offline != (bytes.find("offline") != std::string::npos)) __builtin_trap();
  if (unknown ? unknown.GetCode() != SCSI::kErrorDisk || unknown.GetText().find(Common::Str(u"'sdz'")) == String::npos
              : !offline && bytes.find("running") == std::string::npos)
    __builtin_trap();
  // The text read is named too, where it is plain text.
  if (unknown && bytes.find_first_not_of(kPlain) == std::string::npos &&
      unknown.GetText().find(Common::Widen(bytes)) == String::npos)
    __builtin_trap();
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  return Fuzz::Setup(argc, argv, 4096,
                     {std::string(size_t{1} << 20, '9') + "\n", std::string(size_t{1} << 20, ':'),
                      "running" + std::string(size_t{1} << 20, '\0')},
                     LLVMFuzzerTestOneInput);
}
