#pragma once
// How names and strings are written into registry files.
//
// XML 1.0 cannot hold control characters, U+FFFE, U+FFFF or unpaired surrogates, and
// it folds line ends and attribute white space. Such units are written as "\uXXXX"
// (four hex digits) and "\" itself as "\\"; everything else, XML's own special
// characters included, is left for the XML writer to escape. Reading is strict: text
// that is not well-formed UTF-8 or holds any other "\" sequence is refused.
#include <string>
#include <string_view>

#include "core/common/ustring.h"

namespace Registry {
namespace Detail {

std::string EncodeText(const String& text);
bool DecodeText(std::string_view utf8, String& text);

}  // namespace Detail
}  // namespace Registry
