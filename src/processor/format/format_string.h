#pragma once
// Core::FormatString: fills the numbered placeholders "{0}", "{1}" ... of a pattern.
//
//   std::string path = Core::FormatString("/sys/block/{0}/size", name);
//   String text = Core::FormatString(Common::Str(u"{0} of {1,number,hex}"), disk, code);
//
// A narrow pattern (a character array or literal, a char pointer, std::string or
// std::string_view) gets plain substitution: each "{N}" is replaced by argument N as
// text; substitution stops at the first placeholder whose argument is missing,
// leaving it and all later ones as written; inserted text is never scanned again.
//
// A UTF-16 pattern (an array of or pointer to char16_t or unsigned short, such as a
// u"" literal; String, std::u16string or std::u16string_view) goes through the
// message format engine (processor/format/message_format.h), with typed
// placeholders: "{0,number,hex}", "{0,choice,0#none|1#one|1<many}", "{0,error,code}",
// "{0,size}", "{0,date,long}"...
//
// Arguments: integers of any width, floating point, bool, narrow (UTF-8) and UTF-16
// strings, Common::GUID, Common::Error, Processor::Date and Processor::Variant.
// Numbers: the narrow engine writes plain digits; a bare "{0}" of a UTF-16 pattern
// writes the current locale's default number format ("1.234.567" in German). Paths,
// device and host numbers are therefore built with a narrow pattern or with
// "{0,number,simple}". Bad patterns never throw or crash; the engine renders what it
// can. Thread-safe.
#include <charconv>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "core/common/error.h"
#include "core/common/export.h"
#include "core/common/guid.h"
#include "core/common/ustring.h"
#include "processor/utils/variant.h"

namespace Core {
namespace Detail {

// ---- result types ---------------------------------------------------------------------

template <class Pattern, class = void>
struct ResultString;

template <class T>
constexpr bool kIsNarrowChar = std::is_same_v<std::remove_cv_t<T>, char>;
template <class T>
constexpr bool kIsWideChar =
    std::is_same_v<std::remove_cv_t<T>, unsigned short> || std::is_same_v<std::remove_cv_t<T>, char16_t>;

template <class Pattern>
struct ResultString<Pattern, std::enable_if_t<std::is_array_v<Pattern> || std::is_pointer_v<Pattern>>> {
  using Unit = std::remove_cv_t<std::remove_pointer_t<std::decay_t<Pattern>>>;
  static_assert(kIsNarrowChar<Unit> || kIsWideChar<Unit>, "a pattern is narrow or UTF-16 text");
  using Type = std::conditional_t<kIsNarrowChar<Unit>, std::string, String>;
};
template <>
struct ResultString<std::string> {
  using Type = std::string;
};
template <>
struct ResultString<std::string_view> {
  using Type = std::string;
};
template <>
struct ResultString<String> {
  using Type = String;
};
template <>
struct ResultString<std::u16string> {
  using Type = String;
};
template <>
struct ResultString<std::u16string_view> {
  using Type = String;
};

// ---- narrow engine ----------------------------------------------------------------------

// One argument as narrow text: a view of the caller's text, or digits in `digits`,
// or converted text in `owned`.
struct NarrowArg {
  const char* data = "";
  size_t size = 0;
  char digits[40];
  std::string owned;

  void Own() {
    data = owned.data();
    size = owned.size();
  }
};

AS_EXPORT std::string FormatNarrow(const char* pattern, size_t length, const NarrowArg* args, size_t count);
AS_EXPORT String FormatWide(const unsigned short* pattern, size_t length, const Processor::Variant* args,
                            size_t count);
// The error's full text form (the error subformat's default style), as UTF-8.
AS_EXPORT std::string ErrorText(const Common::Error& error);
// What the simple subformat shows for `value`, as UTF-8.
AS_EXPORT std::string VariantText(const Processor::Variant& value);
AS_EXPORT std::string NarrowFromWide(const unsigned short* text, size_t length);
AS_EXPORT String WideFromNarrow(const char* text, size_t length);
AS_EXPORT void DoubleToChars(double value, NarrowArg& arg);

// The length of a terminated text; an array is read no further than its end.
template <class T>
size_t TextLength(const T& text) {
  size_t n = 0;
  if constexpr (std::is_array_v<T>) {
    while (n < std::extent_v<T> && text[n] != 0) ++n;
  } else if (text != nullptr) {
    while (text[n] != 0) ++n;
  }
  return n;
}

// The units of a UTF-16 array or pointer (char16_t or unsigned short, const or not).
template <class T>
const unsigned short* WideData(const T& text) {
  return reinterpret_cast<const unsigned short*>(+text);
}

template <class T>
struct IsGuid : std::false_type {};
template <class E>
struct IsGuid<Common::GuidTemplate<E>> : std::true_type {};

template <class T>
void ToNarrow(NarrowArg& a, const T& value) {
  using D = std::decay_t<T>;
  if constexpr (std::is_same_v<D, bool>) {
    a.data = value ? "true" : "false";
    a.size = value ? 4 : 5;
  } else if constexpr (std::is_same_v<D, char>) {
    a.digits[0] = value;
    a.data = a.digits;
    a.size = 1;
  } else if constexpr (std::is_enum_v<D>) {
    ToNarrow(a, static_cast<std::underlying_type_t<D>>(value));
  } else if constexpr (std::is_integral_v<D>) {
    const auto r = std::to_chars(a.digits, a.digits + sizeof a.digits, value);
    a.data = a.digits;
    a.size = static_cast<size_t>(r.ptr - a.digits);
  } else if constexpr (std::is_floating_point_v<D>) {
    DoubleToChars(static_cast<double>(value), a);
  } else if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*>) {
    a.size = TextLength(value);
    if (a.size != 0) a.data = value;
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    const std::string_view v(value);
    a.data = v.data();
    a.size = v.size();
  } else if constexpr (std::is_same_v<D, const unsigned short*> || std::is_same_v<D, unsigned short*> ||
                       std::is_same_v<D, const char16_t*> || std::is_same_v<D, char16_t*>) {
    const size_t n = TextLength(value);
    if (n != 0) {
      a.owned = NarrowFromWide(WideData(value), n);
      a.Own();
    }
  } else if constexpr (std::is_same_v<D, String>) {
    a.owned = NarrowFromWide(value.data(), value.size());
    a.Own();
  } else if constexpr (std::is_convertible_v<const T&, std::u16string_view>) {
    const std::u16string_view v(value);
    a.owned = NarrowFromWide(reinterpret_cast<const unsigned short*>(v.data()), v.size());
    a.Own();
  } else if constexpr (IsGuid<D>::value) {
    a.owned = value.ToString();
    a.Own();
  } else if constexpr (std::is_same_v<D, Common::Error>) {
    a.owned = ErrorText(value);
    a.Own();
  } else if constexpr (std::is_same_v<D, std::nullptr_t>) {
  } else {
    a.owned = VariantText(Processor::Variant(value));
    a.Own();
  }
}

// ---- UTF-16 engine ------------------------------------------------------------------------

template <class T>
Processor::Variant ToVariant(const T& value) {
  using D = std::decay_t<T>;
  using Processor::Variant;
  if constexpr (std::is_same_v<D, bool>) {
    return Variant(value);
  } else if constexpr (std::is_same_v<D, char>) {
    return Variant(WideFromNarrow(&value, 1));
  } else if constexpr (std::is_enum_v<D>) {
    return ToVariant(static_cast<std::underlying_type_t<D>>(value));
  } else if constexpr (std::is_integral_v<D>) {
    if constexpr (sizeof(D) <= 4 && std::is_signed_v<D>)
      return Variant(static_cast<int32_t>(value));
    else if constexpr (sizeof(D) <= 4)
      return Variant(static_cast<uint32_t>(value));
    else if constexpr (std::is_signed_v<D>)
      return Variant(static_cast<int64_t>(value));
    else
      return Variant(static_cast<uint64_t>(value));
  } else if constexpr (std::is_floating_point_v<D>) {
    return Variant(static_cast<double>(value));
  } else if constexpr (std::is_same_v<D, const unsigned short*> || std::is_same_v<D, unsigned short*> ||
                       std::is_same_v<D, const char16_t*> || std::is_same_v<D, char16_t*>) {
    return Variant::MakeStringView(WideData(value), TextLength(value));
  } else if constexpr (std::is_same_v<D, String>) {
    return Variant::MakeStringView(value.data(), value.size());
  } else if constexpr (std::is_convertible_v<const T&, std::u16string_view>) {
    const std::u16string_view v(value);
    return Variant::MakeStringView(reinterpret_cast<const unsigned short*>(v.data()), v.size());
  } else if constexpr (std::is_same_v<D, const char*> || std::is_same_v<D, char*>) {
    const size_t n = TextLength(value);
    return n != 0 ? Variant(WideFromNarrow(value, n)) : Variant(String());
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    const std::string_view v(value);
    return Variant(WideFromNarrow(v.data(), v.size()));
  } else if constexpr (IsGuid<D>::value) {
    return Variant::MakeIdentifier(value.ToString());
  } else if constexpr (std::is_same_v<D, std::nullptr_t>) {
    return Variant(String());
  } else {
    return Variant(value);  // Variant, Date, Common::Error, object interfaces
  }
}

template <class Pattern>
std::basic_string_view<char> NarrowPattern(const Pattern& pattern) {
  if constexpr (std::is_array_v<Pattern> || std::is_pointer_v<Pattern>) {
    const size_t n = TextLength(pattern);
    return n != 0 ? std::string_view(pattern, n) : std::string_view();
  } else
    return std::string_view(pattern);
}

template <class Pattern>
std::basic_string_view<unsigned short> WidePattern(const Pattern& pattern) {
  if constexpr (std::is_array_v<Pattern> || std::is_pointer_v<Pattern>) {
    const size_t n = TextLength(pattern);
    if (n == 0) return {};
    return {WideData(pattern), n};
  } else {
    return {reinterpret_cast<const unsigned short*>(pattern.data()), pattern.size()};
  }
}

}  // namespace Detail

template <class Pattern, class... Args>
typename Detail::ResultString<Pattern>::Type FormatString(const Pattern& pattern, const Args&... args) {
  using Result = typename Detail::ResultString<Pattern>::Type;
  constexpr size_t kCount = sizeof...(Args);
  if constexpr (std::is_same_v<Result, std::string>) {
    const std::string_view p = Detail::NarrowPattern(pattern);
    if constexpr (kCount == 0) {
      return Detail::FormatNarrow(p.data(), p.size(), nullptr, 0);
    } else {
      Detail::NarrowArg converted[kCount];
      size_t i = 0;
      (Detail::ToNarrow(converted[i++], args), ...);
      return Detail::FormatNarrow(p.data(), p.size(), converted, kCount);
    }
  } else {
    const std::basic_string_view<unsigned short> p = Detail::WidePattern(pattern);
    if constexpr (kCount == 0) {
      return Detail::FormatWide(p.data(), p.size(), nullptr, 0);
    } else {
      const Processor::Variant converted[kCount] = {Detail::ToVariant(args)...};
      return Detail::FormatWide(p.data(), p.size(), converted, kCount);
    }
  }
}

}  // namespace Core
