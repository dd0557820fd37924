// The launcher tests' child: prints its descriptors ("<fd> <target>"), its signal state
// or its environment.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>

extern char** environ;

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (mode == "fds") {
    for (int fd = 0; fd < 1024; ++fd) {
      if (fcntl(fd, F_GETFD) == -1) continue;
      char target[4096] = "-";
      const ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
      if (n >= 0) target[n] = '\0';
      std::printf("%d %s\n", fd, target);
    }
  } else if (mode == "signals") {
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    int count = 0;
    for (int sig = 1; sig < NSIG; ++sig) count += sigismember(&blocked, sig) == 1;
    struct sigaction pipe {};
    sigaction(SIGPIPE, nullptr, &pipe);
    std::printf("blocked %d, %s\n", count, pipe.sa_handler == SIG_DFL ? "default" : "changed");
  } else {
    for (char** e = environ; *e != nullptr; ++e) std::printf("%s\n", *e);
  }
  return 0;
}
