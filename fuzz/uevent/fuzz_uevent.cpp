// Bytes as one kernel uevent datagram: "ACTION@DEVPATH", then KEY=VALUE entries, each
// ending in a NUL. The harness takes it apart as libudev's monitor does with what the
// kernel sends (header check, entries cut at a line feed, the block/disk filter) and
// lets libudev build the device from the entries; the listener then makes its record.
#include <libudev.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/decimal.h"
#include "lx_supp_internal.h"
#include "../fuzz_setup.h"

extern char** environ;

namespace {

// The monitor's receive buffer.
constexpr size_t kDatagram = 8192;

bool Is(const char* text, const char* expected) { return text != nullptr && std::strcmp(text, expected) == 0; }

// libudev reads a device's entries from the environment when asked to, and cuts each
// at its "=" in place.
udev_device* DeviceFromEntries(udev* context, std::vector<std::string>& entries) {
  std::vector<char*> list;
  for (std::string& entry : entries) list.push_back(&entry[0]);
  list.push_back(nullptr);
  char** saved = environ;
  environ = list.data();
  udev_device* device = udev_device_new_from_environment(context);
  environ = saved;
  return device;
}

// The number of the last entry `key`, written as the kernel writes it: libudev also
// takes " 8", "+8", "010" (octal) and "0x8".
bool Number(const std::vector<std::string>& entries, std::string_view key, unsigned& value) {
  std::string_view text;
  for (const std::string& entry : entries)
    if (entry.compare(0, key.size(), key) == 0) text = std::string_view(entry).substr(key.size());
  return (text.size() == 1 || text.substr(0, 1) != "0") && Common::ParseDecimal(text, value);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static udev* const context = udev_new();
  if (context == nullptr) __builtin_trap();
  if (size > kDatagram) return 0;
  const std::string_view datagram(reinterpret_cast<const char*>(data), size);
  const size_t header = datagram.find('\0');
  if (header == std::string_view::npos || header + 1 < sizeof "a@/d" || header + 1 >= size ||
      datagram.substr(0, header).find("@/") == std::string_view::npos)
    return 0;
  std::vector<std::string> entries;
  for (size_t at = header + 1; at < size;) {
    const size_t end = datagram.find('\0', at);
    if (end == std::string_view::npos) return 0;
    const std::string_view entry = datagram.substr(at, end - at);
    entries.emplace_back(entry.substr(0, entry.find_first_of("\n\r")));
    at = end + 1;
  }

  unsigned major = 0, minor = 0;
  const bool numbered = Number(entries, "MAJOR=", major) && major > 0 && Number(entries, "MINOR=", minor);
  udev_device* device = DeviceFromEntries(context, entries);
  if (device == nullptr) return 0;
  LinuxEx::snap_message record;
  record.kind = 7;
  if (Is(udev_device_get_subsystem(device), "block") && Is(udev_device_get_devtype(device), "disk") &&
      LinuxEx::Detail::DiskChangeRecord(device, record)) {
    const char* action = udev_device_get_action(device);
    if (record.kind != LinuxEx::snap_disk_updated ||
        !(Is(action, "add") || Is(action, "remove") || Is(action, "change")))
      __builtin_trap();
    // The record's numbers are those the entries gave (the last of each). They are
    // not asked of libudev: its property lookup crashes on an empty TAGS entry.
    if (numbered && (record.major != major || record.minor != minor)) __builtin_trap();
  }
  udev_device_unref(device);
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  return Fuzz::Setup(argc, argv, kDatagram, {}, LLVMFuzzerTestOneInput);
}
