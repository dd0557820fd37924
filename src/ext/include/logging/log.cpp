#include "ext/include/logging/log.h"

#include "core/common/assert.h"

void VLog(const _log_line_tag& tag, int level, const char* component, const char* format, va_list args) {
  // A null format is reported, and passed on all the same: the logging library copes.
  if (format == nullptr) Common::AssertionFailed("format", "ext/include/logging/log", 251);
  Logging_LogWithTag(&tag, component, level, format, args);
}

void Log(const _log_line_tag& tag, int level, const char* component, const char* format, ...) {
  va_list args;
  va_start(args, format);
  VLog(tag, level, component, format, args);
  va_end(args);
}
