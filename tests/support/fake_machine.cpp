#include "fake_machine.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "files.h"
#include "namespace.h"
#include "sysfs.h"

namespace FakeMachineTesting {
namespace {

constexpr const char* kPlatform = "/sys/devices/platform";
std::vector<std::string>* g_current = nullptr;  // mounts of the live machine

std::string HostDir(unsigned host) { return std::string(kPlatform) + "/host" + std::to_string(host); }

// Kernel numbering of sd disks: sda..sdp on 8, then 65..71, 16 minors each.
void SdNumbers(const std::string& name, int& major, int& minor) {
  unsigned index = 0;  // bijective base 26: sda = 0, sdz = 25, sdaa = 26
  for (size_t i = 2; i < name.size(); ++i) index = index * 26 + static_cast<unsigned>(name[i] - 'a') + 1;
  index = index > 0 ? index - 1 : 0;
  major = index < 16 ? 8 : static_cast<int>(64 + index / 16);
  minor = static_cast<int>((index % 16) * 16);
}

std::string TrailingNumber(const std::string& name, int fallback) {
  size_t digits = name.find_first_of("0123456789");
  return digits == std::string::npos ? std::to_string(fallback) : name.substr(digits);
}

}  // namespace

std::string ScsiAddress::Text() const {
  return std::to_string(host) + ":" + std::to_string(channel) + ":" + std::to_string(target) + ":" +
         std::to_string(lun);
}

DiskSpec::DiskSpec(std::string name) : name_(std::move(name)) {}

DiskSpec& DiskSpec::At(unsigned host, unsigned channel, unsigned target, unsigned lun) {
  address_ = {host, channel, target, lun};
  return *this;
}
DiskSpec& DiskSpec::Size(uint64_t bytes) { bytes_ = bytes; return *this; }
DiskSpec& DiskSpec::State(std::string text) { state_ = std::move(text); return *this; }
DiskSpec& DiskSpec::Dev(unsigned major, unsigned minor) {
  major_ = static_cast<int>(major);
  minor_ = static_cast<int>(minor);
  return *this;
}
DiskSpec& DiskSpec::Serial(std::string serial) {
  hasScsiId_ = true;
  rawScsiId_ = false;
  serial_ = std::move(serial);
  scsiIdStatus_ = 0;
  return *this;
}
DiskSpec& DiskSpec::ScsiIdOutput(std::string output) {
  hasScsiId_ = true;
  rawScsiId_ = true;
  scsiIdOutput_ = std::move(output);
  scsiIdStatus_ = 0;
  return *this;
}
DiskSpec& DiskSpec::ScsiIdFails(int status) {
  hasScsiId_ = true;
  rawScsiId_ = true;
  scsiIdOutput_.clear();
  scsiIdStatus_ = status;
  return *this;
}
DiskSpec& DiskSpec::ScsiDiskEntries(std::vector<std::string> entries) {
  scsiDiskEntries_ = std::move(entries);
  return *this;
}
DiskSpec& DiskSpec::NoScsiDisk() { scsiDiskDir_ = false; return *this; }
DiskSpec& DiskSpec::NoImage() { image_ = false; return *this; }
DiskSpec& DiskSpec::ImageBytes(uint64_t bytes) { imageBytes_ = static_cast<int64_t>(bytes); return *this; }
DiskSpec& DiskSpec::Partition(unsigned number, uint64_t startSector, uint64_t sectors) {
  partitions_.push_back({number, startSector, sectors});
  return *this;
}

bool FakeMachine::Available(std::string* why) { return MachineNamespaceEntered(why); }

bool FakeMachine::EnterNamespace() {
  std::string why;
  if (EnterMachineNamespace(why)) return true;
  SetMachineUnavailable("cannot fake the machine: " + why);
  return false;
}

std::string FakeMachine::StateDir() { return FakeMachineStateDir(); }

FakeMachine::FakeMachine() {
  std::string why;
  if (!Available(&why)) throw std::runtime_error(why);
  if (g_current) throw std::runtime_error("only one FakeMachine may live at a time");
  mounts_ = CoverMachineTrees();
  g_current = &mounts_;
  MakeDirs("/sys/block");
  MakeDirs("/sys/dev/block");
  MakeDirs("/sys/class/block");
  MakeDirs("/sys/class/scsi_host");
  MakeDirs(StateDir() + "/scsi_id");
  MakeDirs(StateDir() + "/fail");
  WriteText(StateDir() + "/mounts", "");
  WriteText(StateDir() + "/calls", "");
}

FakeMachine::~FakeMachine() {
  UncoverMachineTrees(mounts_);
  g_current = nullptr;
}

FakeMachine& FakeMachine::Host(unsigned number, std::string procName) {
  hosts_[number] = std::make_unique<std::string>(std::move(procName));
  return *this;
}

FakeMachine& FakeMachine::HostWithoutProcName(unsigned number) {
  hosts_[number] = nullptr;
  return *this;
}

DiskSpec& FakeMachine::Disk(const std::string& name) {
  disks_.push_back(std::make_unique<DiskSpec>(name));
  return *disks_.back();
}

DiskSpec& FakeMachine::VirtioDisk(const std::string& name) {
  DiskSpec& disk = Disk(name);
  disk.kind_ = DiskSpec::Kind::Virtio;
  return disk;
}

DiskSpec& FakeMachine::LoopDevice(const std::string& name) {
  DiskSpec& disk = Disk(name);
  disk.kind_ = DiskSpec::Kind::Loop;
  return disk;
}

void FakeMachine::Build() {
  for (auto& [number, procName] : hosts_) {
    std::string key = "host" + std::to_string(number);
    if (std::find(built_.begin(), built_.end(), key) != built_.end()) continue;
    BuildHost(number, procName.get());
    built_.push_back(key);
  }
  for (auto& disk : disks_) {
    std::string key = "disk " + disk->name_;
    if (std::find(built_.begin(), built_.end(), key) != built_.end()) continue;
    BuildDisk(*disk);
    built_.push_back(key);
  }
}

void FakeMachine::BuildHost(unsigned number, const std::string* procName) {
  std::string name = "host" + std::to_string(number);
  std::string classDir = HostDir(number) + "/scsi_host/" + name;
  MakeDirs(classDir);
  if (procName) WriteText(classDir + "/proc_name", *procName);
  WriteText(classDir + "/scan", "");
  WriteText(classDir + "/unique_id", std::to_string(number + 1) + "\n");
  RelativeSymlink(classDir, "/sys/class/scsi_host/" + name);
}

void FakeMachine::BuildDisk(DiskSpec& disk) {
  const std::string& name = disk.name_;
  int major = disk.major_, minor = disk.minor_;
  std::string blockDir;
  switch (disk.kind_) {
    case DiskSpec::Kind::Scsi: {
      const ScsiAddress& a = disk.address_;
      std::string device = HostDir(a.host) + "/target" + std::to_string(a.host) + ":" +
                           std::to_string(a.channel) + ":" + std::to_string(a.target) + "/" + a.Text();
      WriteText(device + "/state", disk.state_);
      WriteText(device + "/rescan", "");
      WriteText(device + "/delete", "");
      WriteText(device + "/type", "0\n");
      WriteText(device + "/vendor", "QEMU    \n");
      WriteText(device + "/model", "QEMU HARDDISK   \n");
      if (disk.scsiDiskDir_) {
        std::vector<std::string> entries = disk.scsiDiskEntries_;
        if (entries.empty()) entries.push_back(a.Text());
        for (const std::string& entry : entries) MakeDirs(device + "/scsi_disk/" + entry);
      }
      blockDir = device + "/block/" + name;
      RelativeSymlink(device, blockDir + "/device");
      if (major < 0) SdNumbers(name, major, minor);
      break;
    }
    case DiskSpec::Kind::Virtio: {
      std::string index = std::to_string(name.size() > 2 ? name[2] - 'a' : 0);
      std::string device = "/sys/devices/pci0000:00/0000:00:0" + index + ".0/virtio" + index;
      MakeDirs(device);
      blockDir = device + "/block/" + name;
      RelativeSymlink(device, blockDir + "/device");
      if (major < 0) {
        major = 254;
        minor = (name.size() > 2 ? name[2] - 'a' : 0) * 16;
      }
      break;
    }
    case DiskSpec::Kind::Loop:
      blockDir = "/sys/devices/virtual/block/" + name;
      if (major < 0) {
        major = 7;
        minor = std::stoi(TrailingNumber(name, 0));
      }
      break;
  }
  std::string numbers = std::to_string(major) + ":" + std::to_string(minor);
  WriteText(blockDir + "/dev", numbers + "\n");
  WriteText(blockDir + "/size", std::to_string(disk.bytes_ / 512) + "\n");
  WriteText(blockDir + "/removable", "0\n");
  WriteText(blockDir + "/ro", "0\n");
  RelativeSymlink(blockDir, "/sys/block/" + name);
  RelativeSymlink(blockDir, "/sys/class/block/" + name);
  RelativeSymlink(blockDir, "/sys/dev/block/" + numbers);
  if (disk.image_) {
    SparseFile("/dev/" + name, disk.imageBytes_ >= 0 ? static_cast<uint64_t>(disk.imageBytes_) : disk.bytes_);
  }
  for (const PartitionSpec& p : disk.partitions_) AddPartition(name, {p.number, p.startSector, p.sectors});
  if (disk.hasScsiId_) {
    std::string output = disk.scsiIdOutput_;
    if (!disk.rawScsiId_) {
      output = "ID_SCSI=1\nID_VENDOR=QEMU\nID_VENDOR_ENC=QEMU\\x20\\x20\\x20\\x20\n"
               "ID_MODEL=QEMU_HARDDISK\nID_MODEL_ENC=QEMU\\x20HARDDISK\\x20\\x20\\x20\n"
               "ID_REVISION=2.5+\nID_TYPE=disk\nID_SERIAL=0QEMU_QEMU_HARDDISK_" + disk.serial_ +
               "\nID_SERIAL_SHORT=" + disk.serial_ + "\nID_SCSI_SERIAL=" + disk.serial_ + "\n";
    }
    WriteText(StateDir() + "/scsi_id/" + name, output);
    WriteText(StateDir() + "/scsi_id/" + name + ".status", std::to_string(disk.scsiIdStatus_) + "\n");
  }
}

void FakeMachine::RereadPartitions(const std::string& disk) { RereadPartitionTable(disk); }

void FakeMachine::RemoveDisk(const std::string& disk) { RemoveBlockDevice(disk); }

void FakeMachine::Mounted(const std::string& device, const std::string& mountPoint) {
  std::string table;
  ReadText(StateDir() + "/mounts", table);
  WriteText(StateDir() + "/mounts", table + device + " " + mountPoint + "\n");
}

std::vector<std::pair<std::string, std::string>> FakeMachine::Mounts() const {
  std::vector<std::pair<std::string, std::string>> mounts;
  for (const std::string& line : ReadLines(StateDir() + "/mounts")) {
    size_t space = line.find(' ');
    if (space != std::string::npos) mounts.emplace_back(line.substr(0, space), line.substr(space + 1));
  }
  return mounts;
}

void FakeMachine::FailTool(const std::string& tool, int status) {
  std::string path = StateDir() + "/fail/" + tool;
  if (status < 0) ::unlink(path.c_str());
  else WriteText(path, std::to_string(status) + "\n");
}

std::vector<std::string> FakeMachine::Calls(const std::string& tool) const {
  std::vector<std::string> calls;
  for (const std::string& line : ReadLines(StateDir() + "/calls")) {
    if (tool.empty() || line == tool || line.compare(0, tool.size() + 1, tool + " ") == 0) calls.push_back(line);
  }
  return calls;
}

std::string FakeMachine::ReadFile(const std::string& path) const {
  std::string text;
  if (!ReadText(path, text)) ADD_FAILURE() << "cannot read " << path;
  return text;
}

void FakeMachine::WriteFile(const std::string& path, const std::string& text) const {
  WriteText(path, text);
}

bool FakeMachine::Exists(const std::string& path) const { return PathExists(path); }

NoFreeDescriptors::NoFreeDescriptors() {
  rlimit limit;
  ::getrlimit(RLIMIT_NOFILE, &limit);
  soft_ = limit.rlim_cur;
  // The lowest free descriptor number becomes the limit, so nothing more can open.
  int probe = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (probe >= 0) {
    ::close(probe);
    limit.rlim_cur = static_cast<rlim_t>(probe);
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

NoFreeDescriptors::~NoFreeDescriptors() {
  rlimit limit;
  ::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = soft_;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace FakeMachineTesting
