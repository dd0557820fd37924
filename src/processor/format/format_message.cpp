#include "processor/format/format_message.h"

namespace Core {

String FormatMessage(TextFromMessageFile id) { return FormatString(GetTextFromMessageFile(id)); }

}  // namespace Core
