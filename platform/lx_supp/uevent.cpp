#include "uevent.h"

#include <cstring>
#include <string_view>

namespace LinuxEx {
namespace Uevent {
namespace {

bool ParseNumber(std::string_view text, uint32_t& value) {
  if (text.empty() || text.size() > 10) return false;
  uint64_t result = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    result = result * 10 + static_cast<uint64_t>(c - '0');
  }
  if (result > 0xFFFFFFFFu) return false;
  value = static_cast<uint32_t>(result);
  return true;
}

}  // namespace

bool ParseDiskChange(const char* data, size_t size, DiskChange& change) {
  std::string_view rest(data, size);
  // The header names the action before '@'; udev's own re-broadcasts start with
  // "libudev" and have none.
  size_t headerEnd = rest.find('\0');
  std::string_view header = rest.substr(0, headerEnd);
  if (header.find('@') == std::string_view::npos) return false;
  rest = headerEnd == std::string_view::npos ? std::string_view() : rest.substr(headerEnd + 1);

  std::string_view action, subsystem, devtype, major, minor;
  while (!rest.empty()) {
    size_t end = rest.find('\0');
    std::string_view field = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    size_t eq = field.find('=');
    if (eq == std::string_view::npos) continue;
    std::string_view key = field.substr(0, eq), value = field.substr(eq + 1);
    if (key == "ACTION") action = value;
    else if (key == "SUBSYSTEM") subsystem = value;
    else if (key == "DEVTYPE") devtype = value;
    else if (key == "MAJOR") major = value;
    else if (key == "MINOR") minor = value;
  }
  if (action != "add" && action != "remove" && action != "change") return false;
  if (subsystem != "block" || devtype != "disk") return false;
  DiskChange parsed;
  if (!ParseNumber(major, parsed.major) || !ParseNumber(minor, parsed.minor)) return false;
  change = parsed;
  return true;
}

}  // namespace Uevent
}  // namespace LinuxEx
