#pragma once
// Core::FormatMessage: the text of a library message in the current language, with
// its placeholders filled as Core::FormatString fills a UTF-16 pattern.
//
//   String text = Core::FormatMessage(Messages::FailedToOpenFile, path);
//
// A message that the table lacks gives an empty text. Arguments that are path parts,
// device or host numbers should be passed as text: a bare "{0}" shows an integer in
// the locale's number format.
#include "core/common/message_text.h"
#include "core/common/ustring.h"
#include "processor/format/format_string.h"

namespace Core {

template <class... Args>
String FormatMessage(TextFromMessageFile id, const Args&... args) {
  return FormatString(GetTextFromMessageFile(id), args...);
}

}  // namespace Core
