// TraceError: an error with the description of the failing operation.
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"

namespace TraceTools {

void TraceError(int32_t code, const Common::Error& error, const String& context) {
  if (!IsTraced(Common::EventLevelError)) return;
  // The narrow engine gives the context and the error as UTF-8; decoding it back
  // turns whatever was not valid text into U+FFFD.
  const std::string text = Core::FormatString("{0}\n{1}", context, error);
  TraceText(Common::EventLevelError, code, Common::FromUtf8(text));
}

void TraceError(int32_t code, const Common::Error& error, const unsigned short* context) {
  TraceError(code, error, context ? String(context) : String());
}

}  // namespace TraceTools
