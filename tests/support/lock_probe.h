#pragma once
// Tells from outside whether the file lock behind a shared mutex is held.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <string>

namespace TestSupport {

inline std::string LockPath(const std::string& name) { return "/tmp/.SharedMutex_" + name; }
inline std::string UniqueName(const char* what) { return std::string("zl_test_") + what + "_" + std::to_string(getpid()); }

inline bool FileLockHeld(const std::string& name) {
  const int fd = open(LockPath(name).c_str(), O_RDWR | O_CLOEXEC);
  const bool held = fd != -1 && flock(fd, LOCK_EX | LOCK_NB) != 0;
  if (fd != -1) close(fd);
  return held;
}

}  // namespace TestSupport
