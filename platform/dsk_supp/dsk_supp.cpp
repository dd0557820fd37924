#include "dsk_supp.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "core/common/decimal.h"

namespace dsk_supp {

class Internals {};

std::atomic<Internals*> Instance{nullptr};

namespace {

constexpr const char* kSysBlock = "/sys/block/";
constexpr const char* kSysDevBlock = "/sys/dev/block/";

// Small sysfs attribute: at most 63 bytes are kept, which covers every file read here.
bool ReadAttribute(const std::string& path, std::string& text) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buffer[64];
  const ssize_t got = TEMP_FAILURE_RETRY(::read(fd, buffer, sizeof buffer - 1));
  ::close(fd);
  if (got < 0) return false;
  text.assign(buffer, static_cast<size_t>(got));
  return true;
}

// "MAJ:MIN" with an optional line feed, as the kernel writes `dev` files.
bool ParseDevNumbers(std::string_view text, unsigned int& major, unsigned int& minor) {
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  unsigned int numbers[2];
  if (!Common::ParseDecimals(text, numbers)) return false;
  major = numbers[0], minor = numbers[1];
  return true;
}

struct ScsiAddress {
  unsigned int parts[4];
};

// "H:C:T:L", nothing else.
bool ParseScsiAddress(std::string_view text, ScsiAddress& address) { return Common::ParseDecimals(text, address.parts); }

std::string BaseName(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool ReadLink(const std::string& path, std::string& target) {
  char buffer[4096];
  ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof buffer) return false;
  target.assign(buffer, static_cast<size_t>(n));
  return true;
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

std::string DevDirectory(unsigned int major, unsigned int minor) {
  return kSysDevBlock + std::to_string(major) + ":" + std::to_string(minor);
}

// A whole disk, not a partition: partitions carry a `partition` attribute.
bool IsDisk(const std::string& devDir) {
  return Exists(devDir + "/dev") && !Exists(devDir + "/partition");
}

// The first entry of device/scsi_disk that reads as H:C:T:L, else the name of the
// `device` link itself (which is the SCSI device's own directory).
bool FindScsiAddress(const std::string& devDir, ScsiAddress& address) {
  if (DIR* dir = ::opendir((devDir + "/device/scsi_disk").c_str())) {
    bool found = false;
    while (dirent* entry = ::readdir(dir)) {
      if (ParseScsiAddress(entry->d_name, address)) {
        found = true;
        break;
      }
    }
    ::closedir(dir);
    if (found) return true;
  }
  std::string target;
  return ReadLink(devDir + "/device", target) && ParseScsiAddress(BaseName(target), address);
}

index_t MakeIndex(unsigned int major, unsigned int minor) {
  return (static_cast<index_t>(major) << 32) | minor;
}

}  // namespace

bool InitInternals(ecodes& code) noexcept {
  if (::access(kSysBlock, R_OK | X_OK) != 0 || ::access(kSysDevBlock, R_OK | X_OK) != 0) {
    code = ec_no_sysfs;
    return false;
  }
  static Internals internals;
  Instance.store(&internals);
  code = ec_ok;
  return true;
}

bool IndexbyDev(const UnixVolID& volume, mtypes type, index_t& index) noexcept try {
  if (type != mt_disk || !IsDisk(DevDirectory(volume.Major, volume.Minor))) return false;
  index = MakeIndex(volume.Major, volume.Minor);
  return true;
} catch (...) {
  return false;
}

bool IndexbyDevName(const UnixVolID& volume, mtypes type, index_t& index) noexcept try {
  if (type != mt_disk) return false;
  std::string name = BaseName(volume.DevNode);
  if (name.empty() || name == "." || name == "..") return false;
  std::string text;
  unsigned int major, minor;
  if (!ReadAttribute(kSysBlock + name + "/dev", text) || !ParseDevNumbers(text, major, minor)) {
    return false;
  }
  index = MakeIndex(major, minor);
  return true;
} catch (...) {
  return false;
}

bool VolIDbyIndex(index_t index, mtypes type, UnixVolID& volume) noexcept try {
  if (type != mt_disk) return false;
  UnixVolID found;
  found.Major = static_cast<unsigned int>(index >> 32);
  found.Minor = static_cast<unsigned int>(index & 0xFFFFFFFFu);
  std::string devDir = DevDirectory(found.Major, found.Minor);
  std::string target;
  if (!IsDisk(devDir) || !ReadLink(devDir, target)) return false;
  std::string name = BaseName(target);
  if (name.empty()) return false;
  found.DevNode = "/dev/" + name;
  ScsiAddress address;
  if (FindScsiAddress(devDir, address)) {
    found.ScsiHost = address.parts[0];
    found.ScsiChannel = address.parts[1];
    found.ScsiTarget = address.parts[2];
    found.ScsiLun = address.parts[3];
  }
  volume = std::move(found);
  return true;
} catch (...) {
  return false;
}

}  // namespace dsk_supp
