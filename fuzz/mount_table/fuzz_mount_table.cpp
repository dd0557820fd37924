// Arbitrary text as the process's mount table. It is read whole or refused with the file
// layer's read error; what is read, written back with the kernel's escapes, reads the same.
#include <sys/sysmacros.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "core/common/error.h"
#include "core/include/file/file.h"
#include "virtualization/common/storage/impl/mount_table.h"
#include "../fuzz_setup.h"

namespace {

using Virtualization::Appliance::Detail::MountTable;

// As the kernel writes a path into mountinfo.
std::string Escaped(const std::string& field) {
  std::string out;
  for (const char c : field) {
    const char* code = c == ' ' ? "\\040" : c == '\t' ? "\\011" : c == '\n' ? "\\012" : c == '\\' ? "\\134" : nullptr;
    if (code) out += code; else out += c;
  }
  return out;
}

bool Same(const MountTable::Entry& a, const MountTable::Entry& b) {
  return a.devno == b.devno && a.root == b.root && a.target == b.target && a.source == b.source;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MountTable table;
  try {
    table = MountTable::Parse(std::string(reinterpret_cast<const char*>(data), size));
  } catch (const Common::Error& error) {
    if (error.GetCode() != FileSystem::kErrorRead) __builtin_trap();
    return 0;
  }
  std::string text;
  for (const MountTable::Entry& e : table.Entries()) {
    if (e.root.empty() || e.target.empty() || e.source.empty()) return 0;  // no field to write
    text += "1 0 " + std::to_string(major(e.devno)) + ":" + std::to_string(minor(e.devno)) + " " + Escaped(e.root) +
            " " + Escaped(e.target) + " rw - ext4 " + Escaped(e.source) + " rw\n";
  }
  const MountTable again = MountTable::Parse(text);
  if (again.Entries().size() != table.Entries().size()) __builtin_trap();
  for (size_t i = 0; i < table.Entries().size(); ++i) {
    const MountTable::Entry& e = table.Entries()[i];
    if (!Same(e, again.Entries()[i])) __builtin_trap();
    // Its own number finds a mount of it.
    const std::string found = table.MountPointOf({e.devno, e.source});
    if (found.empty()) __builtin_trap();
  }
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  return Fuzz::Setup(argc, argv, 4096,
                     {"1 0 8:1 / /" + std::string(size_t{1} << 20, 'a') + " rw - ext4 /dev/sda1 rw\n",
                      std::string(size_t{1} << 20, '\n'), std::string(size_t{1} << 20, '\\')},
                     LLVMFuzzerTestOneInput);
}
