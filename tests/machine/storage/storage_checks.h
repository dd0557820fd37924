#pragma once
// Disks and outcomes as short text, for the storage and faults tests on the faked machine.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cerrno>

#include "core/common/unicode.h"
#include "descriptors.h"
#include "error_text.h"
#include "fake_machine.h"
#include "lock_probe.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

namespace StorageChecks {

using namespace FakeMachineTesting;
using Common::Str;
using Common::ToUtf8;
using Virtualization::Appliance::StoragesManager;
using Devices = std::vector<std::shared_ptr<Virtualization::Appliance::BlockDevice>>;

inline const std::string kState = FakeMachine::StateDir(), kRoot = "/mnt/local_storages";

// A disk on the virtio host 2 (declared again with each: harmless), by default its target from the name.
inline DiskSpec& AddDisk(FakeMachine& m, const std::string& name, uint64_t bytes = 12_GiB, int target = -1) {
  if (target < 0) target = name.back() - 'a';
  m.Host(2, "virtio_scsi\n");
  return m.Disk(name).At(2, 0, target, 0).Size(bytes).Serial(std::string(31, 'a') + std::to_string(target));
}

inline std::string Codes(const Common::Error& e) { return TestSupport::ChainCodes(e); }
inline std::string Codes(const Devices& devices) {  // "sdb;sdc;"
  std::string names;
  for (const auto& device : devices) names += ToUtf8(device->GetName()) + ";";
  return names;
}
template <class Call>
std::string Outcome(Call call) try { return Codes(call()); } catch (const Common::Error& e) { return Codes(e); }

// "ok[mount point=label;...]" or the error, from `config` or the current one.
inline std::string List(std::shared_ptr<MigrationManagement::StorageConfig> config = nullptr) {
  std::vector<MigrationManagement::StorageConfig::Storage> list(2);  // filled in, not appended to
  if (!config) config = MigrationManagement::StorageConfig::GetCurrentStorageConfig();
  const Common::Error e = config->GetStoragesList(list);
  std::string text;
  if (e) { EXPECT_EQ(2u, list.size()) << "a failed listing changed the list"; }
  for (const auto& s : list) text += ToUtf8(s.MountPoint) + "=" + ToUtf8(s.Label) + ";";
  return e ? Codes(e) : "ok[" + text + "]";
}

inline void ExpectNothingLeft(int fds) {
  EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child is left";
  EXPECT_EQ(fds, TestSupport::CountOwnFds());
  EXPECT_FALSE(TestSupport::FileLockHeld("SCSISubsystemLocker"));
}

}  // namespace StorageChecks
