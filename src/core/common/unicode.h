#pragma once
// Conversions between the library's UTF-16 strings and narrow text. All of the
// library's conversions go through here, so the rules live in one place:
//  - Widen: each byte becomes one 16-bit unit (no decoding). Used for texts whose bytes
//    must survive unchanged, such as strerror() and the narrow error kind.
//  - FromUtf8: UTF-8 decoding; every invalid sequence becomes U+FFFD.
//  - ToUtf8: UTF-16 encoding back to UTF-8; unpaired surrogates become U+FFFD.
#include <cstddef>
#include <string>
#include <string_view>

#include "core/common/export.h"
#include "core/common/ustring.h"

namespace Common {

AS_EXPORT String Widen(std::string_view bytes);
AS_EXPORT String FromUtf8(std::string_view utf8);
AS_EXPORT std::string ToUtf8(const unsigned short* text, size_t length);
AS_EXPORT std::string ToUtf8(const String& text);

// Length of a NUL-terminated UTF-16 text; 0 for a null pointer.
AS_EXPORT size_t Length(const unsigned short* text) noexcept;

// A UTF-16 literal as the library's string: Str(u"/mnt/local_storages").
inline String Str(std::u16string_view text) { return String(text.begin(), text.end()); }

}  // namespace Common
