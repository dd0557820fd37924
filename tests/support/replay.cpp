// Replaying sysfs slices captured from a real kernel into the fake /sys.
#include <cstdlib>
#include <stdexcept>

#include "fake_machine.h"
#include "files.h"

namespace FakeMachineTesting {
namespace {

// The index links and the /dev image of a block device or partition, where the
// capture did not bring them.
void CompleteDevice(const std::string& dir) {
  const std::string name = fs::path(dir).filename(), dev = FirstLine(dir + "/dev"), size = FirstLine(dir + "/size");
  if (dev.empty() || size.empty()) return;
  for (const std::string& link : {"/sys/dev/block/" + dev, "/sys/class/block/" + name})
    if (!fs::exists(fs::symlink_status(link))) RelativeSymlink(dir, link);
  if (!fs::exists("/dev/" + name)) SparseFile("/dev/" + name, std::stoull(size) * 512);
}

// A value of the capture's text form: "\\", "\n", "\t" and "\xHH" escapes; the capture
// dropped one final line feed, which the file gets back.
std::string Unescape(const std::string& value) {
  std::string out;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    const char c = value[++i];
    if (c == 'x' && i + 2 < value.size()) {
      out += static_cast<char>(std::stoi(value.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c == 'n' ? '\n' : c == 't' ? '\t' : c;
    }
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
    fs::create_directories(line[0] == 'd' ? path : fs::path(path).parent_path().string());
    if (line[0] == 'f' || line[0] == 'w') {
      WriteText(path, line[0] == 'f' ? Unescape(rest) : "");
    } else if (line[0] == 'l') {
      fs::remove(path);
      fs::create_symlink(rest, path);
    } else if (line[0] != 'd') {
      throw std::runtime_error("unknown fixture record: " + line);
    }
  }
}

// What scsi_id printed for each disk, for the fake scsi_id to print again.
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
