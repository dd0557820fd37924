#pragma once
// The common library's 16-byte identifier. Partition UUIDs and disk serial
// identifiers are held in it. Text form: 8-4-4-4-12 upper-case hex digits,
// "%08X-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X".
#include <cstdint>
#include <string>
#include <string_view>

#include "core/common/export.h"
#include "core/common/ustring.h"

namespace Common {

// How Data1..Data3 are laid out when the identifier is read from or written to bytes.
struct AS_EXPORT LittleEndian {};
struct AS_EXPORT BigEndian {};

template <class Endian>
struct AS_EXPORT GuidTemplate {
  uint32_t Data1 = 0;
  uint16_t Data2 = 0;
  uint16_t Data3 = 0;
  uint8_t Data4[8] = {};

  bool IsNull() const noexcept;

  std::string ToString() const;   // canonical text form, 36 characters
  String ToWideString() const;

  // The inverse of ToString: 36 characters in either case, optionally in braces,
  // optionally followed by one line feed. Anything else is refused and `out` is
  // left unchanged.
  static bool Parse(std::string_view text, GuidTemplate& out) noexcept;
  static bool Parse(const String& text, GuidTemplate& out) noexcept;

  static GuidTemplate FromBytes(const uint8_t (&bytes)[16]) noexcept;
  void ToBytes(uint8_t (&bytes)[16]) const noexcept;

  friend bool operator==(const GuidTemplate& a, const GuidTemplate& b) noexcept { return Compare(a, b) == 0; }
  friend bool operator!=(const GuidTemplate& a, const GuidTemplate& b) noexcept { return Compare(a, b) != 0; }
  friend bool operator<(const GuidTemplate& a, const GuidTemplate& b) noexcept { return Compare(a, b) < 0; }

 private:
  static int Compare(const GuidTemplate& a, const GuidTemplate& b) noexcept;
};

static_assert(sizeof(GuidTemplate<LittleEndian>) == 16, "a GUID is 16 bytes");

extern template struct GuidTemplate<LittleEndian>;
extern template struct GuidTemplate<BigEndian>;

using GUID = GuidTemplate<LittleEndian>;

}  // namespace Common

using GUID = Common::GUID;
