// Plain digits in a radix: the "hex" and "simple" number styles.
#include <cmath>
#include <cstdint>

#include "processor/format/impl/formatters.h"

namespace Processor {

void NumberFormatHEX::FormatUnsigned(uint64_t value, TextBuffer& out) const {
  unsigned short digits[64];
  size_t n = 0;
  do {
    digits[n++] = static_cast<unsigned char>(digits_[value % radix_]);
    value /= radix_;
  } while (value != 0);
  out.reserve(out.size() + n);
  while (n > 0) out.push_back(digits[--n]);
}

void NumberFormatHEX::FormatDouble(double value, TextBuffer& out) const {
  if (std::isnan(value)) return out.appendAscii("NaN");
  if (std::isinf(value)) return out.append(value < 0 ? u"-\u221E" : u"\u221E");
  const double whole = std::trunc(value);
  if (whole < 0) {
    if (whole >= -9223372036854775808.0) {
      Format(Variant(static_cast<int64_t>(whole)), out);
      return;
    }
    out.push_back('-');
    FormatUnsigned(UINT64_MAX, out);
    return;
  }
  FormatUnsigned(whole >= 18446744073709551615.0 ? UINT64_MAX : static_cast<uint64_t>(whole), out);
}

void NumberFormatHEX::Format(const Variant& value, TextBuffer& out) const {
  switch (value.GetType()) {
    case Variant::TLong:
      if (value.GetLong() < 0 && radix_ != 16) {
        out.push_back('-');
        return FormatUnsigned(0 - static_cast<uint64_t>(static_cast<int64_t>(value.GetLong())), out);
      }
      return FormatUnsigned(static_cast<uint32_t>(value.GetLong()), out);
    case Variant::TLong64:
      if (value.GetLong64() < 0 && radix_ != 16) {
        out.push_back('-');
        return FormatUnsigned(0 - static_cast<uint64_t>(value.GetLong64()), out);
      }
      return FormatUnsigned(static_cast<uint64_t>(value.GetLong64()), out);
    case Variant::TULong:
      return FormatUnsigned(value.GetULong(), out);
    case Variant::TULong64:
      return FormatUnsigned(value.GetULong64(), out);
    case Variant::TBool:
      return FormatUnsigned(value.GetBool() ? 1 : 0, out);
    case Variant::TDate:
    case Variant::TDouble:
      return FormatDouble(value.GetDouble(), out);
    default:
      return;
  }
}

}  // namespace Processor
