#pragma once
// File-tree helpers of the harness and the kernel's side of block devices in the fake
// /sys (shared with the helper that the fake gdisk runs). Failures throw, naming the path.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace FakeMachineTesting {

namespace fs = std::filesystem;

void WriteText(const std::string& path, const std::string& text);  // parents included
bool ReadText(const std::string& path, std::string& text);
// `link` -> `target`, relative to the link's directory as the kernel writes sysfs links.
void RelativeSymlink(const std::string& target, const std::string& link);
void SparseFile(const std::string& path, uint64_t bytes);
std::vector<std::string> ListDir(const std::string& path);   // sorted; none when unreadable
std::vector<std::string> ReadLines(const std::string& path);  // without line feeds
std::string FirstLine(const std::string& path);              // "" when unreadable
// What every writing tool touches of a device, its first 4 MiB and last 1 MiB, hashed.
std::string EdgeDigest(const std::string& path);

struct GptPartition {
  unsigned number = 0;
  uint64_t firstSector = 0, sectors = 0;
};
// Partition `p` below the disk's sysfs directory, with its dev links and a sparse image.
void AddPartition(const std::string& disk, const GptPartition& p);
// The partitions become those of the GPT on /dev/<disk>; one that keeps its start and
// size keeps its image, and with it its data.
void RereadPartitionTable(const std::string& disk);
void RemoveBlockDevice(const std::string& disk);

}  // namespace FakeMachineTesting
