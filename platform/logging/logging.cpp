// The logging stand-in: syslog, and standard error on request.
#include "logging.h"

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// -1: not decided yet; then 0 or 1.
std::atomic<int> gStandardError{-1};

bool ToStandardError() {
  int value = gStandardError.load(std::memory_order_acquire);
  if (value < 0) {
    const char* env = std::getenv("ZEMLORA_LOG_STDERR");
    value = env != nullptr && *env != '\0' && std::strcmp(env, "0") != 0 ? 1 : 0;
    int expected = -1;
    if (!gStandardError.compare_exchange_strong(expected, value)) value = expected;
  }
  return value == 1;
}

int Priority(int level) {
  if (level <= 1) return LOG_DEBUG;
  if (level == 2) return LOG_NOTICE;
  if (level == 3) return LOG_WARNING;
  if (level == 4) return LOG_ERR;
  return LOG_CRIT;
}

const char* LevelName(int level) {
  if (level <= 1) return "debug";
  if (level == 2) return "notice";
  if (level == 3) return "warning";
  if (level == 4) return "error";
  return "critical";
}

__attribute__((format(printf, 1, 0))) std::string Message(const char* format, va_list args) {
  if (format == nullptr) return std::string();
  char small[512];
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(small, sizeof small, format, copy);
  va_end(copy);
  if (n < 0) return std::string();
  if (static_cast<size_t>(n) < sizeof small) return std::string(small, static_cast<size_t>(n));
  std::string text(static_cast<size_t>(n) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, args);
  text.resize(static_cast<size_t>(n));
  return text;
}

void WriteAll(int fd, const std::string& text) {
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

}  // namespace

extern "C" {

void Logging_BuildLineTag(_log_line_tag* tag, const char* file, const char* function, int line) {
  if (tag == nullptr) return;
  tag->words[0] = reinterpret_cast<uintptr_t>(file);
  tag->words[1] = reinterpret_cast<uintptr_t>(function);
  tag->words[2] = static_cast<uintptr_t>(static_cast<unsigned>(line));
}

void Logging_LogWithTag(const _log_line_tag* tag, const char* component, int level, const char* format,
                        va_list args) {
  std::string line;
  if (component != nullptr && *component != '\0') line.append(component).append(": ");
  line += Message(format, args);
  syslog(Priority(level), "%s", line.c_str());
  if (!ToStandardError()) return;

  const char* file = tag ? reinterpret_cast<const char*>(tag->words[0]) : nullptr;
  const char* function = tag ? reinterpret_cast<const char*>(tag->words[1]) : nullptr;
  std::string out = LevelName(level);
  out += ' ';
  if (file != nullptr) {
    out.append(file).append(":").append(std::to_string(tag->words[2]));
    if (function != nullptr) out.append(" ").append(function);
    out += ": ";
  }
  out += line;
  out += '\n';
  WriteAll(STDERR_FILENO, out);  // one write a line, so lines of threads do not mix
}

void Logging_SetStandardError(int enabled) { gStandardError.store(enabled ? 1 : 0, std::memory_order_release); }

}  // extern "C"
