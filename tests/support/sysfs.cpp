#include "sysfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "files.h"

namespace FakeMachineTesting {
namespace {

constexpr uint64_t kSector = 512;

uint64_t Le(const unsigned char* p, int bytes) {
  uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | p[i];
  return value;
}

bool ReadAt(int fd, uint64_t offset, unsigned char* buffer, size_t size) {
  return ::pread(fd, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

std::string BlockDir(const std::string& disk) {
  char resolved[PATH_MAX];
  std::string link = "/sys/block/" + disk;
  if (!::realpath(link.c_str(), resolved)) throw std::runtime_error("no block device " + disk);
  return resolved;
}

void DiskNumbers(const std::string& blockDir, unsigned& major, unsigned& minor) {
  std::string text;
  if (!ReadText(blockDir + "/dev", text) || std::sscanf(text.c_str(), "%u:%u", &major, &minor) != 2) {
    throw std::runtime_error("no dev numbers in " + blockDir);
  }
}

std::string Numbers(unsigned major, unsigned minor) {
  return std::to_string(major) + ":" + std::to_string(minor);
}

void RemovePartition(const std::string& blockDir, const std::string& name) {
  std::string dev;
  if (ReadText(blockDir + "/" + name + "/dev", dev)) {
    while (!dev.empty() && dev.back() == '\n') dev.pop_back();
    ::unlink(("/sys/dev/block/" + dev).c_str());
  }
  ::unlink(("/sys/class/block/" + name).c_str());
  ::unlink(("/dev/" + name).c_str());
  RemoveTree(blockDir + "/" + name);
}

}  // namespace

std::vector<GptPartition> ReadGpt(const std::string& image) {
  std::vector<GptPartition> found;
  int fd = ::open(image.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return found;
  unsigned char header[kSector];
  if (ReadAt(fd, kSector, header, sizeof header) && std::memcmp(header, "EFI PART", 8) == 0) {
    uint64_t entriesLba = Le(header + 72, 8);
    uint64_t count = Le(header + 80, 4), entrySize = Le(header + 84, 4);
    if (count <= 1024 && entrySize >= 128 && entrySize <= 4096) {
      std::vector<unsigned char> entry(entrySize);
      for (uint64_t i = 0; i < count; ++i) {
        if (!ReadAt(fd, entriesLba * kSector + i * entrySize, entry.data(), entrySize)) break;
        bool unused = true;
        for (int b = 0; b < 16; ++b) unused = unused && entry[b] == 0;
        uint64_t first = Le(entry.data() + 32, 8), last = Le(entry.data() + 40, 8);
        if (unused || last < first) continue;
        found.push_back({static_cast<unsigned>(i + 1), first, last - first + 1});
      }
    }
  }
  ::close(fd);
  return found;
}

std::string PartitionName(const std::string& disk, unsigned number) {
  bool digit = !disk.empty() && disk.back() >= '0' && disk.back() <= '9';
  return disk + (digit ? "p" : "") + std::to_string(number);
}

void AddPartition(const std::string& disk, const GptPartition& p) {
  std::string blockDir = BlockDir(disk);
  unsigned major, minor;
  DiskNumbers(blockDir, major, minor);
  std::string name = PartitionName(disk, p.number);
  std::string dir = blockDir + "/" + name;
  WriteText(dir + "/partition", std::to_string(p.number) + "\n");
  WriteText(dir + "/start", std::to_string(p.firstSector) + "\n");
  WriteText(dir + "/size", std::to_string(p.sectors) + "\n");
  WriteText(dir + "/ro", "0\n");
  std::string numbers = Numbers(major, minor + p.number);
  WriteText(dir + "/dev", numbers + "\n");
  RelativeSymlink(dir, "/sys/dev/block/" + numbers);
  RelativeSymlink(dir, "/sys/class/block/" + name);
  SparseFile("/dev/" + name, p.sectors * kSector);
}

void RereadPartitionTable(const std::string& disk) {
  std::string blockDir = BlockDir(disk);
  std::vector<GptPartition> table = ReadGpt("/dev/" + disk);
  for (const std::string& entry : ListDir(blockDir)) {
    std::string number;
    if (!ReadText(blockDir + "/" + entry + "/partition", number)) continue;
    std::string start, size;
    ReadText(blockDir + "/" + entry + "/start", start);
    ReadText(blockDir + "/" + entry + "/size", size);
    bool kept = false;
    for (auto it = table.begin(); it != table.end(); ++it) {
      if (PartitionName(disk, it->number) == entry && start == std::to_string(it->firstSector) + "\n" &&
          size == std::to_string(it->sectors) + "\n") {
        table.erase(it);
        kept = true;
        break;
      }
    }
    if (!kept) RemovePartition(blockDir, entry);
  }
  for (const GptPartition& p : table) AddPartition(disk, p);
}

void RemoveBlockDevice(const std::string& disk) {
  std::string blockDir = BlockDir(disk);
  unsigned major, minor;
  DiskNumbers(blockDir, major, minor);
  for (const std::string& entry : ListDir(blockDir)) {
    if (PathExists(blockDir + "/" + entry + "/partition")) RemovePartition(blockDir, entry);
  }
  ::unlink(("/sys/dev/block/" + Numbers(major, minor)).c_str());
  ::unlink(("/sys/class/block/" + disk).c_str());
  ::unlink(("/sys/block/" + disk).c_str());
  ::unlink(("/dev/" + disk).c_str());
  // A SCSI disk takes its whole SCSI device (H:C:T:L) with it, as a delete does.
  std::string parent = Dirname(blockDir);
  if (Basename(parent) == "block" && PathExists(Dirname(parent) + "/delete")) {
    RemoveTree(Dirname(parent));
  } else {
    RemoveTree(blockDir);
  }
}

}  // namespace FakeMachineTesting
