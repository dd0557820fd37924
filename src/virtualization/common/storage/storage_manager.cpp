#include "virtualization/common/storage/storage_manager.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/attributes.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/mount_table.h"
#include "virtualization/common/storage/impl/storage_internal.h"

namespace Virtualization {
namespace Appliance {

const String StoragesManager::PartitionsMountRoot = Common::Str(u"/mnt/local_storages");

namespace {

const String kTemporaryAttribute = Common::Str(u"Temporary");
// Smaller disks, and those whose size could not be read, never hold storages.
constexpr uint64_t kMinimumDiskSize = 10737418240;  // 10 GiB

// Read once per listing: a lookup per disk would read the whole registry each time.
class TemporaryDisks {
 public:
  TemporaryDisks() : ids_(SCSI::Detail::DisksWithAttribute(kTemporaryAttribute)) {}
  bool Has(const SCSI::Disk& disk) const { return ids_.count(disk.id.ToWideString()) != 0; }

 private:
  std::set<String> ids_;
};

// The disk left the kernel since it was enumerated.
bool Gone(const SCSI::Disk& disk) {
  struct stat st;
  return stat(("/sys/block/" + Common::ToUtf8(disk.name)).c_str(), &st) != 0 && errno == ENOENT;
}

// The devices of the listed disks but temporary and system disks, partitions loaded.
std::vector<std::shared_ptr<BlockDevice>> MakeDevices(const std::vector<SCSI::Disk>& disks) {
  std::vector<std::shared_ptr<BlockDevice>> devices;
  const TemporaryDisks temporary;
  const Detail::SharedMountTable mounts;  // one read for all the disks' partitions
  for (const SCSI::Disk& disk : disks) {
    if (temporary.Has(disk)) continue;
    auto device = std::make_shared<BlockDevice>(BlockDevice::Private{}, disk);
    try {
      device->ReloadPartitions();
    } catch (const Common::Error&) {
      if (!Gone(disk)) throw;
      continue;
    }
    // Gone meanwhile: what was read of it may be half.
    if (!Gone(disk) && !device->IsSystemBlockDevice()) devices.push_back(std::move(device));
  }
  return devices;
}

bool HasMountedPartition(BlockDevice& device) {
  const auto partitions = device.GetPartitions();
  return std::any_of(partitions.begin(), partitions.end(),
                     [](const std::shared_ptr<Partition>& p) { return !p->GetMountPoint().empty(); });
}

void Check(const Common::Error& error) {
  if (error) throw error;
}

}  // namespace

StoragesManager::StoragesManager() {
  if (Common::Error error = FileSystem::CreateDirectories(Common::ToUtf8(PartitionsMountRoot))) throw error;
}

std::vector<std::shared_ptr<BlockDevice>> StoragesManager::GetBlockDevices(bool rescan) const {
  try {
    auto subsystem = SCSI::CreateDiskSubsystem();
    const auto lock = subsystem->Lock();
    std::vector<SCSI::Disk> disks;
    Check(subsystem->Enumerate(disks));
    if (rescan) {
      // Disks not in use are forgotten so that the rescan finds them as new.
      for (const auto& device : MakeDevices(disks)) {
        if (HasMountedPartition(*device)) continue;
        const auto disk = std::find_if(disks.begin(), disks.end(),
                                       [&](const SCSI::Disk& d) { return d.name == device->GetName(); });
        if (disk != disks.end()) Check(subsystem->RemoveDisk(*disk));
      }
      Check(subsystem->Refresh());
      std::this_thread::sleep_for(std::chrono::seconds(1));  // the kernel brings the disks back
      std::vector<SCSI::Disk> fresh;
      Check(subsystem->Enumerate(fresh));
      disks.swap(fresh);
    }
    auto devices = MakeDevices(disks);
    devices.erase(std::remove_if(devices.begin(), devices.end(),
                                 [](const std::shared_ptr<BlockDevice>& d) { return d->GetSize() < kMinimumDiskSize; }),
                  devices.end());
    return devices;
  } catch (const Common::Error& error) {
    throw Common::Error(kErrorGetBlockDevices, GetTextFromMessageFile(Messages::FailedToGetDisksWithStorages),
                        AS_STORAGE_AT("GetBlockDevices", 577))
        .WithCause(error);
  }
}

String StoragesManager::CleanupDiskSubsystem() {
  String names;
  std::vector<SCSI::Disk> disks;
  Check(SCSI::CreateDiskSubsystem()->Enumerate(disks));
  const TemporaryDisks temporary;
  for (const SCSI::Disk& disk : disks)
    if (temporary.Has(disk)) names += disk.name + String(1, u'\n');
  SCSI::Detail::SyncDisksAttributes(disks);
  return names;
}

}  // namespace Appliance
}  // namespace Virtualization
