#pragma once
// A function run in a forked child, for tests of locks, assertions and crashes.
// The child leaves through _exit: no fixture or static destructor runs twice.
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

namespace TestSupport {

inline pid_t StartChild(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  return pid;
}

// The wait status of `pid`; -1 when it is not our child.
inline int WaitChild(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return status;
}

// The exit code, or 128 + the signal that ended the child; -1 without one.
inline int ExitCode(int status) {
  if (status == -1) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

inline int RunInChild(const std::function<int()>& body) { return ExitCode(WaitChild(StartChild(body))); }

}  // namespace TestSupport
