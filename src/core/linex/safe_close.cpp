// SafeClose and SafeFclose, and the bad-close policy read from $ZEMLORA_SAFE_CLOSE.
#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/linex/create_process.h"
#include "core/linex/libc_entries_internal.h"

#if defined(__SANITIZE_THREAD__)
#define AS_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define AS_THREAD_SANITIZER 1
#endif
#endif

namespace {

enum class ClosePolicy { kAbort, kBreak, kIgnore };

struct Policy {
  ClosePolicy onBadClose = ClosePolicy::kAbort;
  ClosePolicy onMissingEntry = ClosePolicy::kAbort;

  // Read at library load: a bad close may happen where reading the environment is not safe.
  Policy() {
    const char* value = std::getenv("ZEMLORA_SAFE_CLOSE");
    if (value == nullptr) return;
    const bool brk = std::strstr(value, "break") != nullptr;
    onBadClose = brk ? ClosePolicy::kBreak
                     : (std::strstr(value, "abort") != nullptr ? ClosePolicy::kAbort : ClosePolicy::kIgnore);
    onMissingEntry = brk ? ClosePolicy::kBreak : ClosePolicy::kAbort;
  }
};

const Policy gPolicy;

void Apply(ClosePolicy policy) {
  const int saved = errno;
  if (policy == ClosePolicy::kAbort) std::abort();
  if (policy == ClosePolicy::kBreak) raise(SIGTRAP);
  errno = saved;
}

}  // namespace

namespace LinuxEx::Detail {

const LibcEntries& GetLibcEntries() noexcept {
  static const LibcEntries entries = [] {
    LibcEntries e;
    if (void* libc = dlopen("libc.so.6", RTLD_NOW)) {
      e.close = reinterpret_cast<int (*)(int)>(dlsym(libc, "close"));
      e.fclose = reinterpret_cast<int (*)(FILE*)>(dlsym(libc, "fclose"));
      e.clone = reinterpret_cast<int (*)(int (*)(void*), void*, int, void*, ...)>(dlsym(libc, "clone"));
    }
#ifdef AS_THREAD_SANITIZER
    // ThreadSanitizer tracks descriptors through its own close and fclose; a close it
    // does not see makes every later reuse of the number look like a data race.
    e.close = ::close;
    e.fclose = ::fclose;
#endif
    return e;
  }();
  return entries;
}

}  // namespace LinuxEx::Detail

int ChildProcess::SafeClose(int fd) {
  auto entry = LinuxEx::Detail::GetLibcEntries().close;
  if (entry == nullptr) {
    Apply(gPolicy.onMissingEntry);
    entry = ::close;
  }
  const int result = entry(fd);
  if (result != 0 && errno == EBADF) Apply(gPolicy.onBadClose);
  return result;
}

int ChildProcess::SafeFclose(FILE* stream) {
  if (stream == nullptr) {  // the C library would crash on it
    errno = EINVAL;
    Apply(gPolicy.onBadClose);
    return EOF;
  }
  auto entry = LinuxEx::Detail::GetLibcEntries().fclose;
  if (entry == nullptr) {
    Apply(gPolicy.onMissingEntry);
    entry = ::fclose;
  }
  const int result = entry(stream);
  if (result != 0) Apply(gPolicy.onBadClose);
  return result;
}
