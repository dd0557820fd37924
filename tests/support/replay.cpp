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

// Files, directories and links, links kept as the kernel wrote them (relative).
void CopyTree(const std::string& from, const std::string& to) {
  struct stat st;
  if (::lstat(from.c_str(), &st) != 0) throw std::runtime_error("cannot read fixture " + from);
  if (S_ISLNK(st.st_mode)) {
    char target[PATH_MAX];
    ssize_t n = ::readlink(from.c_str(), target, sizeof target - 1);
    if (n <= 0) throw std::runtime_error("cannot read link " + from);
    target[n] = '\0';
    MakeDirs(Dirname(to));
    ::unlink(to.c_str());
    if (::symlink(target, to.c_str()) != 0) throw std::runtime_error("cannot link " + to);
  } else if (S_ISDIR(st.st_mode)) {
    MakeDirs(to);
    for (const std::string& entry : ListDir(from)) CopyTree(from + "/" + entry, to + "/" + entry);
  } else if (S_ISREG(st.st_mode)) {
    std::string text;
    if (!ReadText(from, text)) throw std::runtime_error("cannot read fixture " + from);
    WriteText(to, text);
  }
}

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

}  // namespace

void FakeMachine::Replay(const std::string& fixtureDir) {
  std::string dir = fixtureDir;
  if (dir.empty() || dir[0] != '/') dir = std::string(AS_SOURCE_ROOT) + "/" + dir;
  // A capture holds the slices below sys/, at the paths they have in /sys.
  std::string root = PathExists(dir + "/sys") ? dir + "/sys" : dir;
  if (!PathExists(root)) throw std::runtime_error("no fixture at " + dir);
  for (const std::string& entry : ListDir(root)) CopyTree(root + "/" + entry, "/sys/" + entry);
  CompleteBlockDevices();
}

}  // namespace FakeMachineTesting
