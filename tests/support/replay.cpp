// Replaying sysfs slices captured from a real kernel into the fake /sys.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <stdexcept>

#include "fake_machine.h"
#include "files.h"

namespace FakeMachineTesting {
namespace {

std::string Trimmed(std::string text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

// The kernel's index links and the /dev images for every block device and partition
// that the fixture brought, where the fixture did not capture them itself.
void CompleteBlockDevices() {
  for (const std::string& disk : ListDir("/sys/block")) {
    std::string dir = "/sys/block/" + disk;
    std::string dev, size;
    if (!ReadText(dir + "/dev", dev) || !ReadText(dir + "/size", size)) continue;
    char resolved[PATH_MAX];
    if (!::realpath(dir.c_str(), resolved)) continue;
    if (!PathExists("/sys/dev/block/" + Trimmed(dev))) RelativeSymlink(resolved, "/sys/dev/block/" + Trimmed(dev));
    if (!PathExists("/sys/class/block/" + disk)) RelativeSymlink(resolved, "/sys/class/block/" + disk);
    if (!PathExists("/dev/" + disk)) SparseFile("/dev/" + disk, std::stoull(Trimmed(size)) * 512);
    for (const std::string& entry : ListDir(dir)) {
      std::string part = dir + "/" + entry, partDev, partSize;
      if (!PathExists(part + "/partition") || !ReadText(part + "/dev", partDev) ||
          !ReadText(part + "/size", partSize)) {
        continue;
      }
      std::string partResolved = std::string(resolved) + "/" + entry;
      if (!PathExists("/sys/dev/block/" + Trimmed(partDev))) {
        RelativeSymlink(partResolved, "/sys/dev/block/" + Trimmed(partDev));
      }
      if (!PathExists("/sys/class/block/" + entry)) RelativeSymlink(partResolved, "/sys/class/block/" + entry);
      if (!PathExists("/dev/" + entry)) SparseFile("/dev/" + entry, std::stoull(Trimmed(partSize)) * 512);
    }
  }
}

// A value of the capture's text form: "\\", "\n", "\t" and "\xHH" escapes; the
// capture dropped one final line feed, which the file gets back.
std::string Unescape(const std::string& value) {
  std::string out;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    const char c = value[++i];
    if (c == 'n') out += '\n';
    else if (c == 't') out += '\t';
    else if (c == 'x' && i + 2 < value.size()) {
      out += static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else
      out += c;
  }
  return out + "\n";
}

// "d PATH", "f PATH VALUE", "w PATH", "l PATH TARGET", in an order that puts every
// link's target in place first.
void ReplaySysfs(const std::string& file) {
  for (const std::string& line : ReadLines(file)) {
    if (line.size() < 3 || line[0] == '#' || line[1] != ' ') continue;
    const size_t space = line.find(' ', 2);
    const std::string path = line.substr(2, space == std::string::npos ? std::string::npos : space - 2);
    const std::string rest = space == std::string::npos ? std::string() : line.substr(space + 1);
    if (path.compare(0, 5, "/sys/") != 0) throw std::runtime_error("fixture path outside /sys: " + path);
    switch (line[0]) {
      case 'd': MakeDirs(path); break;
      case 'f': MakeDirs(Dirname(path)); WriteText(path, Unescape(rest)); break;
      case 'w': MakeDirs(Dirname(path)); WriteText(path, ""); break;
      case 'l':
        MakeDirs(Dirname(path));
        ::unlink(path.c_str());
        if (::symlink(rest.c_str(), path.c_str()) != 0) throw std::runtime_error("cannot link " + path);
        break;
      default: throw std::runtime_error("unknown fixture record: " + line);
    }
  }
}

// What scsi_id printed for each disk, for the fake scsi_id to print again.
void ReplayTools(const std::string& file) {
  std::string device, output;
  int status = 0;
  auto flush = [&] {
    if (device.empty()) return;
    WriteText(FakeMachine::StateDir() + "/scsi_id/" + device, output);
    WriteText(FakeMachine::StateDir() + "/scsi_id/" + device + ".status", std::to_string(status) + "\n");
  };
  for (const std::string& line : ReadLines(file)) {
    if (line.compare(0, 2, "$ ") == 0) {
      flush();
      device.clear();
      output.clear();
      status = 0;
      const size_t at = line.find("--device=/dev/");
      if (line.find("scsi_id") != std::string::npos && at != std::string::npos)
        device = line.substr(at + 14, line.find(' ', at) - at - 14);
    } else if (line.compare(0, 6, "[exit ") == 0) {
      status = std::atoi(line.c_str() + 6);
    } else if (!device.empty()) {
      output += line + "\n";
    }
  }
  flush();
}

}  // namespace

void FakeMachine::Replay(const std::string& fixtureDir) {
  std::string dir = fixtureDir;
  if (dir.empty() || dir[0] != '/') dir = std::string(AS_SOURCE_ROOT) + "/" + dir;
  // A capture of the appliance VM: NAME.sysfs and NAME.tools (tests/vm/README.md).
  if (!PathExists(dir + ".sysfs")) throw std::runtime_error("no fixture at " + dir + ".sysfs");
  ReplaySysfs(dir + ".sysfs");
  if (PathExists(dir + ".tools")) ReplayTools(dir + ".tools");
  CompleteBlockDevices();
}

}  // namespace FakeMachineTesting
