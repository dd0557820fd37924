#include "virtualization/common/storage/storage_config.h"

#include <algorithm>
#include <mutex>

#include "virtualization/common/storage/storage_manager.h"

namespace MigrationManagement {

namespace {

// The current configuration; clients keep their own copies.
std::mutex& CacheMutex() {
  static std::mutex mutex;
  return mutex;
}
std::shared_ptr<StorageConfig>& Cache() {
  static std::shared_ptr<StorageConfig> current;
  return current;
}

}  // namespace

StorageConfig::StorageConfig(Private) : manager_(std::make_shared<Virtualization::Appliance::StoragesManager>()) {}

std::shared_ptr<StorageConfig> StorageConfig::GetCurrentStorageConfig() {
  std::lock_guard<std::mutex> lock(CacheMutex());
  if (!Cache()) Cache() = std::make_shared<StorageConfig>(Private{});
  return Cache();
}

void StorageConfig::ResetCurrentStorageConfig() {
  std::shared_ptr<StorageConfig> old;
  {
    std::lock_guard<std::mutex> lock(CacheMutex());
    old.swap(Cache());
  }
  // The last copy may go here: outside the lock.
}

const String& StorageConfig::GetStoragesRoot() { return Virtualization::Appliance::StoragesManager::PartitionsMountRoot; }

Common::Error StorageConfig::GetStoragesList(std::vector<Storage>& storages) const {
  try {
    std::vector<Storage> found;
    for (const auto& device : manager_->GetBlockDevices(false)) {
      if (!device->IsSupported()) continue;
      // Every partition's label is read, mounted or not.
      for (const auto& partition : device->GetPartitions()) {
        Storage storage{partition->GetMountPoint(), partition->GetLabel()};
        if (!storage.MountPoint.empty()) found.push_back(std::move(storage));
      }
    }
    storages = std::move(found);
    return {};
  } catch (const Common::Error& error) {
    return error;
  }
}

}  // namespace MigrationManagement
