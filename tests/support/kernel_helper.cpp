// The kernel's side of the fake gdisk: "fake_machine_kernel reread /dev/sdb" makes the
// fake sysfs show the partitions of the GPT on the disk's image.
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>

#include "sysfs.h"

int main(int argc, char** argv) {
  if (argc != 3 || std::strcmp(argv[1], "reread") != 0) {
    std::fprintf(stderr, "usage: %s reread /dev/<disk>\n", argv[0]);
    return 2;
  }
  try {
    FakeMachineTesting::RereadPartitionTable(std::filesystem::path(argv[2]).filename());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", argv[0], e.what());
    return 1;
  }
  return 0;
}
