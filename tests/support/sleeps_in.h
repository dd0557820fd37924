#pragma once
// Whether a thread ("self/task/<tid>") or process ("<pid>") sleeps in system call
// `number`, so that a test acts once the other side really waits. Where the kernel does
// not tell the call, any sleep counts; where it tells nothing, the answer is yes.
#include <fstream>
#include <string>

namespace TestSupport {

inline bool SleepsIn(const std::string& task, long number) {
  std::ifstream syscall("/proc/" + task + "/syscall");
  std::string first;
  if (syscall >> first) return first != "running" && std::stol(first) == number;
  std::ifstream stat("/proc/" + task + "/stat");
  std::string line;
  const size_t end = std::getline(stat, line) ? line.rfind(") ") : std::string::npos;
  return end == std::string::npos || line.compare(end + 2, 1, "S") == 0;
}

}  // namespace TestSupport
