#include <algorithm>
#include <cerrno>
#include <string>

#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "core/trace/trace_tools.h"
#include "processor/format/format_message.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "virtualization/common/storage/impl/mount_table.h"
#include "virtualization/common/storage/impl/storage_internal.h"
#include "virtualization/common/storage/storage_manager.h"

namespace Virtualization {
namespace Appliance {

namespace {

constexpr uint32_t kTraceSizeUnknown = 0xBD08B0;
const String kSystemMountPoint = Common::Str(u"/");

}  // namespace

BlockDevice::BlockDevice(Private, const SCSI::Disk& disk)
    : diskId(disk.id), host(disk.host), target(disk.target), name(disk.name), deviceName(disk.name),
      size(GetDeviceSize(name)) {}

BlockDevice::~BlockDevice() = default;

uint64_t BlockDevice::GetDeviceSize(const String& name) {
  const std::string path = "/sys/block/" + Common::ToUtf8(name) + "/size";
  try {
    return Detail::ReadSysfsNumber(Detail::ReadSysfsFile(path)) << 9;
  } catch (const Common::Error& error) {
    // Such a disk is only left out of the listing.
    const Common::Error missing(kTraceSizeUnknown, Core::FormatMessage(Messages::FailedToObtainDeviceSize, name, path),
                                AS_STORAGE_AT("GetDeviceSize", 527));
    TraceTools::TraceError(Detail::kTraceStorage, missing.WithCause(error), Common::Str(u"GetDeviceSize"));
    return 0;
  }
}

void BlockDevice::ReloadPartitions() {
  std::lock_guard<std::mutex> reload(reloadMutex);
  const Detail::SharedMountTable mounts;  // one read for all the partitions
  const std::string narrowName = Common::ToUtf8(name);
  std::vector<std::shared_ptr<Partition>> found;
  Common::Error error;
  if (auto dir = FileSystem::Directory::Open("/sys/block/" + narrowName, &error)) {
    // A listing that fails midway keeps what it found.
    for (FileSystem::Directory::Entry entry; dir->Next(entry);)
      if (entry.name.compare(0, narrowName.size(), narrowName) == 0)
        found.push_back(std::make_shared<Partition>(shared_from_this(), Common::FromUtf8(entry.name)));
  } else if (FileSystem::ErrnoOf(error) != ENOENT) {
    throw error;  // not knowing the partitions could hide a storage
  }
  // Unidentified partitions all have the zero UUID: their names tell them apart.
  const auto same = [](const std::shared_ptr<Partition>& p, const std::shared_ptr<Partition>& q) {
    return p->GetUuid() == q->GetUuid() && (!p->GetUuid().IsNull() || p->GetName() == q->GetName());
  };
  const auto in = [&](const std::vector<std::shared_ptr<Partition>>& list, const std::shared_ptr<Partition>& p) {
    return std::any_of(list.begin(), list.end(), [&](const std::shared_ptr<Partition>& q) { return same(p, q); });
  };
  // Partitions still present keep their objects, and with them their mount state.
  std::vector<std::shared_ptr<Partition>> kept = OwnPartitions();
  kept.erase(std::remove_if(kept.begin(), kept.end(), [&](const auto& p) { return !in(found, p); }), kept.end());
  found.erase(std::remove_if(found.begin(), found.end(), [&](const auto& p) { return in(kept, p); }), found.end());
  kept.insert(kept.end(), found.begin(), found.end());
  std::lock_guard<std::mutex> guard(partitionsMutex);
  partitions.swap(kept);
}

std::vector<std::shared_ptr<Partition>> BlockDevice::OwnPartitions() {
  std::lock_guard<std::mutex> guard(partitionsMutex);
  return partitions;
}

std::vector<std::shared_ptr<Partition>> BlockDevice::GetPartitions() {
  std::vector<std::shared_ptr<Partition>> list = OwnPartitions();
  const std::shared_ptr<BlockDevice> self = shared_from_this();
  // The caller's handle owns the partition and its device; the device's own list owns
  // the partitions only, so letting go of both frees all.
  for (std::shared_ptr<Partition>& p : list) {
    Partition* const raw = p.get();
    p = std::shared_ptr<Partition>(raw, [self, owner = std::move(p)](Partition*) {});
  }
  return list;
}

bool BlockDevice::IsSystemBlockDevice() {
  const auto list = OwnPartitions();
  return std::any_of(list.begin(), list.end(),
                     [](const std::shared_ptr<Partition>& p) { return p->GetMountPoint() == kSystemMountPoint; });
}

bool BlockDevice::IsSupported() {
  if (OwnPartitions().empty() || !IsSystemBlockDevice()) return true;
  return HasSupportedPartition();
}

bool BlockDevice::HasSupportedPartition() {
  const auto list = OwnPartitions();
  return list.size() == 1 && list.front()->IsSupported();
}

}  // namespace Appliance
}  // namespace Virtualization
