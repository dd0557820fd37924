// Run by the launcher tests as the child: reports what the child was given.
//   fds      one line a descriptor: "<number> <target>"
//   signals  "blocked <count>" and "<signal> dfl|ign|handler" for SIGPIPE, SIGUSR2, SIGCHLD
//   env      the environment, one entry a line
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern char** environ;

namespace {

void PrintFd(int fd) {
  char link[64];
  char target[4096] = "?";
  std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  const ssize_t n = readlink(link, target, sizeof target - 1);
  if (n >= 0) target[n] = '\0';
  std::printf("%d %s\n", fd, target);
}

void Fds() {
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_name[0] == '.') continue;
      const int fd = std::atoi(entry->d_name);
      if (fd != dirfd(dir)) PrintFd(fd);
    }
    closedir(dir);
    return;
  }
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  for (rlim_t fd = 0; fd < limit.rlim_cur; ++fd)
    if (fcntl(static_cast<int>(fd), F_GETFD) != -1) std::printf("%d -\n", static_cast<int>(fd));
}

void Signals() {
  sigset_t blocked;
  sigprocmask(SIG_SETMASK, nullptr, &blocked);
  int count = 0;
  for (int sig = 1; sig < NSIG; ++sig) count += sigismember(&blocked, sig) == 1;
  std::printf("blocked %d\n", count);
  for (int sig : {SIGPIPE, SIGUSR2, SIGCHLD}) {
    struct sigaction action {};
    sigaction(sig, nullptr, &action);
    const char* kind = action.sa_handler == SIG_DFL ? "dfl" : action.sa_handler == SIG_IGN ? "ign" : "handler";
    std::printf("%d %s\n", sig, kind);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "fds") Fds();
  else if (mode == "signals") Signals();
  else if (mode == "env") for (char** e = environ; *e != nullptr; ++e) std::printf("%s\n", *e);
  else return 2;
  return 0;
}
