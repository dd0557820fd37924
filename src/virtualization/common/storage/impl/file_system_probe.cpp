#include "virtualization/common/storage/impl/file_system_probe.h"

#include <cerrno>

#include "virtualization/common/storage/impl/blkid_probe.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

namespace {

// The file systems whose label e2label reads.
const char* kExtTypes[] = {"ext2", "ext3", "ext4", "ext4dev", nullptr};

bool IsExt(const std::string& type) {
  for (const char** name = kExtTypes; *name; ++name)
    if (type == *name) return true;
  return false;
}

// Failures that say nothing of the device: then nothing can be told of it.
bool CannotKnow(int err) { return err == EMFILE || err == ENFILE || err == ENOMEM || err == EACCES || err == EPERM; }

// 0 one file system, 1 none, -2 more than one (blkid -p exits 8), -1 unreadable.
int SafeProbe(const Probe& probe, bool extOnly) {
  blkid_probe_enable_superblocks(probe, 1);
  blkid_probe_set_superblocks_flags(probe, BLKID_SUBLKS_TYPE | BLKID_SUBLKS_UUID | BLKID_SUBLKS_LABELRAW);
  blkid_probe_enable_partitions(probe, 0);
  if (extOnly) blkid_probe_filter_superblocks_type(probe, BLKID_FLTR_ONLYIN, const_cast<char**>(kExtTypes));
  errno = 0;
  const int rc = blkid_do_safeprobe(probe);
  if (rc == -1 && CannotKnow(errno)) FailOn(probe.path());
  return rc;
}

}  // namespace

FileSystemFacts ProbeFileSystem(int fd, const std::string& path) {
  FileSystemFacts facts;
  const Probe probe(path, fd);
  const int rc = SafeProbe(probe, false);
  if (rc == 0) {
    facts.type = probe.Value("TYPE");
    GUID::Parse(probe.Value("UUID"), facts.uuid);
    if (IsExt(facts.type)) facts.label = PrintableLabel(probe.Value("LABEL_RAW"));
  } else if (rc == -2) {
    // e2label reads the ext superblock whatever else the device holds.
    const Probe ext(path, fd);
    if (SafeProbe(ext, true) == 0) facts.label = PrintableLabel(ext.Value("LABEL_RAW"));
  }
  return facts;
}

FileSystemFacts ProbeFileSystem(const std::string& path) {
  const FileSystem::Descriptor fd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() >= 0) return ProbeFileSystem(fd.get(), path);
  if (CannotKnow(errno)) FailOn(path);
  return {};  // gone, or no medium to read
}

std::string PrintableLabel(std::string_view raw) {
  size_t end = 0;
  while (end < raw.size() && raw[end] >= 0x20 && raw[end] <= 0x7E) ++end;
  return std::string(raw.substr(0, end));
}

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
