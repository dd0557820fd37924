#include "registry/impl/text_codec.h"

#include <unicode/ustring.h>

#include <climits>

#include "core/common/hex_internal.h"
#include "core/common/unicode.h"

namespace Registry {
namespace Detail {
namespace {

constexpr char kHex[] = "0123456789ABCDEF";

bool IsHighSurrogate(unsigned short unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(unsigned short unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }

void AppendEscape(String& out, unsigned short unit) {
  out.push_back('\\');
  out.push_back('u');
  for (int shift = 12; shift >= 0; shift -= 4) out.push_back(static_cast<unsigned char>(kHex[(unit >> shift) & 0xF]));
}

// Strict UTF-8 decoding: ICU refuses ill-formed input when given no substitute.
bool FromUtf8Strict(std::string_view utf8, String& out) {
  if (utf8.size() > INT32_MAX / 4) return false;
  out.assign(utf8.size(), 0);
  if (utf8.empty()) return true;
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(reinterpret_cast<UChar*>(&out[0]), static_cast<int32_t>(out.size()), &length,
                       utf8.data(), static_cast<int32_t>(utf8.size()), U_SENTINEL, nullptr, &status);
  if (U_FAILURE(status)) return false;
  out.resize(static_cast<size_t>(length));
  return true;
}

}  // namespace

std::string EncodeText(const String& text) {
  String escaped;
  escaped.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    const unsigned short unit = text[i];
    if (unit == '\\') {
      escaped.push_back('\\');
      escaped.push_back('\\');
    } else if (IsHighSurrogate(unit) && i + 1 < text.size() && IsLowSurrogate(text[i + 1])) {
      escaped.push_back(unit);
      escaped.push_back(text[++i]);
    } else if (unit < 0x20 || unit == 0xFFFE || unit == 0xFFFF || IsHighSurrogate(unit) ||
               IsLowSurrogate(unit)) {
      AppendEscape(escaped, unit);
    } else {
      escaped.push_back(unit);
    }
  }
  return Common::ToUtf8(escaped);
}

bool DecodeText(std::string_view utf8, String& text) {
  String raw;
  if (!FromUtf8Strict(utf8, raw)) return false;
  String out;
  out.reserve(raw.size());
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw[i] != '\\') {
      out.push_back(raw[i]);
      continue;
    }
    if (i + 1 < raw.size() && raw[i + 1] == '\\') {
      out.push_back('\\');
      ++i;
      continue;
    }
    if (raw.size() - i < 6 || raw[i + 1] != 'u') return false;
    unsigned short unit = 0;
    for (size_t k = i + 2; k < i + 6; ++k) {
      const int digit = Common::HexDigitValue(raw[k]);
      if (digit < 0) return false;
      unit = static_cast<unsigned short>((unit << 4) | digit);
    }
    out.push_back(unit);
    i += 5;
  }
  text.swap(out);
  return true;
}

}  // namespace Detail
}  // namespace Registry
