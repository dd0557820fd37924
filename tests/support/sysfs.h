#pragma once
// The kernel's side of block devices in the fake /sys, shared by FakeMachine and the
// helper program that the fake gdisk runs.
#include <cstdint>
#include <string>
#include <vector>

namespace FakeMachineTesting {

struct GptPartition {
  unsigned number = 0;
  uint64_t firstSector = 0;
  uint64_t sectors = 0;
};

// Partitions of the GPT on `image` (512-byte sectors); none when it holds no table.
std::vector<GptPartition> ReadGpt(const std::string& image);
// Partition `p` below the disk's sysfs directory, with its dev links and a sparse image.
void AddPartition(const std::string& disk, const GptPartition& p);
// The disk's partitions become those of the GPT on /dev/<disk>; one that keeps its
// start and size keeps its image, and with it its data.
void RereadPartitionTable(const std::string& disk);
void RemoveBlockDevice(const std::string& disk);

}  // namespace FakeMachineTesting
