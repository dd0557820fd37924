// Bytes as GUID text, narrow and as UTF-16 units. Whatever parses is the canonical
// text in some case, in braces or not, with at most a line feed after, and survives
// the trip to text and to bytes in both layouts; a refusal leaves the target alone.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "core/common/guid.h"
#include "../fuzz_setup.h"

namespace {

template <class Guid>
void CheckText(std::string_view text) {
  Guid parsed;
  parsed.Data1 = 0x5EED;
  if (!Guid::Parse(text, parsed)) {
    if (parsed.Data1 != 0x5EED || parsed.Data2 != 0) __builtin_trap();
    return;
  }
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  if (text.size() == 38) text = text.substr(1, 36);
  const std::string canonical = parsed.ToString();
  if (text.size() != canonical.size()) __builtin_trap();
  for (size_t i = 0; i < text.size(); ++i)
    if ((text[i] >= 'a' && text[i] <= 'f' ? text[i] - 'a' + 'A' : text[i]) != canonical[i]) __builtin_trap();
  Guid again;
  uint8_t bytes[16];
  parsed.ToBytes(bytes);
  if (!Guid::Parse(canonical, again) || again != parsed || Guid::FromBytes(bytes) != parsed) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CheckText<Common::GuidTemplate<Common::LittleEndian>>(text);
  CheckText<Common::GuidTemplate<Common::BigEndian>>(text);

  // UTF-16 units, two bytes each: never a hex digit above 0x7F.
  String wide(size / 2, 0);
  std::memcpy(&wide[0], data, wide.size() * 2);
  GUID fromWide, fromNarrow;
  if (GUID::Parse(wide, fromWide)) {
    std::string narrow;
    for (const auto unit : wide) {
      if (unit > 0x7F) __builtin_trap();
      narrow += static_cast<char>(unit);
    }
    if (!GUID::Parse(narrow, fromNarrow) || fromNarrow != fromWide) __builtin_trap();
  }
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  return Fuzz::Setup(argc, argv, 4096, {std::string(size_t{1} << 20, 'a') + "\n"}, LLVMFuzzerTestOneInput);
}
