// The "time_span" subformat: a duration in milliseconds as days, hours, minutes,
// seconds and milliseconds, each unit shown when it is not zero ("1 h 5 min").
#include <cmath>
#include <cstdint>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "processor/format/impl/formatters.h"

namespace Processor {

namespace {

struct Unit {
  uint64_t milliseconds;
  TextFromMessageFile name;
};

const Unit kUnits[] = {{86400000, Messages::TimeSpanDays},
                       {3600000, Messages::TimeSpanHours},
                       {60000, Messages::TimeSpanMinutes},
                       {1000, Messages::TimeSpanSeconds},
                       {1, Messages::TimeSpanMilliseconds}};

void AppendPart(const FormatersHolder& holder, uint64_t count, TextFromMessageFile name, TextBuffer& out) {
  if (!out.empty() && out.data()[out.size() - 1] != ' ') out.push_back(' ');
  holder.Decimal().FormatUnsigned(count, out);
  out.push_back(' ');
  for (const unsigned short* text = GetTextFromMessageFile(name); text != nullptr && *text != 0; ++text)
    out.push_back(*text);
}

}  // namespace

void SubformatTimeSpan::Format(const Variant& argument, TextBuffer& out, const Segments&) const {
  const bool numeric = argument.IsInteger() || argument.GetType() == Variant::TDouble;
  const double value = numeric ? NumericValue(argument) : NAN;
  if (!(value >= 0) || value >= 1.8e19) return out.append(u"<invalid time span>");

  uint64_t rest = argument.GetType() == Variant::TULong64 ? argument.GetULong64()
                                                           : static_cast<uint64_t>(std::trunc(value));
  TextBuffer text;
  for (const Unit& unit : kUnits) {
    const uint64_t count = rest / unit.milliseconds;
    rest %= unit.milliseconds;
    if (count != 0) AppendPart(holder_, count, unit.name, text);
  }
  if (text.empty()) AppendPart(holder_, 0, Messages::TimeSpanMilliseconds, text);
  out.append(text.view());
}

}  // namespace Processor
