#pragma once
// The storages of the appliance as a flat list: one record per mounted storage
// partition of a usable disk, with its mount point and label.
//
//   auto config = MigrationManagement::StorageConfig::GetCurrentStorageConfig();
//   std::vector<MigrationManagement::StorageConfig::Storage> storages;
//   if (Common::Error e = config->GetStoragesList(storages)) { ... }
//
// The current configuration is made on first use and kept for the process until
// ResetCurrentStorageConfig (which mounting and unmounting call); a client's copy
// stays valid after a reset. Any thread may call any of these.
#include <memory>
#include <vector>

#include "core/common/error.h"
#include "core/common/export.h"
#include "core/common/ustring.h"

namespace Virtualization {
namespace Appliance {
class StoragesManager;
}
}  // namespace Virtualization

namespace MigrationManagement {

class AS_EXPORT StorageConfig {
 public:
  struct Private {};
  struct Storage {
    String MountPoint;  // directory name below the mount root
    String Label;       // without the "ZLM" prefix
  };

  // Throws what creating the mount root throws.
  static std::shared_ptr<StorageConfig> GetCurrentStorageConfig();
  static void ResetCurrentStorageConfig();
  // "/mnt/local_storages"; no configuration needed.
  static const String& GetStoragesRoot();

  explicit StorageConfig(Private);

  // Replaces `storages` with the mounted storages. On failure returns the error
  // and leaves `storages` as it was.
  Common::Error GetStoragesList(std::vector<Storage>& storages) const;

 private:
  std::shared_ptr<Virtualization::Appliance::StoragesManager> manager_;
};

}  // namespace MigrationManagement
