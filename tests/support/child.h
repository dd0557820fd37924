#pragma once
// Runs a function in a forked child: tests of locks, assertions and crashes need a
// second process. The child leaves through _exit, so no test fixture or static
// destructor runs twice.
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>

namespace TestSupport {

// Starts `body` in a child that exits with its return value.
inline pid_t StartChild(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  return pid;
}

// The wait status of `pid`, retried across signals; -1 when it is not our child.
inline int WaitChild(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return status;
}

// The exit code of `body` run in a child, or 128 + the signal that ended it.
inline int RunInChild(const std::function<int()>& body) {
  const int status = WaitChild(StartChild(body));
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
}

}  // namespace TestSupport
