// The two engines behind Core::FormatString.
#include "processor/format/format_string.h"

#include <charconv>
#include <cstring>
#include <limits>

#include "core/common/unicode.h"
#include "processor/format/impl/error_text.h"
#include "processor/format/impl/formatters.h"
#include "processor/format/impl/message_format_impl.h"

namespace Core {
namespace Detail {

std::string FormatNarrow(const char* pattern, size_t length, const NarrowArg* args, size_t count) {
  size_t total = length;
  for (size_t i = 0; i < count; ++i) total += args[i].size;
  std::string out;
  out.reserve(total);

  size_t at = 0;
  while (at < length) {
    const void* brace = std::memchr(pattern + at, '{', length - at);
    if (brace == nullptr) break;
    const size_t open = static_cast<size_t>(static_cast<const char*>(brace) - pattern);
    size_t end = open + 1;
    uint64_t number = 0;
    while (end < length && pattern[end] >= '0' && pattern[end] <= '9') {
      const unsigned digit = static_cast<unsigned>(pattern[end] - '0');
      number = number > (std::numeric_limits<uint64_t>::max() - digit) / 10 ? std::numeric_limits<uint64_t>::max()
                                                                           : number * 10 + digit;
      ++end;
    }
    if (end == open + 1 || end >= length || pattern[end] != '}') {
      out.append(pattern + at, end - at);
      at = end;
      continue;
    }
    if (number >= count) break;  // this placeholder and every later one stay as written
    out.append(pattern + at, open - at);
    out.append(args[number].data, args[number].size);
    at = end + 1;
  }
  out.append(pattern + at, length - at);
  return out;
}

String FormatWide(const unsigned short* pattern, size_t length, const Processor::Variant* args, size_t count) {
  Processor::TextBuffer out;
  Processor::FormatersHolder::Get().Engine().FormatTo(out, {pattern, length}, args, count);
  return out.str();
}

std::string ErrorText(const Common::Error& error) {
  Processor::TextBuffer out;
  Processor::AppendErrorText(error, Processor::ErrorStyle::kFull, {}, out);
  return Common::ToUtf8(out.data(), out.size());
}

std::string VariantText(const Processor::Variant& value) {
  Processor::TextBuffer out;
  const Processor::FormatersHolder& holder = Processor::FormatersHolder::Get();
  if (value.IsInteger())
    holder.Decimal().Format(value, out);  // narrow text keeps plain digits
  else
    Processor::AppendSimple(holder, value, out);
  return Common::ToUtf8(out.data(), out.size());
}

std::string NarrowFromWide(const unsigned short* text, size_t length) { return Common::ToUtf8(text, length); }

String WideFromNarrow(const char* text, size_t length) { return Common::FromUtf8(std::string_view(text, length)); }

void DoubleToChars(double value, NarrowArg& arg) {
  const auto r = std::to_chars(arg.digits, arg.digits + sizeof arg.digits, value);
  arg.data = arg.digits;
  arg.size = r.ec == std::errc() ? static_cast<size_t>(r.ptr - arg.digits) : 0;
}

}  // namespace Detail
}  // namespace Core
