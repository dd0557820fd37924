// Narrow patterns through plain substitution. Input: one byte that picks how many
// arguments are given (0 to 4), the rest is the pattern.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "core/common/error.h"
#include "processor/format/format_string.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string pattern(reinterpret_cast<const char*>(data) + 1, size - 1);
  const char* p = pattern.c_str();
  const String wide{'s', 'd', 0xD800, 'b'};
  const Common::Error error(0x53000A, "text", AS_HERE);
  std::string out;
  switch (data[0] % 5) {
    case 0: out = Core::FormatString(p); break;
    case 1: out = Core::FormatString(p, "{0}"); break;
    case 2: out = Core::FormatString(p, -7, "{1}x"); break;
    case 3: out = Core::FormatString(p, UINT64_MAX, wide, 2.5); break;
    default: out = Core::FormatString(p, true, error, std::string(300, 'a'), '{'); break;
  }
  // Text without a brace comes back as it was.
  if (std::strchr(p, '{') == nullptr && out != std::string(p)) __builtin_trap();
  return 0;
}
