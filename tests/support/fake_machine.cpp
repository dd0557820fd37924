#include "fake_machine.h"

#include <stdexcept>

#include "files.h"

namespace FakeMachineTesting {
namespace {

bool g_live = false;  // one machine at a time

std::string HostDir(unsigned host) { return "/sys/devices/platform/host" + std::to_string(host); }

// The kernel's numbers: sda..sdp on 8, then 65..71, 16 minors each; vda.. on 254; loopN 7:N.
std::string KernelNumbers(const std::string& name) {
  if (name.compare(0, 4, "loop") == 0) return "7:" + name.substr(4);
  if (name.compare(0, 2, "vd") == 0) return "254:" + std::to_string((name[2] - 'a') * 16);
  unsigned index = 0;  // bijective base 26: sda = 1, sdz = 26, sdaa = 27
  for (size_t i = 2; i < name.size(); ++i) index = index * 26 + static_cast<unsigned>(name[i] - 'a') + 1;
  index = index > 0 ? index - 1 : 0;
  return std::to_string(index < 16 ? 8 : 64 + index / 16) + ":" + std::to_string((index % 16) * 16);
}

}  // namespace

DiskSpec& DiskSpec::Serial(const std::string& serial) {
  return ScsiIdOutput(
      "ID_SCSI=1\nID_VENDOR=QEMU\nID_VENDOR_ENC=QEMU\\x20\\x20\\x20\\x20\nID_MODEL=QEMU_HARDDISK\n"
      "ID_MODEL_ENC=QEMU\\x20HARDDISK\\x20\\x20\\x20\nID_REVISION=2.5+\nID_TYPE=disk\n"
      "ID_SERIAL=0QEMU_QEMU_HARDDISK_" + serial + "\nID_SERIAL_SHORT=" + serial + "\nID_SCSI_SERIAL=" + serial + "\n");
}

FakeMachine::FakeMachine() {
  std::string why;
  if (!Available(&why)) throw std::runtime_error(why);
  if (g_live) throw std::runtime_error("only one FakeMachine may live at a time");
  mounts_ = CoverTrees();
  g_live = true;
  for (const char* dir : {"/sys/block", "/sys/dev/block", "/sys/class/block", "/sys/class/scsi_host"})
    fs::create_directories(dir);
  fs::create_directories(StateDir() + "/scsi_id");
  fs::create_directories(StateDir() + "/fail");
  WriteText(StateDir() + "/mounts", "");
  WriteText(StateDir() + "/calls", "");
}

FakeMachine::~FakeMachine() {
  UncoverTrees(mounts_);
  g_live = false;
}

void FakeMachine::Build() {
  for (; builtHosts_ < hosts_.size(); ++builtHosts_) {
    const auto& [number, procName] = hosts_[builtHosts_];
    const std::string name = "host" + std::to_string(number), dir = HostDir(number) + "/scsi_host/" + name;
    if (procName) WriteText(dir + "/proc_name", *procName);
    WriteText(dir + "/scan", "");
    RelativeSymlink(dir, "/sys/class/scsi_host/" + name);
  }
  for (; builtDisks_ < disks_.size(); ++builtDisks_) BuildDisk(*disks_[builtDisks_]);
}

void FakeMachine::BuildDisk(const DiskSpec& disk) {
  const std::string& name = disk.name_;
  std::string blockDir = "/sys/devices/virtual/block/" + name;
  if (name.compare(0, 2, "sd") == 0) {
    const std::vector<unsigned>& a = disk.address_;
    const std::string target = std::to_string(a[0]) + ":" + std::to_string(a[1]) + ":" + std::to_string(a[2]);
    const std::string address = target + ":" + std::to_string(a[3]);
    const std::string device = HostDir(a[0]) + "/target" + target + "/" + address;
    WriteText(device + "/state", disk.state_);
    for (const char* file : {"rescan", "delete"}) WriteText(device + "/" + file, "");
    for (const std::string& entry : disk.scsiDisk_.value_or(std::vector<std::string>{address}))
      fs::create_directories(device + "/scsi_disk/" + entry);
    blockDir = device + "/block/" + name;
    RelativeSymlink(device, blockDir + "/device");
  } else if (name.compare(0, 2, "vd") == 0) {
    const std::string index = std::to_string(name[2] - 'a');
    const std::string device = "/sys/devices/pci0000:00/0000:00:0" + index + ".0/virtio" + index;
    blockDir = device + "/block/" + name;
    RelativeSymlink(device, blockDir + "/device");
  }
  const std::string numbers = disk.dev_.empty() ? KernelNumbers(name) : disk.dev_;
  WriteText(blockDir + "/dev", numbers + "\n");
  WriteText(blockDir + "/size", std::to_string(disk.bytes_ / 512) + "\n");
  WriteText(blockDir + "/ro", "0\n");
  RelativeSymlink(blockDir, "/sys/block/" + name);
  RelativeSymlink(blockDir, "/sys/class/block/" + name);
  RelativeSymlink(blockDir, "/sys/dev/block/" + numbers);
  if (disk.image_) SparseFile("/dev/" + name, disk.imageBytes_.value_or(disk.bytes_));
  for (const GptPartition& p : disk.partitions_) AddPartition(name, p);
  if (disk.scsiId_) {
    WriteText(StateDir() + "/scsi_id/" + name, *disk.scsiId_);
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
    const size_t space = line.find(' ');
    if (space != std::string::npos) mounts.emplace_back(line.substr(0, space), line.substr(space + 1));
  }
  return mounts;
}

void FakeMachine::FailTool(const std::string& tool, int status) {
  const std::string path = StateDir() + "/fail/" + tool;
  if (status < 0)
    fs::remove(path);
  else
    WriteText(path, std::to_string(status) + "\n");
}

std::vector<std::string> FakeMachine::Calls(const std::string& tool) const {
  std::vector<std::string> calls;
  for (const std::string& line : ReadLines(StateDir() + "/calls"))
    if (tool.empty() || line == tool || line.compare(0, tool.size() + 1, tool + " ") == 0) calls.push_back(line);
  return calls;
}

std::string FakeMachine::ReadFile(const std::string& path) const {
  std::string text;
  if (!ReadText(path, text)) ADD_FAILURE() << "cannot read " << path;
  return text;
}

void FakeMachine::WriteFile(const std::string& path, const std::string& text) const { WriteText(path, text); }

bool FakeMachine::Exists(const std::string& path) const { return fs::exists(fs::symlink_status(path)); }

}  // namespace FakeMachineTesting
