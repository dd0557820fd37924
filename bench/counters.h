#pragma once
// What the benchmarks count besides wall time: CPU time and the processes the kernel made.
#include <sys/resource.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace BenchCounters {

// User and system CPU seconds of RUSAGE_SELF or RUSAGE_CHILDREN.
inline double CpuSeconds(int who) {
  rusage usage{};
  getrusage(who, &usage);
  const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Processes (and threads) the kernel made since boot, machine-wide ("processes" of
// /proc/stat): the fewest seen over a side's runs is what the side itself made.
inline uint64_t ProcessesMade() {
  std::ifstream stat("/proc/stat");
  std::string key;
  uint64_t value = 0;
  while (stat >> key && key != "processes") stat.ignore(1 << 16, '\n');
  stat >> value;
  return value;
}

}  // namespace BenchCounters
