#pragma once
// The process-wide formatting state: the engine with its subformats, the number
// formats, and caches of ICU formatters. ICU objects are made once here, never per
// call; number formatting goes through ICU's immutable (thread-safe) formatters,
// date formatting through cached DateFormat objects under a lock.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include <unicode/numberformatter.h>

#include "processor/format/impl/subformat.h"
#include "processor/format/impl/text_buffer.h"
#include "processor/utils/variant.h"

U_NAMESPACE_BEGIN
class DateFormat;
class DecimalFormat;
U_NAMESPACE_END

namespace Processor {

class MessageFormatImpl;

class NumberFormat {
 public:
  virtual ~NumberFormat() = default;
  // Numbers, dates (their time value) and booleans (0, 1); other types render nothing.
  virtual void Format(const Variant& value, TextBuffer& out) const = 0;
  virtual void FormatDouble(double value, TextBuffer& out) const = 0;
};

// Digits in a radix without grouping. Negative values in radix 16 show the two's
// complement of the value's width, as codes are usually read.
class NumberFormatHEX final : public NumberFormat {
 public:
  NumberFormatHEX(unsigned radix, const char* digits) : radix_(radix), digits_(digits) {}
  void Format(const Variant& value, TextBuffer& out) const override;
  void FormatDouble(double value, TextBuffer& out) const override;
  void FormatUnsigned(uint64_t value, TextBuffer& out) const;

 private:
  unsigned radix_;
  const char* digits_;
};

class NumberFormatICU final : public NumberFormat {
 public:
  explicit NumberFormatICU(const icu::number::LocalizedNumberFormatter& formatter);
  // From a DecimalFormat pattern; null when ICU refuses the pattern.
  static std::unique_ptr<NumberFormatICU> FromPattern(TextView pattern);
  void Format(const Variant& value, TextBuffer& out) const override;
  void FormatDouble(double value, TextBuffer& out) const override;

 private:
  icu::number::LocalizedNumberFormatter formatter_;
};

// ICU's default number format of the current locale; with one fraction digit at most
// for sizes.
std::unique_ptr<NumberFormat> MakeDefaultNumberFormat(bool oneFractionDigit);

enum class DateMode { kDate, kTime, kDateTime };
enum class DateStyle { kFull, kLong, kMedium, kDefault };

class FormatersHolder {
 public:
  FormatersHolder();
  ~FormatersHolder();
  FormatersHolder(const FormatersHolder&) = delete;
  FormatersHolder& operator=(const FormatersHolder&) = delete;

  // The holder of the process, made on first use; after Shutdown, a late caller
  // gets a holder of its own that lives to the end of the process.
  static FormatersHolder& Get();
  // Destroys the holder; the trace code calls it once, as the library unloads.
  static void Shutdown() noexcept;

  const MessageFormatImpl& Engine() const noexcept { return *engine_; }
  const NumberFormatHEX& Hex() const noexcept { return hex_; }
  const NumberFormatHEX& Decimal() const noexcept { return decimal_; }
  const NumberFormat& DefaultNumber() const noexcept { return *defaultNumber_; }
  const NumberFormat& SizeNumber() const noexcept { return *sizeNumber_; }
  // The DecimalFormat of `pattern`, or null when ICU refuses it.
  std::shared_ptr<const NumberFormat> PatternNumber(TextView pattern) const;
  // False when the value cannot be shown as a date.
  bool FormatDate(DateMode mode, DateStyle style, double milliseconds, TextBuffer& out) const;

 private:
  NumberFormatHEX hex_{16, "0123456789ABCDEF"};
  NumberFormatHEX decimal_{10, "0123456789"};
  std::unique_ptr<NumberFormat> defaultNumber_;
  std::unique_ptr<NumberFormat> sizeNumber_;

  mutable std::mutex patternsMutex_;
  mutable std::map<String, std::shared_ptr<const NumberFormat>> patterns_;

  mutable std::mutex datesMutex_;
  mutable std::unique_ptr<icu::DateFormat> dates_[3][4];

  std::unique_ptr<MessageFormatImpl> engine_;
};

}  // namespace Processor
