// Numbers and dates through ICU: the "number" and "date"/"time"/"date_time" subformats.
#include <cmath>
#include <cstdio>
#include <string>

#include <unicode/datefmt.h>
#include <unicode/decimfmt.h>
#include <unicode/locid.h>
#include <unicode/unistr.h>

#include "processor/format/impl/formatters.h"

namespace Processor {

namespace {

void Append(const icu::UnicodeString& text, TextBuffer& out) {
  out.append(reinterpret_cast<const unsigned short*>(text.getBuffer()), static_cast<size_t>(text.length()));
}

void Append(const icu::number::FormattedNumber& number, TextBuffer& out) {
  UErrorCode status = U_ZERO_ERROR;
  const icu::UnicodeString text = number.toString(status);
  if (U_SUCCESS(status)) Append(text, out);
}

bool IsNumeric(const Variant& v) {
  return v.IsInteger() || v.GetType() == Variant::TDouble || v.GetType() == Variant::TDate ||
         v.GetType() == Variant::TBool;
}

icu::UnicodeString Unicode(TextView text) {
  return icu::UnicodeString(reinterpret_cast<const char16_t*>(text.data), static_cast<int32_t>(text.size));
}

}  // namespace

// ---- NumberFormatICU ----------------------------------------------------------------------

// ICU compiles a formatter on its third use, behind atomics of its own; doing that
// here, before any other thread can see the formatter, keeps the shared object
// untouched afterwards.
NumberFormatICU::NumberFormatICU(const icu::number::LocalizedNumberFormatter& formatter) : formatter_(formatter) {
  for (int i = 0; i < 4; ++i) {
    UErrorCode status = U_ZERO_ERROR;
    formatter_.formatInt(0, status);
  }
}

std::unique_ptr<NumberFormatICU> NumberFormatICU::FromPattern(TextView pattern) {
  UErrorCode status = U_ZERO_ERROR;
  icu::DecimalFormat format(Unicode(pattern), status);
  if (U_FAILURE(status)) return nullptr;
  const icu::number::LocalizedNumberFormatter* formatter = format.toNumberFormatter(status);
  if (U_FAILURE(status) || formatter == nullptr) return nullptr;
  return std::make_unique<NumberFormatICU>(*formatter);
}

void NumberFormatICU::FormatDouble(double value, TextBuffer& out) const {
  UErrorCode status = U_ZERO_ERROR;
  Append(formatter_.formatDouble(value, status), out);
}

void NumberFormatICU::Format(const Variant& value, TextBuffer& out) const {
  UErrorCode status = U_ZERO_ERROR;
  switch (value.GetType()) {
    case Variant::TLong:
      return Append(formatter_.formatInt(value.GetLong(), status), out);
    case Variant::TULong:
      return Append(formatter_.formatInt(value.GetULong(), status), out);
    case Variant::TLong64:
      return Append(formatter_.formatInt(value.GetLong64(), status), out);
    case Variant::TULong64: {
      if (value.GetULong64() <= static_cast<uint64_t>(INT64_MAX))
        return Append(formatter_.formatInt(static_cast<int64_t>(value.GetULong64()), status), out);
      char digits[24];
      std::snprintf(digits, sizeof digits, "%llu", static_cast<unsigned long long>(value.GetULong64()));
      return Append(formatter_.formatDecimal(digits, status), out);
    }
    case Variant::TBool:
      return Append(formatter_.formatInt(value.GetBool() ? 1 : 0, status), out);
    case Variant::TDate:
    case Variant::TDouble:
      return FormatDouble(value.GetDouble(), out);
    default:
      return;
  }
}

// ---- "number" -------------------------------------------------------------------------------

void SubformatNumber::Format(const Variant& argument, TextBuffer& out, const Segments& segments) const {
  if (!IsNumeric(argument)) return AppendSimple(holder_, argument, out);
  const TextView style = segments.Style();
  if (Equals(style, u"hex")) return holder_.Hex().Format(argument, out);
  if (Equals(style, u"simple")) return holder_.Decimal().Format(argument, out);
  if (Equals(style, u"integer")) {
    const TextView pattern = segments.Extra();
    if (const auto format = holder_.PatternNumber(pattern)) return format->Format(argument, out);
  }
  holder_.DefaultNumber().Format(argument, out);
}

// ---- "date", "time", "date_time" -------------------------------------------------------------

void SubformatDate::Format(const Variant& argument, TextBuffer& out, const Segments& segments) const {
  if (argument.GetType() != Variant::TDate) return out.append(u"<unexpected type of date format>");
  static const std::pair<std::u16string_view, DateStyle> kStyles[] = {
      {u"full", DateStyle::kFull}, {u"long", DateStyle::kLong}, {u"medium", DateStyle::kMedium}};
  const DateStyle s = Select(segments.Style(), kStyles, DateStyle::kDefault);
  const DateMode mode = mode_ == kDate ? DateMode::kDate : mode_ == kTime ? DateMode::kTime : DateMode::kDateTime;
  const size_t before = out.size();
  if (!holder_.FormatDate(mode, s, argument.GetDouble(), out)) {
    out.resize(before);
    out.append(u"<invalid date>");
  }
}

// ---- the holder's ICU state -----------------------------------------------------------------

namespace {

std::unique_ptr<icu::DateFormat> MakeDateFormat(DateMode mode, DateStyle style) {
  static const icu::DateFormat::EStyle kStyles[] = {icu::DateFormat::kFull, icu::DateFormat::kLong,
                                                    icu::DateFormat::kMedium, icu::DateFormat::kDefault};
  const icu::DateFormat::EStyle s = kStyles[static_cast<int>(style)];
  const icu::Locale& locale = icu::Locale::getDefault();
  switch (mode) {
    case DateMode::kDate:
      return std::unique_ptr<icu::DateFormat>(icu::DateFormat::createDateInstance(s, locale));
    case DateMode::kTime:
      return std::unique_ptr<icu::DateFormat>(icu::DateFormat::createTimeInstance(s, locale));
    default:
      return std::unique_ptr<icu::DateFormat>(icu::DateFormat::createDateTimeInstance(s, s, locale));
  }
}

}  // namespace

bool FormatersHolder::FormatDate(DateMode mode, DateStyle style, double milliseconds, TextBuffer& out) const {
  // ICU's calendars hold dates within about +-1.8e17 ms; beyond that they fail.
  if (!std::isfinite(milliseconds) || std::fabs(milliseconds) > 1e17) return false;
  std::lock_guard<std::mutex> lock(datesMutex_);
  auto& format = dates_[static_cast<int>(mode)][static_cast<int>(style)];
  if (!format) format = MakeDateFormat(mode, style);
  if (!format) return false;
  icu::UnicodeString text;
  format->format(milliseconds, text);
  if (text.isBogus() || text.isEmpty()) return false;
  Append(text, out);
  return true;
}

std::shared_ptr<const NumberFormat> FormatersHolder::PatternNumber(TextView pattern) const {
  // A bound on the cache: patterns come from message texts, a small set, but a
  // caller that builds patterns at run time must not grow it without end.
  constexpr size_t kMaxCached = 64;
  String key(pattern.data, pattern.size);
  {
    std::lock_guard<std::mutex> lock(patternsMutex_);
    auto found = patterns_.find(key);
    if (found != patterns_.end()) return found->second;
  }
  std::shared_ptr<const NumberFormat> format = NumberFormatICU::FromPattern(pattern);
  std::lock_guard<std::mutex> lock(patternsMutex_);
  if (patterns_.size() < kMaxCached) patterns_.emplace(std::move(key), format);
  return format;
}

std::unique_ptr<NumberFormat> MakeDefaultNumberFormat(bool oneFractionDigit) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::NumberFormat> made(icu::NumberFormat::createInstance(status));
  const auto* decimal = dynamic_cast<const icu::DecimalFormat*>(made.get());
  const icu::number::LocalizedNumberFormatter* formatter =
      U_SUCCESS(status) && decimal ? decimal->toNumberFormatter(status) : nullptr;
  icu::number::LocalizedNumberFormatter base =
      U_SUCCESS(status) && formatter ? *formatter : icu::number::NumberFormatter::withLocale(icu::Locale::getDefault());
  if (oneFractionDigit) base = base.precision(icu::number::Precision::maxFraction(1));
  return std::make_unique<NumberFormatICU>(base);
}

}  // namespace Processor
