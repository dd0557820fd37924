#pragma once
// Runs a command line through /bin/sh the way the library's tools are run, for tests
// of the fake tools themselves.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

extern char** environ;

namespace FakeMachineTesting {

struct ShellResult {
  int status = -1;
  std::string out;
};

inline ShellResult RunShell(const std::string& command) {
  ShellResult result;
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  pid_t pid;
  int spawned = posix_spawn(&pid, "/bin/sh", &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  char buffer[4096];
  ssize_t got;
  while ((got = ::read(fds[0], buffer, sizeof buffer)) > 0) result.out.append(buffer, static_cast<size_t>(got));
  ::close(fds[0]);
  int status;
  if (spawned == 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

}  // namespace FakeMachineTesting
