#pragma once
// The kernel's side of block devices in the fake /sys: partitions appearing after a
// partition-table re-read, disks going away. Shared by FakeMachine and the helper
// program that the fake gdisk runs.
#include <cstdint>
#include <string>
#include <vector>

namespace FakeMachineTesting {

struct GptPartition {
  unsigned number = 0;
  uint64_t firstSector = 0;
  uint64_t sectors = 0;
};

// Partitions of the GPT on `image` (512-byte sectors); empty when it holds none.
std::vector<GptPartition> ReadGpt(const std::string& image);

// "sdb" + 1 = "sdb1"; "loop0" + 1 = "loop0p1".
std::string PartitionName(const std::string& disk, unsigned number);

// Adds partition `p` below the disk's sysfs directory, with its dev links and a
// sparse /dev image.
void AddPartition(const std::string& disk, const GptPartition& p);
// Makes the disk's partitions those of the GPT on /dev/<disk>. A partition that keeps
// its start and size keeps its image and with it its data.
void RereadPartitionTable(const std::string& disk);
void RemoveBlockDevice(const std::string& disk);

}  // namespace FakeMachineTesting
