// The "choice" and "concord" subformats: one text of a list, chosen by the value.
#include <charconv>
#include <cmath>

#include "core/common/assert.h"
#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "processor/format/impl/formatters.h"
#include "processor/format/message_format.h"

namespace Processor {

namespace {

constexpr unsigned short kLessOrEqual = 0x2264;  // "≤", which here means equality

struct Clause {
  double limit;  // NaN when the limit is not a number
  unsigned short relation;
  TextView text;
};

bool IsRelation(unsigned short c) { return c == '#' || c == '<' || c == '>' || c == kLessOrEqual; }

// A limit: a decimal number (or "∞"), taken as a whole number.
double ParseLimit(TextView text) {
  text = Trim(text);
  char narrow[64];
  size_t n = 0;
  bool negative = false;
  size_t i = 0;
  if (i < text.size && (text[i] == '-' || text[i] == '+')) negative = text[i++] == '-';
  if (i + 1 == text.size && text[i] == 0x221E) return negative ? -INFINITY : INFINITY;
  // Whole numbers, by far the usual limits, without the general parser.
  double whole = 0;
  size_t digits = i;
  while (digits < text.size && text[digits] >= '0' && text[digits] <= '9' && digits - i < 15)
    whole = whole * 10 + (text[digits++] - '0');
  if (digits == text.size && digits > i) return negative ? -whole : whole;
  for (; i < text.size; ++i) {
    if (text[i] >= 0x80 || n + 1 >= sizeof narrow) return NAN;
    narrow[n++] = static_cast<char>(text[i]);
  }
  double value = NAN;
  const auto result = std::from_chars(narrow, narrow + n, value);
  if (n == 0 || result.ec != std::errc() || result.ptr != narrow + n) return NAN;
  value = std::trunc(value);
  return negative ? -value : value;
}

// Calls `f` with each clause of `style` (clauses separated by unquoted "|") until it
// returns true. A clause without a relation is skipped with an assertion.
template <class F>
void ForEachClause(TextView style, F f) {
  size_t begin = 0;
  while (begin <= style.size) {
    bool quoted = false;
    size_t relation = SIZE_MAX;
    size_t end = begin;
    for (; end < style.size; ++end) {
      const unsigned short c = style[end];
      if (c == kQuotationMark)
        quoted = !quoted;
      else if (!quoted && c == '|')
        break;
      else if (!quoted && relation == SIZE_MAX && IsRelation(c))
        relation = end;
    }
    if (relation == SIZE_MAX) {
      Common::AssertionFailed("false", AS_SOURCE_NAME, __LINE__);
    } else {
      const Clause clause{ParseLimit({style.data + begin, relation - begin}), style[relation],
                          {style.data + relation + 1, end - relation - 1}};
      if (f(clause)) return;
    }
    begin = end + 1;
  }
}

// The clause's text without its quotation marks.
void AppendClauseText(TextView text, TextBuffer& out) {
  for (unsigned short c : text)
    if (c != kQuotationMark) out.push_back(c);
}

TextView Style(const Segments& segments) {
  return segments.count > SEGMENT_STYLE ? segments[SEGMENT_STYLE] : TextView{};
}

bool ThreeCategoryRule() {
  const unsigned short* text = GetTextFromMessageFile(Messages::ConcordRule);
  if (text == nullptr) return false;
  uint64_t rule = 0;
  size_t n = 0;
  while (text[n] != 0 && n < 32) ++n;
  return ParseUnsigned({text, n}, rule) && rule == 0;
}

}  // namespace

double NumericValue(const Variant& argument) noexcept {
  switch (argument.GetType()) {
    case Variant::TDate:
    case Variant::TDouble:
      return argument.GetDouble();
    case Variant::TLong:
      return argument.GetLong();
    case Variant::TULong:
      return argument.GetULong();
    case Variant::TLong64:
      return static_cast<double>(argument.GetLong64());
    case Variant::TULong64:
      return static_cast<double>(argument.GetULong64());
    case Variant::TBool:
      return argument.GetBool() ? 1 : 0;
    case Variant::TString:
      return static_cast<double>(argument.GetStringLength());
    default:
      Common::AssertionFailed("false", AS_SOURCE_NAME, __LINE__);
      return 0;
  }
}

int ConcordCategory(double value, bool threeCategories) noexcept {
  if (!threeCategories) return value == 1 ? 0 : 1;
  if (!std::isfinite(value) || std::trunc(value) != value) return 1;
  const int n = static_cast<int>(std::fmod(std::fabs(value), 100));
  if (n >= 5 && n <= 20) return 2;
  if (n % 10 == 1) return 0;
  if (n % 10 >= 2 && n % 10 <= 4) return 1;
  return 2;
}

void SubformatChoice::Format(const Variant& argument, TextBuffer& out, const Segments& segments) const {
  const double value = NumericValue(argument);
  ForEachClause(Style(segments), [&](const Clause& clause) {
    bool match = false;
    switch (clause.relation) {
      case '#':
      case kLessOrEqual:
        match = value == clause.limit;
        break;
      case '<':
        match = value > clause.limit;
        break;
      case '>':
        match = value < clause.limit;
        break;
    }
    if (match) AppendClauseText(clause.text, out);
    return match;
  });
}

void SubformatConcord::Format(const Variant& argument, TextBuffer& out, const Segments& segments) const {
  const double category = ConcordCategory(NumericValue(argument), ThreeCategoryRule());
  bool any = false;
  TextView chosen;  // the matching clause's text, else the last one tried
  ForEachClause(Style(segments), [&](const Clause& clause) {
    any = true;
    chosen = clause.text;
    return clause.limit == category;
  });
  if (any) AppendClauseText(chosen, out);
}

}  // namespace Processor
