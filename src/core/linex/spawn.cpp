// The vfork-style child: clone(CLONE_VM | CLONE_VFORK) on a stack of its own.
//
// The child runs in the parent's memory while the calling thread waits, so it must not
// allocate, take locks, touch errno-dependent library state or run sanitizer hooks: it
// is compiled without instrumentation and uses raw system calls only. Signals are
// blocked in the parent around the clone so that no handler of the parent runs on the
// child's stack; the child restores default dispositions before unblocking.
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "core/linex/libc_entries_internal.h"
#include "core/linex/spawn_internal.h"

#ifndef SYS_close_range
#define SYS_close_range 436
#endif

#define AS_CHILD_CODE __attribute__((no_sanitize("address", "thread", "undefined"), noinline))

namespace LinuxEx::Detail {
namespace {

constexpr size_t kChildStackSize = 128 * 1024;
constexpr size_t kNameMax = 4096;
constexpr int kSignalCount = 64;

// The kernel's own layout of struct sigaction, for the raw system call.
struct KernelSigaction {
  void (*handler)(int);
  unsigned long flags;
  void (*restorer)();
  uint64_t mask;
};

[[noreturn]] AS_CHILD_CODE void ChildFail() {
  for (;;) syscall(SYS_exit_group, 127);
}

AS_CHILD_CODE size_t Length(const char* s) {
  size_t n = 0;
  while (s[n] != '\0') ++n;
  return n;
}

// Keeps `keep[0..count)` sorted while adding `fd`.
AS_CHILD_CODE void InsertSorted(int* keep, size_t& count, int fd) {
  size_t i = count++;
  for (; i > 0 && keep[i - 1] > fd; --i) keep[i] = keep[i - 1];
  keep[i] = fd;
}

AS_CHILD_CODE bool IsKept(const int* keep, size_t count, int fd) {
  for (size_t i = 0; i < count; ++i)
    if (keep[i] == fd) return true;
  return false;
}

// /proc/self/fd: cost follows the open descriptors, not the limit.
AS_CHILD_CODE bool CloseListed(const int* keep, size_t count) {
  const long dir = syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return false;
  alignas(8) char buffer[4096];
  for (;;) {
    const long got = syscall(SYS_getdents64, dir, buffer, sizeof buffer);
    if (got < 0) ChildFail();
    if (got == 0) break;
    for (long at = 0; at < got;) {
      const auto* entry = reinterpret_cast<const struct dirent64*>(buffer + at);
      at += entry->d_reclen;
      long fd = 0;
      const char* c = entry->d_name;
      if (*c < '0' || *c > '9') continue;
      for (; *c >= '0' && *c <= '9'; ++c) fd = fd * 10 + (*c - '0');
      if (fd >= 3 && fd != dir && !IsKept(keep, count, static_cast<int>(fd))) syscall(SYS_close, fd);
    }
  }
  syscall(SYS_close, dir);
  return true;
}

// Closes every descriptor from 3 on that is not in `keep` (sorted).
AS_CHILD_CODE void CloseOthers(const int* keep, size_t count, unsigned long openMax) {
  bool ranged = true;
  unsigned long low = 3;
  for (size_t i = 0; i < count && ranged; ++i) {
    const unsigned long fd = static_cast<unsigned long>(keep[i]);
    if (fd < low) continue;
    if (fd > low) ranged = syscall(SYS_close_range, low, fd - 1, 0) == 0;
    low = fd + 1;
  }
  if (ranged) ranged = syscall(SYS_close_range, low, ~0U, 0) == 0;
  if (ranged || CloseListed(keep, count)) return;
  for (unsigned long fd = 3; fd < openMax; ++fd)
    if (!IsKept(keep, count, static_cast<int>(fd))) syscall(SYS_close, fd);
}

AS_CHILD_CODE void ResetSignals() {
  KernelSigaction dfl;
  dfl.handler = SIG_DFL;
  dfl.flags = 0;
  dfl.restorer = nullptr;
  dfl.mask = 0;
  for (int sig = 1; sig <= kSignalCount; ++sig)
    if (sig != SIGKILL && sig != SIGSTOP) syscall(SYS_rt_sigaction, sig, &dfl, nullptr, sizeof dfl.mask);
  const uint64_t none = 0;
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, sizeof none);
}

AS_CHILD_CODE int ChildMain(void* arg) {
  const SpawnPlan& plan = *static_cast<const SpawnPlan*>(arg);
  if (plan.workDir != nullptr && syscall(SYS_chdir, plan.workDir) != 0) ChildFail();
  size_t kept = 0;
  for (size_t i = 0; i < plan.dupCount; ++i) {
    if (syscall(SYS_dup3, plan.dups[i].from, plan.dups[i].to, 0) < 0) ChildFail();
    InsertSorted(plan.keep, kept, plan.dups[i].to);
  }
  for (size_t i = 0; i < plan.parentEndCount; ++i) syscall(SYS_close, plan.parentEnds[i]);
  if (!plan.keepStdFds) {
    long devNull = -1;
    for (int fd = 0; fd < 3; ++fd) {
      if (IsKept(plan.keep, kept, fd)) continue;
      if (devNull < 0) {
        devNull = syscall(SYS_openat, AT_FDCWD, "/dev/null", O_RDWR);
        if (devNull < 0) ChildFail();
        InsertSorted(plan.keep, kept, static_cast<int>(devNull));
      }
      if (devNull != fd && syscall(SYS_dup3, devNull, fd, 0) < 0) ChildFail();
    }
  }
  if (plan.stderrToStdout && syscall(SYS_dup3, 1, 2, 0) < 0) ChildFail();
  CloseOthers(plan.keep, kept, plan.openMax);
  ResetSignals();
  if (plan.path != nullptr)
    syscall(SYS_execve, plan.path, plan.argv, plan.envp);
  else
    ExecSearch(plan.file, plan.searchPath, plan.argv, plan.envp);
  ChildFail();
}

AS_CHILD_CODE bool TryNext(int err, bool& denied) {
  switch (err) {
    case ENOENT: case ENODEV: case ENOTDIR: case ETIMEDOUT: case ESTALE:
      return true;
    case EACCES:
      denied = true;
      return true;
    default:
      return false;
  }
}

}  // namespace

AS_CHILD_CODE int SearchPath(const char* file, const char* searchPath, int (*attempt)(const char* path, void* context),
                             void* context) {
  if (file == nullptr || *file == '\0') return ENOENT;
  const size_t nameLength = Length(file);
  for (const char* c = file; *c != '\0'; ++c)
    if (*c == '/') return attempt(file, context);
  bool denied = false;
  int err = ENOENT;
  for (const char* element = searchPath;; ++element) {
    const char* end = element;
    while (*end != '\0' && *end != ':') ++end;
    const size_t length = static_cast<size_t>(end - element);
    if (length > kNameMax || nameLength > kNameMax || length + nameLength + 2 > kNameMax) return ENAMETOOLONG;
    char candidate[kNameMax];
    const char* target = file;
    if (length != 0) {
      size_t at = 0;
      for (const char* c = element; c != end; ++c) candidate[at++] = *c;
      candidate[at++] = '/';
      for (const char* c = file; *c != '\0'; ++c) candidate[at++] = *c;
      candidate[at] = '\0';
      target = candidate;
    }
    err = attempt(target, context);
    if (err == 0) return 0;
    if (!TryNext(err, denied)) return err;
    if (*end == '\0') break;
    element = end;
  }
  return denied ? EACCES : err;
}

namespace {

struct ExecArguments {
  char* const* argv;
  char* const* envp;
};

AS_CHILD_CODE int Exec(const char* path, void* context) {
  const ExecArguments* exec = static_cast<const ExecArguments*>(context);
  syscall(SYS_execve, path, exec->argv, exec->envp);
  return errno;
}

}  // namespace

AS_CHILD_CODE int ExecSearch(const char* file, const char* searchPath, char* const argv[], char* const envp[]) {
  ExecArguments exec{argv, envp};
  return SearchPath(file, searchPath, Exec, &exec);
}

pid_t SpawnChild(const SpawnPlan& plan) {
  void* stack = mmap(nullptr, kChildStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (stack == MAP_FAILED) return -1;
  auto clone = GetLibcEntries().clone;  // the C library's own: a sanitizer's would treat it as fork
  if (clone == nullptr) clone = ::clone;
  const uint64_t all = ~uint64_t{0};
  uint64_t previous = 0;
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &all, &previous, sizeof all);
  const pid_t pid = clone(ChildMain, static_cast<char*>(stack) + kChildStackSize, CLONE_VM | CLONE_VFORK | SIGCHLD,
                          const_cast<SpawnPlan*>(&plan));
  const int err = errno;
  syscall(SYS_rt_sigprocmask, SIG_SETMASK, &previous, nullptr, sizeof previous);
  munmap(stack, kChildStackSize);
  errno = err;
  return pid;
}

}  // namespace LinuxEx::Detail
