#include "core/common/guid.h"

#include <cstdio>
#include <cstring>
#include <type_traits>

#include "core/common/hex_internal.h"
#include "core/common/unicode.h"

namespace Common {
namespace {

constexpr size_t kTextLength = 36;
constexpr bool IsDash(size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

// Works on narrow and UTF-16 text alike; units above 0x7F are never hex digits.
template <class Unit>
bool ParseText(const Unit* text, size_t length, uint8_t (&bytes)[16]) {
  if (length > 0 && text[length - 1] == '\n') --length;
  if (length == kTextLength + 2 && text[0] == '{' && text[length - 1] == '}') {
    ++text;
    length -= 2;
  }
  if (length != kTextLength) return false;
  size_t out = 0;
  for (size_t i = 0; i < kTextLength;) {
    if (IsDash(i)) {
      if (text[i] != '-') return false;
      ++i;
      continue;
    }
    const int high = HexDigitValue(static_cast<unsigned>(text[i]));
    const int low = HexDigitValue(static_cast<unsigned>(text[i + 1]));
    if (high < 0 || low < 0) return false;
    bytes[out++] = static_cast<uint8_t>(high << 4 | low);
    i += 2;
  }
  return true;
}

}  // namespace

template <class Endian>
bool GuidTemplate<Endian>::IsNull() const noexcept {
  static const GuidTemplate zero{};
  return Compare(*this, zero) == 0;
}

template <class Endian>
std::string GuidTemplate<Endian>::ToString() const {
  char text[kTextLength + 1];
  std::snprintf(text, sizeof text, "%08X-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X", Data1, Data2, Data3,
                Data4[0], Data4[1], Data4[2], Data4[3], Data4[4], Data4[5], Data4[6], Data4[7]);
  return std::string(text, kTextLength);
}

template <class Endian>
String GuidTemplate<Endian>::ToWideString() const {
  return Widen(ToString());
}

// Bytes in reading order, most significant first, as the text names them.
template <class Guid>
void AssignInReadingOrder(const uint8_t (&b)[16], Guid& out) {
  out.Data1 = static_cast<uint32_t>(b[0]) << 24 | b[1] << 16 | b[2] << 8 | b[3];
  out.Data2 = static_cast<uint16_t>(b[4] << 8 | b[5]);
  out.Data3 = static_cast<uint16_t>(b[6] << 8 | b[7]);
  std::memcpy(out.Data4, b + 8, 8);
}

// `out` is left alone when the text does not parse.
template <class Unit, class Guid>
bool ParseInto(const Unit* text, size_t length, Guid& out) {
  uint8_t b[16];
  if (!ParseText(text, length, b)) return false;
  AssignInReadingOrder(b, out);
  return true;
}

template <class Endian>
bool GuidTemplate<Endian>::Parse(std::string_view text, GuidTemplate& out) noexcept {
  return ParseInto(text.data(), text.size(), out);
}

template <class Endian>
bool GuidTemplate<Endian>::Parse(const String& text, GuidTemplate& out) noexcept {
  return ParseInto(text.data(), text.size(), out);
}

template <class Endian>
GuidTemplate<Endian> GuidTemplate<Endian>::FromBytes(const uint8_t (&b)[16]) noexcept {
  GuidTemplate g;
  AssignInReadingOrder(b, g);
  if (std::is_same<Endian, LittleEndian>::value) {
    g.Data1 = static_cast<uint32_t>(b[3]) << 24 | b[2] << 16 | b[1] << 8 | b[0];
    g.Data2 = static_cast<uint16_t>(b[5] << 8 | b[4]);
    g.Data3 = static_cast<uint16_t>(b[7] << 8 | b[6]);
  }
  return g;
}

template <class Endian>
void GuidTemplate<Endian>::ToBytes(uint8_t (&b)[16]) const noexcept {
  const bool little = std::is_same<Endian, LittleEndian>::value;
  for (int i = 0; i < 4; ++i) b[little ? i : 3 - i] = static_cast<uint8_t>(Data1 >> (8 * i));
  for (int i = 0; i < 2; ++i) {
    b[4 + (little ? i : 1 - i)] = static_cast<uint8_t>(Data2 >> (8 * i));
    b[6 + (little ? i : 1 - i)] = static_cast<uint8_t>(Data3 >> (8 * i));
  }
  std::memcpy(b + 8, Data4, 8);
}

template <class Endian>
int GuidTemplate<Endian>::Compare(const GuidTemplate& a, const GuidTemplate& b) noexcept {
  if (a.Data1 != b.Data1) return a.Data1 < b.Data1 ? -1 : 1;
  if (a.Data2 != b.Data2) return a.Data2 < b.Data2 ? -1 : 1;
  if (a.Data3 != b.Data3) return a.Data3 < b.Data3 ? -1 : 1;
  return std::memcmp(a.Data4, b.Data4, 8);
}

template struct GuidTemplate<LittleEndian>;
template struct GuidTemplate<BigEndian>;

}  // namespace Common
