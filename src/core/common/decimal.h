#pragma once
// The one parser for the unsigned decimals that the kernel writes (sysfs numbers,
// "MAJ:MIN", uevent fields, SCSI addresses). Header-only so that the platform
// libraries share it without linking the library.
#include <charconv>
#include <cstddef>
#include <string_view>
#include <type_traits>

namespace Common {

// Digits only, the whole text, no sign and no white space; false on overflow. `value`
// is left alone on failure.
template <typename Unsigned>
bool ParseDecimal(std::string_view text, Unsigned& value) {
  static_assert(std::is_unsigned<Unsigned>::value, "unsigned values only");
  if (text.empty() || text.front() < '0' || text.front() > '9') return false;
  Unsigned parsed = 0;
  const auto r = std::from_chars(text.data(), text.data() + text.size(), parsed, 10);
  if (r.ec != std::errc() || r.ptr != text.data() + text.size()) return false;
  value = parsed;
  return true;
}

// Exactly N decimals joined by ':', as the kernel names SCSI devices ("H:C:T:L") and
// device numbers ("MAJ:MIN"). `parts` is left alone on failure.
template <size_t N, typename Unsigned>
bool ParseDecimals(std::string_view text, Unsigned (&parts)[N]) {
  Unsigned parsed[N];
  for (size_t i = 0; i < N; ++i) {
    const size_t stop = i + 1 < N ? text.find(':') : text.size();
    if (stop == std::string_view::npos || !ParseDecimal(text.substr(0, stop), parsed[i])) return false;
    text.remove_prefix(i + 1 < N ? stop + 1 : stop);
  }
  for (size_t i = 0; i < N; ++i) parts[i] = parsed[i];
  return true;
}

}  // namespace Common
