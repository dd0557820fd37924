#pragma once
// Descriptors of this process: leak checks compare counts before and after; a budget
// makes the next pipe() or open() fail.
#include <dirent.h>
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
