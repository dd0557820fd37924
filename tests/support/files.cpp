#include "files.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace FakeMachineTesting {

void WriteText(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out.write(text.data(), static_cast<std::streamsize>(text.size())).flush())
    throw std::runtime_error("cannot write " + path);
}

bool ReadText(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream out;
  out << in.rdbuf();
  text = out.str();
  return true;
}

void RelativeSymlink(const std::string& target, const std::string& link) {
  // The target's own name is spelled out even where it is an ancestor of the link
  // ("../../../2:0:1:0", not "../.."): readers take the link's last component.
  const fs::path to(target), from = fs::path(link).parent_path();
  fs::create_directories(from);
  fs::remove(link);
  fs::create_symlink(to.parent_path().lexically_relative(from) / to.filename(), link);
}

void SparseFile(const std::string& path, uint64_t bytes) {
  WriteText(path, "");
  fs::resize_file(path, bytes);
}

std::string EdgeDigest(const std::string& path) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : 0;
  std::string head(std::min<std::streamoff>(size, 4 << 20), '\0'), tail(std::min<std::streamoff>(size, 1 << 20), '\0');
  in.seekg(0).read(head.data(), head.size());
  in.seekg(size - static_cast<std::streamoff>(tail.size())).read(tail.data(), tail.size());
  const std::hash<std::string> hash;
  return in ? std::to_string(hash(head)) + ":" + std::to_string(hash(tail)) : "unreadable";
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code unreadable;
  for (const fs::directory_entry& entry : fs::directory_iterator(path, unreadable))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string FirstLine(const std::string& path) {
  const std::vector<std::string> lines = ReadLines(path);
  return lines.empty() ? std::string() : lines.front();
}

namespace {

constexpr uint64_t kSector = 512;

// Partitions of the GPT on `image`; none when it holds no table.
std::vector<GptPartition> ReadGpt(const std::string& image) {
  std::vector<GptPartition> found;
  std::ifstream in(image, std::ios::binary);
  const auto at = [&in](uint64_t offset, size_t bytes) {  // a little-endian number; 0 where unreadable
    unsigned char b[8] = {};
    in.clear();
    in.seekg(static_cast<std::streamoff>(offset)).read(reinterpret_cast<char*>(b), static_cast<std::streamsize>(bytes));
    uint64_t value = 0;
    for (size_t i = bytes; in && i > 0; --i) value = value << 8 | b[i - 1];
    return value;
  };
  if (at(kSector, 8) != 0x5452415020494645) return found;  // "EFI PART"
  const uint64_t entries = at(kSector + 72, 8) * kSector, count = at(kSector + 80, 4), size = at(kSector + 84, 4);
  for (uint64_t i = 0; count <= 1024 && size >= 128 && size <= 4096 && i < count; ++i) {
    const uint64_t entry = entries + i * size, first = at(entry + 32, 8), last = at(entry + 40, 8);
    const bool used = (at(entry, 8) | at(entry + 8, 8)) != 0;  // the type GUID
    if (used && last >= first) found.push_back({static_cast<unsigned>(i + 1), first, last - first + 1});
  }
  return found;
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

void AddPartition(const std::string& disk, const GptPartition& p) {
  const std::string blockDir = BlockDir(disk), name = PartitionName(disk, p.number);
  const std::string dir = blockDir + "/" + name, diskDev = FirstLine(blockDir + "/dev");
  const size_t colon = diskDev.find(':');
  const std::string numbers =
      diskDev.substr(0, colon + 1) + std::to_string(std::stoul(diskDev.substr(colon + 1)) + p.number);
  const std::pair<const char*, uint64_t> files[] = {{"partition", p.number}, {"start", p.firstSector},
                                                    {"size", p.sectors}, {"ro", 0}};
  for (const auto& [file, value] : files) WriteText(dir + "/" + file, std::to_string(value) + "\n");
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
