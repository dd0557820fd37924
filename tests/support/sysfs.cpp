#include "sysfs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "files.h"

namespace FakeMachineTesting {
namespace {

constexpr uint64_t kSector = 512;

uint64_t LittleEndian(const unsigned char* p, int bytes) {
  uint64_t value = 0;
  for (int i = bytes - 1; i >= 0; --i) value = (value << 8) | p[i];
  return value;
}

bool ReadAt(int fd, uint64_t offset, unsigned char* buffer, size_t size) {
  return ::pread(fd, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

std::string BlockDir(const std::string& disk) { return fs::canonical("/sys/block/" + disk); }

// "sdb" + 1 = "sdb1"; "loop0" + 1 = "loop0p1".
std::string PartitionName(const std::string& disk, unsigned number) {
  const bool digit = !disk.empty() && disk.back() >= '0' && disk.back() <= '9';
  return disk + (digit ? "p" : "") + std::to_string(number);
}

// The device's sysfs directory, its index links and its /dev image.
void RemoveDevice(const std::string& dir) {
  const std::string name = fs::path(dir).filename();
  fs::remove("/sys/dev/block/" + FirstLine(dir + "/dev"));
  fs::remove("/sys/class/block/" + name);
  fs::remove("/dev/" + name);
  fs::remove_all(dir);
}

}  // namespace

std::vector<GptPartition> ReadGpt(const std::string& image) {
  std::vector<GptPartition> found;
  const int fd = ::open(image.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return found;
  unsigned char header[kSector];
  if (ReadAt(fd, kSector, header, sizeof header) && std::memcmp(header, "EFI PART", 8) == 0) {
    const uint64_t entriesLba = LittleEndian(header + 72, 8);
    const uint64_t count = LittleEndian(header + 80, 4), entrySize = LittleEndian(header + 84, 4);
    std::vector<unsigned char> entry(entrySize);
    for (uint64_t i = 0; count <= 1024 && entrySize >= 128 && entrySize <= 4096 && i < count; ++i) {
      if (!ReadAt(fd, entriesLba * kSector + i * entrySize, entry.data(), entrySize)) break;
      const bool unused = std::all_of(entry.begin(), entry.begin() + 16, [](unsigned char b) { return b == 0; });
      const uint64_t first = LittleEndian(entry.data() + 32, 8), last = LittleEndian(entry.data() + 40, 8);
      if (!unused && last >= first) found.push_back({static_cast<unsigned>(i + 1), first, last - first + 1});
    }
  }
  ::close(fd);
  return found;
}

void AddPartition(const std::string& disk, const GptPartition& p) {
  const std::string blockDir = BlockDir(disk), name = PartitionName(disk, p.number);
  const std::string dir = blockDir + "/" + name, diskDev = FirstLine(blockDir + "/dev");
  const size_t colon = diskDev.find(':');
  const std::string numbers =
      diskDev.substr(0, colon + 1) + std::to_string(std::stoul(diskDev.substr(colon + 1)) + p.number);
  WriteText(dir + "/partition", std::to_string(p.number) + "\n");
  WriteText(dir + "/start", std::to_string(p.firstSector) + "\n");
  WriteText(dir + "/size", std::to_string(p.sectors) + "\n");
  WriteText(dir + "/ro", "0\n");
  WriteText(dir + "/dev", numbers + "\n");
  RelativeSymlink(dir, "/sys/dev/block/" + numbers);
  RelativeSymlink(dir, "/sys/class/block/" + name);
  SparseFile("/dev/" + name, p.sectors * kSector);
}

void RereadPartitionTable(const std::string& disk) {
  const std::string blockDir = BlockDir(disk);
  std::vector<GptPartition> table = ReadGpt("/dev/" + disk);
  for (const std::string& entry : ListDir(blockDir)) {
    const std::string dir = blockDir + "/" + entry;
    if (!fs::exists(dir + "/partition")) continue;
    const auto same = std::find_if(table.begin(), table.end(), [&](const GptPartition& p) {
      return PartitionName(disk, p.number) == entry && FirstLine(dir + "/start") == std::to_string(p.firstSector) &&
             FirstLine(dir + "/size") == std::to_string(p.sectors);
    });
    if (same != table.end())
      table.erase(same);
    else
      RemoveDevice(dir);
  }
  for (const GptPartition& p : table) AddPartition(disk, p);
}

void RemoveBlockDevice(const std::string& disk) {
  const std::string blockDir = BlockDir(disk);
  for (const std::string& entry : ListDir(blockDir))
    if (fs::exists(blockDir + "/" + entry + "/partition")) RemoveDevice(blockDir + "/" + entry);
  fs::remove("/sys/block/" + disk);
  // A SCSI disk takes its whole SCSI device (H:C:T:L) with it, as a delete does.
  const fs::path device = fs::path(blockDir).parent_path().parent_path();
  RemoveDevice(blockDir);
  if (fs::exists(device / "delete")) fs::remove_all(device);
}

}  // namespace FakeMachineTesting
