// The launcher tests' child: prints its descriptors, "<fd> <target>" a line.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

int main() {
  for (int fd = 0; fd < 1024; ++fd) {
    if (fcntl(fd, F_GETFD) == -1) continue;
    char target[4096] = "-";
    const ssize_t n = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1);
    if (n >= 0) target[n] = '\0';
    std::printf("%d %s\n", fd, target);
  }
}
