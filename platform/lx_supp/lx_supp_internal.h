#pragma once
// What the listener takes from a uevent that libudev has parsed. Header-only, so that
// a fuzzer can offer it devices built from any uevent text.
#include <libudev.h>
#include <sys/sysmacros.h>

#include <cstring>

#include "lx_supp.h"

namespace LinuxEx {
namespace Detail {

// The record of a disk add, remove or change; false for any other action or none.
inline bool DiskChangeRecord(udev_device* device, snap_message& record) {
  const char* action = udev_device_get_action(device);
  if (!action || (std::strcmp(action, "add") != 0 && std::strcmp(action, "remove") != 0 &&
                  std::strcmp(action, "change") != 0))
    return false;
  const dev_t number = udev_device_get_devnum(device);
  record = snap_message{};
  record.kind = snap_disk_updated;
  record.major = major(number);
  record.minor = minor(number);
  return true;
}

}  // namespace Detail
}  // namespace LinuxEx
