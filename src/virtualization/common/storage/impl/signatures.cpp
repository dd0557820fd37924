#include "virtualization/common/storage/impl/signatures.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>

#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "processor/format/format_message.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/blkid_probe.h"
#include "virtualization/common/storage/impl/storage_internal.h"

namespace Virtualization {
namespace Appliance {
namespace Detail {

namespace {

// A device's signatures are few; more means a wipe that does not stick.
constexpr int kMaxSignatures = 64;

void Add(std::vector<BlockDevice::Signature>& list, BlockDevice::Signature s) {
  const auto same = [&](const BlockDevice::Signature& o) { return o.partition == s.partition && o.type == s.type; };
  if (std::none_of(list.begin(), list.end(), same)) list.push_back(std::move(s));
}

// Every signature of one area, erased one by one when `wipe`. `disk`: the area is the
// whole disk, whose partition table is its own; in a partition, a table is data (a disk
// image written into it).
void Scan(const Probe& probe, const String& where, bool disk, bool wipe, DiskContents& out) {
  blkid_probe_enable_superblocks(probe, 1);
  // A damaged checksum may still guard data.
  blkid_probe_set_superblocks_flags(probe, BLKID_SUBLKS_TYPE | BLKID_SUBLKS_LABEL | BLKID_SUBLKS_MAGIC |
                                               BLKID_SUBLKS_BADCSUM);
  blkid_probe_enable_partitions(probe, 1);
  blkid_probe_set_partitions_flags(probe, BLKID_PARTS_MAGIC | (disk ? BLKID_PARTS_FORCE_GPT : 0));
  for (int found = 0; found < kMaxSignatures; ++found) {
    errno = 0;
    const int rc = blkid_do_probe(probe);
    if (rc == 1) return;
    if (rc != 0) FailOn(probe.path());
    std::string type = probe.Value("TYPE");
    if (!type.empty()) {
      Add(out.data, {where, type, probe.Value("LABEL")});
    } else {
      type = probe.Value("PTTYPE");
      Add(disk ? out.tables : out.data, {where, type.empty() ? "unknown" : type, {}});
    }
    errno = 0;
    if (wipe && blkid_do_wipe(probe, 0) != 0) FailOn(probe.path());
  }
  if (wipe) throw ProbeFailure{probe.path(), EIO};  // the signatures keep coming back
}

String PartitionName(const std::string& disk, int number) {
  const bool digit = !disk.empty() && std::isdigit(static_cast<unsigned char>(disk.back()));
  return Common::FromUtf8(disk + (digit ? "p" : "") + std::to_string(number));
}

// The partitions the kernel shows for `disk`, as sysfs lists them.
std::vector<std::string> KernelPartitions(const std::string& disk) {
  std::vector<std::string> names;
  Common::Error error;
  auto dir = FileSystem::Directory::Open("/sys/block/" + disk, &error);
  if (!dir) {
    if (FileSystem::ErrnoOf(error) == ENOENT) return names;
    throw error;
  }
  for (FileSystem::Directory::Entry entry; dir->Next(entry);)
    if (entry.name.size() > disk.size() && entry.name.compare(0, disk.size(), disk) == 0) names.push_back(entry.name);
  if (dir->Status() != FileSystem::kStatusEndOfDirectory) throw dir->TakeLastError();
  return names;
}

DiskContents Walk(const String& name, bool wipe) {
  const std::string disk = Common::ToUtf8(name), path = "/dev/" + disk;
  // Exclusive: the kernel refuses while a partition is mounted or otherwise held.
  const FileSystem::Descriptor device = OpenDevice(path, wipe ? O_RDWR | O_EXCL : O_RDONLY);
  DiskContents out;
  const std::vector<std::string> kernel = KernelPartitions(disk);
  for (const std::string& part : kernel) {
    const FileSystem::Descriptor node = OpenDevice("/dev/" + part, wipe ? O_RDWR : O_RDONLY, true);
    if (node.get() < 0) continue;  // no node: nothing to read, and the table's view covers it
    Scan(Probe("/dev/" + part, node.get()), Common::FromUtf8(part), false, wipe, out);
    if (wipe && ::fsync(node.get()) != 0) FailOn("/dev/" + part);
  }
  size_t inTable = 0;
  {
    const Probe table(path, device.get());
    errno = 0;
    if (blkid_partlist list = blkid_probe_get_partitions(table)) {
      inTable = static_cast<size_t>(std::max(0, blkid_partlist_numof_partitions(list)));
      for (size_t i = 0; i < inTable; ++i) {
        const blkid_partition p = blkid_partlist_get_partition(list, static_cast<int>(i));
        const uint64_t start = static_cast<uint64_t>(blkid_partition_get_start(p)) << 9;
        const uint64_t size = static_cast<uint64_t>(blkid_partition_get_size(p)) << 9;
        if (size == 0) continue;
        Scan(Probe(path, device.get(), start, size), PartitionName(disk, blkid_partition_get_partno(p)), false, wipe,
             out);
      }
    }
  }
  Scan(Probe(path, device.get()), name, true, wipe, out);
  out.partitions = std::max(inTable, kernel.size());
  if (wipe) {
    if (::fsync(device.get()) != 0) FailOn(path);
    // An image file (the tests' machines) has no partitions to re-read.
    if (::ioctl(device.get(), BLKRRPART) != 0 && errno != ENOTTY && errno != EINVAL) FailOn(path);
  }
  return out;
}

DiskContents Walk(const String& name, bool wipe, TextFromMessageFile message, const Common::ErrorLocation& where,
                  const Common::ErrorLocation& causeWhere) {
  Common::Error error(kErrorSignatures, Core::FormatMessage(message, "/dev/" + Common::ToUtf8(name)), where);
  try {
    return Walk(name, wipe);
  } catch (const ProbeFailure& failure) {
    throw error.WithCause(FileSystem::MakeError(wipe ? FileSystem::kErrorWrite : FileSystem::kErrorRead, failure.path,
                                                failure.err, causeWhere));
  } catch (const Common::Error& cause) {
    throw error.WithCause(cause);
  }
}

}  // namespace

DiskContents ProbeDisk(const String& name) {
  return Walk(name, false, Messages::FailedToReadSignatures, AS_STORAGE_AT("FindSignatures", 610),
              AS_STORAGE_AT("FindSignatures", 611));
}

void WipeDisk(const String& name) {
  Walk(name, true, Messages::FailedToEraseSignatures, AS_STORAGE_AT("WipeSignatures", 630),
       AS_STORAGE_AT("WipeSignatures", 631));
}

std::string Describe(const DiskContents& contents) {
  std::string text;
  for (const BlockDevice::Signature& s : contents.data) {
    text += (text.empty() ? "" : ", ") + Common::ToUtf8(s.partition) + ": " + s.type;
    if (!s.label.empty()) text += " '" + s.label + "'";
  }
  return text.empty() ? std::to_string(contents.partitions) + " partitions" : text;
}

Common::Error FlushDevice(const std::string& path) {
  const FileSystem::Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() >= 0 && ::fsync(fd.get()) == 0) return {};
  return FileSystem::MakeError(FileSystem::kErrorWrite, path, errno, AS_STORAGE_AT("CreateBackupPartition", 499));
}

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
