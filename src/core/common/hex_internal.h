#pragma once
// The value of one hexadecimal digit of narrow or UTF-16 text; -1 for any other unit.

namespace Common {

constexpr int HexDigitValue(unsigned unit) noexcept {
  if (unit >= '0' && unit <= '9') return static_cast<int>(unit - '0');
  if (unit >= 'a' && unit <= 'f') return static_cast<int>(unit - 'a' + 10);
  if (unit >= 'A' && unit <= 'F') return static_cast<int>(unit - 'A' + 10);
  return -1;
}

}  // namespace Common
