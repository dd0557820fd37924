#pragma once
// Reading of the kernel's uevent datagrams ("ACTION@DEVPATH" then NUL-separated
// KEY=VALUE pairs), private to the library.
#include <cstddef>
#include <cstdint>

namespace LinuxEx {
namespace Uevent {

struct DiskChange {
  uint32_t major = 0;
  uint32_t minor = 0;
};

// True when `data` is a kernel uevent that adds, removes or changes a whole block
// disk (SUBSYSTEM=block, DEVTYPE=disk) and carries its MAJOR and MINOR numbers.
bool ParseDiskChange(const char* data, size_t size, DiskChange& change);

}  // namespace Uevent
}  // namespace LinuxEx
