#pragma once
// How many descriptors this process holds: leak checks compare it before and after.
#include <dirent.h>

namespace TestSupport {

inline int CountOwnFds() {
  int count = -1;  // the directory itself
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (const dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
  }
  return count;
}

}  // namespace TestSupport
