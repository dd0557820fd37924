#pragma once
// Descriptors and threads of this process: leak checks compare counts before and
// after; a budget makes the next pipe() or open() fail.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace TestSupport {

inline int CountOwnFds() {
  int count = -1;  // the directory itself
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
  }
  return count;
}

// Descriptors that a child started now would inherit (no close-on-exec).
inline int CountInheritableFds() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) count += ::fcntl(fd, F_GETFD) == 0;
  return count;
}

inline int CountThreads() {
  int count = -2;  // "." and ".."
  if (DIR* dir = opendir("/proc/self/task")) {
    while (readdir(dir) != nullptr) ++count;
    closedir(dir);
  }
  return count;
}

// While it lives, only `spare` more descriptors open (the limit counts from the lowest free number).
class DescriptorBudget {
 public:
  explicit DescriptorBudget(int spare = 0) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    const int lowest = dup(0);
    close(lowest);
    rlimit limited = saved_;
    limited.rlim_cur = static_cast<rlim_t>(lowest + spare);
    setrlimit(RLIMIT_NOFILE, &limited);
  }
  ~DescriptorBudget() { setrlimit(RLIMIT_NOFILE, &saved_); }
  DescriptorBudget(const DescriptorBudget&) = delete;
  DescriptorBudget& operator=(const DescriptorBudget&) = delete;

 private:
  rlimit saved_{};
};

}  // namespace TestSupport
