// Run by the fake gdisk as "fake_machine_kernel /dev/sdb": the fake sysfs shows the
// partitions of the GPT on the disk's image.
#include <cstdio>
#include <stdexcept>

#include "files.h"

int main(int argc, char** argv) try {
  if (argc != 2) throw std::invalid_argument("usage: fake_machine_kernel /dev/<disk>");
  FakeMachineTesting::RereadPartitionTable(FakeMachineTesting::fs::path(argv[1]).filename());
  return 0;
} catch (const std::exception& e) {
  std::fprintf(stderr, "fake_machine_kernel: %s\n", e.what());
  return 1;
}
