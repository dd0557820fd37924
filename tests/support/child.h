#pragma once
// A function run in a forked child, for tests of locks, assertions, crashes and tools.
// The child leaves through _exit: no fixture or static destructor runs twice.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

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

// `command` run by /bin/sh: its exit code and standard output.
struct ShellResult { int status = -1; std::string out; };
inline ShellResult RunShell(const std::string& command) {
  ShellResult result;
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return result;
  const pid_t pid = StartChild([&] {
    ::dup2(fds[1], 1);
    ::execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char*>(nullptr));
    return 127;
  });
  ::close(fds[1]);
  char buffer[4096];
  for (ssize_t got; (got = ::read(fds[0], buffer, sizeof buffer)) > 0;) result.out.append(buffer, size_t(got));
  ::close(fds[0]);
  result.status = ExitCode(WaitChild(pid));
  return result;
}

}  // namespace TestSupport
