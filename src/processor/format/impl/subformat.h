#pragma once
// The subformats of the message format engine: each renders one argument of a
// placeholder, chosen by the type keyword of the placeholder.
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

#include "processor/format/impl/text_buffer.h"
#include "processor/utils/variant.h"

namespace Processor {

// The parts of one placeholder: the literal text before it, the argument number,
// the type keyword, the style, and whatever follows a fourth comma.
enum SegmentIndex { SEGMENT_TEXT, SEGMENT_ARGUMENT, SEGMENT_TYPE, SEGMENT_STYLE, SEGMENT_EXTRA, SEGMENT_COUNT };

struct Segments {
  TextView part[SEGMENT_COUNT];
  int count = 0;  // segments present: 2 for "{0}", 3 for "{0,number}"...

  TextView operator[](size_t i) const noexcept { return part[i]; }
  // The style and the text after a fourth comma, blanks trimmed; empty when absent.
  TextView Style() const noexcept;
  TextView Extra() const noexcept;
};

class FormatersHolder;

class SubformatBase {
 public:
  explicit SubformatBase(const FormatersHolder& holder) : holder_(holder) {}
  virtual ~SubformatBase() = default;
  virtual void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const = 0;

 protected:
  const FormatersHolder& holder_;
};

class SubformatSimple final : public SubformatBase {
 public:
  using SubformatBase::SubformatBase;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

class SubformatNumber final : public SubformatBase {
 public:
  using SubformatBase::SubformatBase;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

class SubformatDate final : public SubformatBase {
 public:
  enum Mode { kDate, kTime, kDateTime };
  SubformatDate(const FormatersHolder& holder, Mode mode) : SubformatBase(holder), mode_(mode) {}
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;

 private:
  Mode mode_;
};

class SubformatChoice : public SubformatBase {
 public:
  using SubformatBase::SubformatBase;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

class SubformatConcord final : public SubformatChoice {
 public:
  using SubformatChoice::SubformatChoice;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

class SubformatError final : public SubformatBase {
 public:
  using SubformatBase::SubformatBase;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

class SubformatSize final : public SubformatBase {
 public:
  using SubformatBase::SubformatBase;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

class SubformatEllipsis final : public SubformatBase {
 public:
  using SubformatBase::SubformatBase;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

class SubformatPathEllipsis final : public SubformatBase {
 public:
  using SubformatBase::SubformatBase;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

class SubformatTimeSpan final : public SubformatBase {
 public:
  using SubformatBase::SubformatBase;
  void Format(const Variant& argument, TextBuffer& out, const Segments& segments) const override;
};

// Helpers shared by the subformats.
TextView Trim(TextView text) noexcept;
bool Equals(TextView text, std::u16string_view literal) noexcept;
// The value that `word` names in `table`, else `otherwise`.
template <class E, size_t N>
E Select(TextView word, const std::pair<std::u16string_view, E> (&table)[N], E otherwise) noexcept {
  for (const auto& entry : table)
    if (Equals(word, entry.first)) return entry.second;
  return otherwise;
}
// Reads a whole decimal number after optional blanks; false when there are no digits.
// Values too large for 64 bits saturate.
bool ParseUnsigned(TextView text, uint64_t& value) noexcept;
// The value that choice and concord compare: numbers as they are, a boolean as 0 or
// 1, a string as its length in 16-bit units. Other types give 0 and an assertion.
double NumericValue(const Variant& argument) noexcept;
// Grammatical-number category of `value`: two categories (0 for exactly 1, else 1)
// or three (the Slavic rule).
int ConcordCategory(double value, bool threeCategories) noexcept;
// Appends the value as the simple subformat would show it; for the subformats
// that work on text.
void AppendSimple(const FormatersHolder& holder, const Variant& argument, TextBuffer& out);

}  // namespace Processor
