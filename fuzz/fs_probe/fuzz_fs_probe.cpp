// The bytes as the start of a partition, probed as a listing probes it: whatever libblkid
// makes of them, an ext file system's label and UUID are the superblock's own bytes, as
// e2label and blkid print them, and a label is printable ASCII of at most 16 bytes.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/common/guid.h"
#include "core/include/file/descriptor.h"
#include "virtualization/common/storage/impl/blkid_probe.h"
#include "virtualization/common/storage/impl/file_system_probe.h"
#include "../fuzz_setup.h"

namespace {

namespace Storage = Virtualization::Appliance;

constexpr size_t kUuid = 1024 + 0x68, kLabel = 1024 + 0x78;

GUID SuperblockUuid(const uint8_t* sb) {
  char text[37];
  std::snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", sb[0], sb[1],
                sb[2], sb[3], sb[4], sb[5], sb[6], sb[7], sb[8], sb[9], sb[10], sb[11], sb[12], sb[13], sb[14], sb[15]);
  GUID uuid;
  GUID::Parse(std::string_view(text), uuid);
  return uuid;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const FileSystem::Descriptor fd(memfd_create("partition", MFD_CLOEXEC));
  if (fd.get() < 0 || (size > 0 && write(fd.get(), data, size) != static_cast<ssize_t>(size))) __builtin_trap();
  Storage::Detail::FileSystemFacts facts;
  try {
    facts = Storage::Detail::ProbeFileSystem(fd.get(), "/dev/sdz1");
  } catch (const Storage::Detail::ProbeFailure&) {
    __builtin_trap();  // bytes are never a reason to give up on a partition
  }
  if (facts.label.size() > 16) __builtin_trap();
  for (const char c : facts.label)
    if (c < 0x20 || c > 0x7E) __builtin_trap();
  if (facts.type.rfind("ext", 0) == 0 && size >= kLabel + 16) {
    const std::string raw(reinterpret_cast<const char*>(data + kLabel), 16);
    if (facts.label != Storage::Detail::PrintableLabel(raw) || facts.uuid != SuperblockUuid(data + kUuid))
      __builtin_trap();
  }
  if (facts.type.empty() && !facts.uuid.IsNull()) __builtin_trap();
  return 0;
}

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  return Fuzz::Setup(argc, argv, 8192, {}, LLVMFuzzerTestOneInput);
}
