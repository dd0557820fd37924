// The faked machine: what a test describes, built in a private mount namespace that
// main() enters once per program, since only the calling thread moves into it.
#include "fake_machine.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sstream>
#include <stdexcept>

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

std::vector<std::pair<std::string, int>> g_kept;  // path, O_PATH descriptor, bound into each machine
std::string g_why = "the faked machine needs its own mount namespace; main() did not enter it";
bool g_entered = false;

void MountOrThrow(const std::string& source, const std::string& target, const char* type, unsigned long flags,
                  const char* data = nullptr) {
  if (::mount(source.c_str(), target.c_str(), type, flags, data) != 0)
    throw std::runtime_error("mount " + target + ": " + std::strerror(errno));
}

// The index links and the /dev image of a block device or partition, where the
// capture did not bring them.
void CompleteDevice(const std::string& dir) {
  const std::string name = fs::path(dir).filename(), dev = FirstLine(dir + "/dev"), size = FirstLine(dir + "/size");
  if (dev.empty() || size.empty()) return;
  for (const std::string& link : {"/sys/dev/block/" + dev, "/sys/class/block/" + name})
    if (!fs::exists(fs::symlink_status(link))) RelativeSymlink(dir, link);
  if (!fs::exists("/dev/" + name)) SparseFile("/dev/" + name, std::stoull(size) * 512);
}

// "\\", "\n", "\t" and "\xHH" escapes; the capture dropped one final line feed.
std::string Unescape(const std::string& value) {
  std::string out;
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i] == '\\' && i + 1 < value.size() ? value[++i] : '\0';
    if (c == 'x' && i + 2 < value.size()) {
      out += static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c == '\0' ? value[i] : c == 'n' ? '\n' : c == 't' ? '\t' : c;
    }
  }
  return out + "\n";
}

// "d PATH", "f PATH VALUE", "w PATH", "l PATH TARGET", each link's target first.
void ReplaySysfs(const std::string& file) {
  for (const std::string& line : ReadLines(file)) {
    if (line.size() < 3 || line[0] == '#' || line[1] != ' ') continue;
    const size_t space = std::min(line.find(' ', 2), line.size());
    const std::string path = line.substr(2, space - 2), rest = line.substr(std::min(space + 1, line.size()));
    if (path.compare(0, 5, "/sys/") != 0) throw std::runtime_error("fixture path outside /sys: " + path);
    if (std::string("dfwl").find(line[0]) == std::string::npos)
      throw std::runtime_error("unknown fixture record: " + line);
    fs::create_directories(line[0] == 'd' ? path : fs::path(path).parent_path().string());
    if (line[0] == 'f' || line[0] == 'w') WriteText(path, line[0] == 'f' ? Unescape(rest) : "");
    if (line[0] == 'l') {
      fs::remove(path);
      fs::create_symlink(rest, path);
    }
  }
}

// What scsi_id printed for each disk ("$ COMMAND", output, "[exit N]"), to print again.
void ReplayTools(const std::string& file) {
  std::string device, output;
  int status = 0;
  const auto flush = [&] {
    if (device.empty()) return;
    WriteText(FakeMachine::StateDir() + "/scsi_id/" + device, output);
    WriteText(FakeMachine::StateDir() + "/scsi_id/" + device + ".status", std::to_string(status) + "\n");
  };
  for (const std::string& line : ReadLines(file)) {
    if (line.compare(0, 2, "$ ") == 0) {
      flush();
      const size_t at = line.find("--device=/dev/");
      const bool scsiId = line.find("scsi_id") != std::string::npos && at != std::string::npos;
      device = scsiId ? line.substr(at + 14, line.find(' ', at) - at - 14) : "";
      output.clear();
      status = 0;
    } else if (line.compare(0, 6, "[exit ") == 0) {
      status = std::atoi(line.c_str() + 6);
    } else if (!device.empty()) {
      output += line + "\n";
    }
  }
  flush();
}

// The table's "\ooo" escapes undone.
std::string Unoctal(const std::string& field) {
  std::string out;
  for (size_t i = 0; i < field.size(); ++i) {
    const bool escape = field[i] == '\\' && field.size() - i >= 4 &&
                        field.substr(i + 1, 3).find_first_not_of("01234567") == std::string::npos;
    out += escape ? static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8)) : field[i];
    if (escape) i += 3;
  }
  return out;
}

// What the fake mount and Mount() mounted: tmpfs with a /dev path as source, last first.
void UnmountDevices() {
  std::vector<std::string> targets;
  for (const std::string& line : ReadLines("/proc/self/mountinfo")) {
    std::istringstream fields(line);
    std::vector<std::string> f{std::istream_iterator<std::string>(fields), std::istream_iterator<std::string>()};
    const auto dash = std::find(f.begin() + std::min<size_t>(f.size(), 6), f.end(), "-");
    if (f.end() - dash >= 3 && dash[1] == "tmpfs" && dash[2].compare(0, 5, "/dev/") == 0)
      targets.push_back(Unoctal(f[4]));
  }
  for (auto t = targets.rbegin(); t != targets.rend(); ++t) ::umount2(t->c_str(), MNT_DETACH);
}

void UncoverTrees(std::vector<std::string>& mounted) {
  for (; !mounted.empty(); mounted.pop_back()) ::umount2(mounted.back().c_str(), MNT_DETACH);
}

std::vector<std::string> CoverTrees() {
  std::vector<std::string> mounted;
  try {
    for (const char* dir : {"/sys", "/dev", "/mnt", "/etc/Zemlora", "/tmp"}) {
      MountOrThrow("none", dir, "tmpfs", MS_NOSUID, "mode=0755");
      mounted.push_back(dir);
    }
    fs::create_directories("/dev/shm");
    for (const auto& [path, fd] : g_kept) {
      const bool device = path.compare(0, 5, "/dev/") == 0;
      const bool covered = std::any_of(mounted.begin(), mounted.end(), [&](const std::string& dir) {
        return path.compare(0, dir.size() + 1, dir + "/") == 0;
      });
      if (!covered || (!device && fs::exists(path + "/."))) continue;
      device ? WriteText(path, "") : void(fs::create_directories(path));
      MountOrThrow("/proc/self/fd/" + std::to_string(fd), path, nullptr, MS_BIND | MS_REC);
      mounted.push_back(path);
    }
  } catch (...) {
    UncoverTrees(mounted);
    throw;
  }
  return mounted;
}

}  // namespace

DiskSpec& DiskSpec::Serial(const std::string& serial) {
  ScsiIdOutput(
      "ID_SCSI=1\nID_VENDOR=QEMU\nID_VENDOR_ENC=QEMU\\x20\\x20\\x20\\x20\nID_MODEL=QEMU_HARDDISK\n"
      "ID_MODEL_ENC=QEMU\\x20HARDDISK\\x20\\x20\\x20\nID_REVISION=2.5+\nID_TYPE=disk\n"
      "ID_SERIAL=0QEMU_QEMU_HARDDISK_" + serial + "\nID_SERIAL_SHORT=" + serial + "\nID_SCSI_SERIAL=" + serial + "\n");
  return Set(unitSerial_, std::string{'\0', '\x80', '\0', static_cast<char>(serial.size())} + serial);
}

FakeMachine::FakeMachine() {
  std::string why;
  if (!Available(&why)) throw std::runtime_error(why);
  if (g_live) throw std::runtime_error("only one FakeMachine may live at a time");
  mounts_ = CoverTrees();
  g_live = true;
  for (const char* dir : {"/sys/block", "/sys/dev/block", "/sys/class/block", "/sys/class/scsi_host"})
    fs::create_directories(dir);
  WriteText(StateDir() + "/calls", "");
}

FakeMachine::~FakeMachine() {
  UnmountDevices();
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
    if (disk.unitSerial_) WriteText(device + "/vpd_pg80", *disk.unitSerial_);
    for (const std::string& entry : disk.scsiDisk_.value_or(std::vector<std::string>{address}))
      fs::create_directories(device + "/scsi_disk/" + entry);
    blockDir = device + "/block/" + name;
    RelativeSymlink(device, blockDir + "/device");
  } else if (name.compare(0, 2, "vd") == 0) {
    const std::string index = std::to_string(name[2] - 'a');
    blockDir = "/sys/devices/pci0000:00/0000:00:0" + index + ".0/virtio" + index + "/block/" + name;
    RelativeSymlink(fs::path(blockDir).parent_path().parent_path(), blockDir + "/device");
  }
  const std::string numbers = KernelNumbers(name);
  WriteText(blockDir + "/dev", numbers + "\n");
  WriteText(blockDir + "/size", std::to_string(disk.bytes_ / 512) + "\n");
  WriteText(blockDir + "/ro", "0\n");
  for (const std::string& link : {"/sys/block/" + name, "/sys/class/block/" + name, "/sys/dev/block/" + numbers})
    RelativeSymlink(blockDir, link);
  if (disk.image_) SparseFile("/dev/" + name, disk.imageBytes_.value_or(disk.bytes_));
  for (const GptPartition& p : disk.partitions_) AddPartition(name, p);
  if (disk.scsiId_) WriteText(StateDir() + "/scsi_id/" + name, *disk.scsiId_);
}

void FakeMachine::Mount(const std::string& device, const std::string& dir) const {
  fs::create_directories(dir);
  MountOrThrow(device, dir, "tmpfs", 0, "size=1m");
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

bool FakeMachine::EnterNamespace() {
  const char* path = std::getenv("PATH");
  ::setenv("PATH", (std::string(AS_FAKE_TOOLS_DIR) + ":" + (path ? path : "/usr/sbin:/usr/bin:/sbin:/bin")).c_str(), 1);
  ::setenv("AS_FAKE_MACHINE_STATE", StateDir().c_str(), 1);
  ::setenv("AS_FAKE_MACHINE_KERNEL", AS_FAKE_MACHINE_KERNEL, 1);
  try {
    if (::geteuid() != 0) throw std::runtime_error("the faked machine needs root (mount namespaces, tmpfs)");
    if (::unshare(CLONE_NEWNS) != 0) throw std::runtime_error(std::string("unshare: ") + std::strerror(errno));
    MountOrThrow("none", "/", nullptr, MS_REC | MS_PRIVATE);
    // Devices from the real /dev, and the project's trees where a checkout lies below a
    // covered tree such as /tmp.
    for (const std::string& kept : {std::string("/dev/null"), std::string("/dev/zero"), std::string("/dev/urandom"),
                                    std::string("/dev/full"), std::string(AS_SOURCE_ROOT),
                                    fs::path(AS_FAKE_MACHINE_KERNEL).parent_path().string()}) {
      g_kept.emplace_back(kept, ::open(kept.c_str(), O_PATH | O_CLOEXEC));
      if (g_kept.back().second < 0) throw std::runtime_error("open " + kept + ": " + std::strerror(errno));
    }
    if (!fs::exists("/etc/Zemlora")) {  // something to mount on: an overlay over /etc, in this namespace only
      MountOrThrow("none", "/tmp", "tmpfs", 0, "mode=0755");
      for (const char* dir : {"/tmp/etc_upper", "/tmp/etc_work"}) fs::create_directories(dir);
      MountOrThrow("overlay", "/etc", "overlay", 0, "lowerdir=/etc,upperdir=/tmp/etc_upper,workdir=/tmp/etc_work");
      ::umount2("/tmp", MNT_DETACH);
      fs::create_directory("/etc/Zemlora");
    }
    g_entered = true;
  } catch (const std::exception& e) {
    g_why = std::string("cannot fake the machine: ") + e.what();
  }
  return g_entered;
}

bool FakeMachine::Available(std::string* why) {
  if (!g_entered && why) *why = g_why;
  return g_entered;
}

void FakeMachine::Replay(const std::string& fixture) {
  const std::string base = fixture[0] == '/' ? fixture : std::string(AS_SOURCE_ROOT) + "/" + fixture;
  if (!fs::exists(base + ".sysfs")) throw std::runtime_error("no fixture at " + base + ".sysfs");
  ReplaySysfs(base + ".sysfs");
  if (fs::exists(base + ".tools")) ReplayTools(base + ".tools");
  for (const std::string& disk : ListDir("/sys/block")) {
    const std::string dir = fs::canonical("/sys/block/" + disk);
    CompleteDevice(dir);
    for (const std::string& entry : ListDir(dir))
      if (fs::exists(dir + "/" + entry + "/partition")) CompleteDevice(dir + "/" + entry);
  }
}

}  // namespace FakeMachineTesting
