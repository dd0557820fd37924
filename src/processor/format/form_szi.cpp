// The "size" subformat: a number of bytes with the largest unit that keeps it at
// 1024 or above 1 ("1.5 GB"); the style "bytes" keeps plain bytes.
#include <cmath>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "processor/format/impl/formatters.h"

namespace Processor {

namespace {

constexpr int DISK_SIZE_FORMAT_COUNT = 7;

const TextFromMessageFile kUnits[DISK_SIZE_FORMAT_COUNT] = {
    Messages::SizeBytes,     Messages::SizeKilobytes, Messages::SizeMegabytes, Messages::SizeGigabytes,
    Messages::SizeTerabytes, Messages::SizePetabytes, Messages::SizeExabytes};

void AppendUnit(int unit, TextBuffer& out) {
  out.push_back(' ');
  const unsigned short* text = GetTextFromMessageFile(kUnits[unit]);
  for (; text != nullptr && *text != 0; ++text) out.push_back(*text);
}

}  // namespace

void SubformatSize::Format(const Variant& argument, TextBuffer& out, const Segments& segments) const {
  const bool numeric = argument.IsInteger() || argument.GetType() == Variant::TDouble;
  const double bytes = numeric ? NumericValue(argument) : NAN;
  if (!(bytes >= 0) || std::isinf(bytes)) return AppendSimple(holder_, argument, out);

  // One fraction digit is shown: a value that would round to 1024 takes the next unit.
  constexpr double kNextUnit = 1023.95;
  const bool plain = Equals(segments.Style(), u"bytes");
  if (plain || bytes < kNextUnit) {
    if (argument.IsInteger())
      holder_.Decimal().Format(argument, out);
    else
      holder_.SizeNumber().FormatDouble(bytes, out);
    return AppendUnit(0, out);
  }
  double value = bytes;
  int unit = 0;
  while (value >= kNextUnit && unit + 1 < DISK_SIZE_FORMAT_COUNT) {
    value /= 1024;
    ++unit;
  }
  holder_.SizeNumber().FormatDouble(value, out);
  AppendUnit(unit, out);
}

}  // namespace Processor
