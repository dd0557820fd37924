#pragma once
// Logging library of the appliance. This is the stand-in; an appliance puts its own
// library of the same interface in its place.
//
// A line tag names the place that logs (source file, function, line); build it once
// with Logging_BuildLineTag and pass it with every line. Lines go to syslog (the
// journal picks them up), and to standard error as well when the process asks for
// it: Logging_SetStandardError(1), or $ZEMLORA_LOG_STDERR set to anything but "0".
#include <cstdarg>
#include <cstdint>

#define LOGGING_API __attribute__((visibility("default")))

// Its contents are the logging library's own.
struct _log_line_tag {
  uintptr_t words[3];
};

extern "C" {

// `file` and `function` must stay valid as long as the tag is used (literals).
LOGGING_API void Logging_BuildLineTag(_log_line_tag* tag, const char* file, const char* function, int line);

// Levels: 1 debug, 2 notice, 3 warning, 4 error, 5 and above critical. A null
// component or format is allowed.
LOGGING_API void Logging_LogWithTag(const _log_line_tag* tag, const char* component, int level,
                                    const char* format, va_list args) __attribute__((format(printf, 4, 0)));

LOGGING_API void Logging_SetStandardError(int enabled);
}
