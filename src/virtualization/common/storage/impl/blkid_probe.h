#pragma once
// libblkid's low-level probe over a descriptor, and the failures of it that carry the
// path and errno up to where they become the caller's error.
#include <blkid/blkid.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>

#include "core/include/file/descriptor.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

struct ProbeFailure {
  std::string path;
  int err;
};

[[noreturn]] inline void FailOn(const std::string& path) { throw ProbeFailure{path, errno != 0 ? errno : EIO}; }

// -1 with errno ENOENT when `path` does not exist and `optional`.
inline FileSystem::Descriptor OpenDevice(const std::string& path, int flags, bool optional = false) {
  FileSystem::Descriptor fd(::open(path.c_str(), flags | O_CLOEXEC));
  if (fd.get() < 0 && !(optional && errno == ENOENT)) FailOn(path);
  return fd;
}

class Probe {
 public:
  // The whole device when `size` is 0.
  Probe(const std::string& path, int fd, uint64_t offset = 0, uint64_t size = 0)
      : path_(path), probe_(blkid_new_probe()) {
    if (!probe_) throw std::bad_alloc();
    errno = 0;
    if (blkid_probe_set_device(probe_, fd, static_cast<blkid_loff_t>(offset), static_cast<blkid_loff_t>(size)) != 0)
      FailOn(path);
  }
  ~Probe() { blkid_free_probe(probe_); }
  Probe(const Probe&) = delete;
  Probe& operator=(const Probe&) = delete;
  operator blkid_probe() const { return probe_; }
  const std::string& path() const { return path_; }

  // The value `name` of the last result, "" when none.
  std::string Value(const char* name) const {
    const char* value = nullptr;
    size_t length = 0;
    if (blkid_probe_lookup_value(probe_, name, &value, &length) != 0 || !value) return {};
    return std::string(value, strnlen(value, length));
  }

 private:
  std::string path_;
  blkid_probe probe_;
};

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
