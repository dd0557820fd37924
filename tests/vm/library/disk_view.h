#pragma once
// What an appliance VM disk holds, as blkid reads it from the devices and as the library
// reports it, in one form: "gpt 1:ext4:ZLM" (the disk's partition table, then each
// partition that carries a signature, by number: type and label).
#include <cstdio>
#include <string>

#include "core/common/unicode.h"
#include "../../support/shell.h"
#include "virtualization/common/storage/storage_manager.h"

namespace VmTest {

using TestSupport::Output;

inline std::string Words(std::string lines) {
  while (!lines.empty() && lines.back() == '\n') lines.pop_back();
  for (char& c : lines)
    if (c == '\n') c = ' ';
  return lines;
}

// blkid -p on the disk `name` and on each partition the kernel shows.
inline std::string Blkid(const std::string& name) {
  return Words(Output("cd /dev && blkid -p -o value -s PTTYPE " + name + "; for p in " + name +
                      "?*; do t=$(blkid -p -o value -s TYPE \"$p\" 2>/dev/null); [ -n \"$t\" ] &&"
                      " echo \"${p#" + name + "}:$t:$(blkid -p -o value -s LABEL \"$p\")\"; done"));
}

inline std::string Signatures(Virtualization::Appliance::BlockDevice& disk) {
  const std::string name = Common::ToUtf8(disk.GetName());
  std::string lines;
  for (const auto& s : disk.FindSignatures()) {
    const std::string part = Common::ToUtf8(s.partition);
    lines += part == name ? s.type + "\n" : part.substr(name.size()) + ":" + s.type + ":" + s.label + "\n";
  }
  return Words(lines);
}

}  // namespace VmTest
