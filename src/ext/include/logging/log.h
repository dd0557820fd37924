#pragma once
// Log lines of the library, through the appliance's logging library.
//
//   AS_LOG(4, AS_LOG_PREFIX "Retrieving mount point of '%s' failed", device);
//
// AS_LOG builds the line tag of its place once and logs with a null component.
// Log itself takes a tag built with Logging_BuildLineTag, a level (1 debug,
// 2 notice, 4 error), a component (may be null) and a printf format.
#include <cstdarg>

#include "core/common/export.h"
#include "logging.h"

// Every line of the library's own begins with this.
#define AS_LOG_PREFIX "[Appliance Storage] "

AS_EXPORT void Log(const _log_line_tag& tag, int level, const char* component, const char* format, ...)
    __attribute__((format(printf, 4, 5)));
AS_EXPORT void VLog(const _log_line_tag& tag, int level, const char* component, const char* format,
                    va_list args) __attribute__((format(printf, 4, 0)));

namespace Logging::Detail {
inline _log_line_tag MakeTag(const char* file, const char* function, int line) {
  _log_line_tag tag{};
  Logging_BuildLineTag(&tag, file, function, line);
  return tag;
}
}  // namespace Logging::Detail

#define AS_LOG(level, ...)                                                                             \
  do {                                                                                                 \
    static const _log_line_tag as_log_tag_ = ::Logging::Detail::MakeTag(__FILE__, __PRETTY_FUNCTION__, __LINE__); \
    ::Log(as_log_tag_, (level), nullptr, __VA_ARGS__);                                                 \
  } while (0)
