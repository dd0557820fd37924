#include "core/common/unicode.h"

#include <unicode/ustring.h>

#include <climits>

namespace Common {
namespace {

static_assert(sizeof(UChar) == sizeof(unsigned short), "UTF-16 unit sizes differ");

// ICU lengths are 32-bit; texts beyond that are converted in one call each way only
// up to that size, which no caller comes near.
int32_t ClampLength(size_t n) { return n > INT32_MAX / 4 ? INT32_MAX / 4 : static_cast<int32_t>(n); }

}  // namespace

String Widen(std::string_view bytes) {
  String out(bytes.size(), 0);
  for (size_t i = 0; i < bytes.size(); ++i) out[i] = static_cast<unsigned char>(bytes[i]);
  return out;
}

String FromUtf8(std::string_view utf8) {
  if (utf8.empty()) return String();
  // A UTF-8 text never needs more UTF-16 units than it has bytes.
  const int32_t inLength = ClampLength(utf8.size());
  String out(static_cast<size_t>(inLength), 0);
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(reinterpret_cast<UChar*>(&out[0]), inLength, &length, utf8.data(), inLength,
                       0xFFFD, nullptr, &status);
  if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) return String();
  out.resize(static_cast<size_t>(length));
  return out;
}

std::string ToUtf8(const unsigned short* text, size_t length) {
  if (text == nullptr || length == 0) return std::string();
  const int32_t inLength = ClampLength(length);
  // Each UTF-16 unit takes at most three bytes (a surrogate pair takes four for two).
  std::string out(static_cast<size_t>(inLength) * 3, '\0');
  int32_t outLength = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strToUTF8WithSub(&out[0], static_cast<int32_t>(out.size()), &outLength,
                     reinterpret_cast<const UChar*>(text), inLength, 0xFFFD, nullptr, &status);
  if (U_FAILURE(status) && status != U_STRING_NOT_TERMINATED_WARNING) return std::string();
  out.resize(static_cast<size_t>(outLength));
  return out;
}

std::string ToUtf8(const String& text) { return ToUtf8(text.data(), text.size()); }

size_t Length(const unsigned short* text) noexcept {
  if (text == nullptr) return 0;
  size_t n = 0;
  while (text[n] != 0) ++n;
  return n;
}

}  // namespace Common
