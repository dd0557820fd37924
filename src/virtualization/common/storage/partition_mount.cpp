#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "core/common/assert.h"
#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "core/trace/trace_tools.h"
#include "processor/format/format_message.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/mount_table.h"
#include "virtualization/common/storage/impl/storage_internal.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

#define AS_STORAGE_ASSERT(expr, line) \
  AS_ASSERT_AT(expr, "virtualization/common/storage/storage_manager", line)

namespace Virtualization {
namespace Appliance {

namespace {

// The file layer failing again and again is given up on after this many attempts.
constexpr int kDirectoryAttempts = 3;

// The mount directory `name` below `root`, created when missing.
std::unique_ptr<FileSystem::Directory> OpenMountDirectory(const std::string& root, const std::string& name,
                                                          Common::Error& error) {
  for (int attempt = 0; attempt < kDirectoryAttempts; ++attempt) {
    auto rootDir = FileSystem::Directory::Open(root, &error);
    if (!rootDir) return nullptr;
    if (!rootDir->Lookup(name) && !rootDir->CreateDir(name)) {
      error = rootDir->TakeLastError();  // perhaps made meanwhile: look again
      continue;
    }
    if (auto dir = rootDir->OpenChild(name, &error)) return dir;
  }
  return nullptr;
}

}  // namespace

void Partition::SetMountRoot(const String& root) {
  const std::string name = Common::ToUtf8(Name);
  const Detail::SharedMountTable mounts;
  const String current = Common::FromUtf8(mounts->MountPointOf(
      Detail::BlockDeviceOf("/sys/block/" + Common::ToUtf8(DeviceName) + "/" + name, "/dev/" + name)));
  if (root.empty()) {
    MountPoint = current;
    MountRoot.clear();
    return;
  }
  if (root == MountRoot) return;
  if (current.empty()) {
    MountPoint.clear();
    MountRoot = root;
    return;
  }
  // Mounted elsewhere: the absolute mount point, and the partition is no storage.
  if (current.compare(0, root.size(), root) != 0) {
    MountPoint = current;
    return;
  }
  const size_t rest = current.find_first_not_of(u'/', root.size());
  if (rest != String::npos) MountPoint = current.substr(rest);
  MountRoot = root;
}

Common::Error Partition::Mount(const String& name) {
  TraceTools::EventPair<Common::EventLevelDebug> pair(Detail::kTraceStorage, Common::Str(u"+Mount"),
                                                       Common::Str(u"-Mount"));
  AS_STORAGE_ASSERT(MountPoint.empty(), 255);
  const auto failure = [&](const Common::Error& cause) {
    return Common::Error(kErrorMount, Core::FormatMessage(Messages::FailedToMountStorage, Uuid.ToWideString(), name),
                         AS_STORAGE_AT("Mount", 277))
        .WithCause(cause);
  };
  if (!Detail::IsSingleComponent(name))
    return failure(Common::Error(kErrorInvalidStorageName, Core::FormatMessage(Messages::InvalidStorageName, name),
                                 AS_STORAGE_AT("Mount", 266)));
  Common::Error error;
  const auto dir = OpenMountDirectory(Common::ToUtf8(MountRoot), Common::ToUtf8(name), error);
  if (!dir) return failure(error);
  if (Common::Error mounted = DoMount(Common::FromUtf8(dir->FullPath()))) return mounted;
  MountPoint = name;
  return {};
}

Common::Error Partition::DoMount(const String& path) {
  TraceTools::Trace(Common::EventLevelNotice, Detail::kTraceStorage, u"Mounting local storage '{0}' to '{1}'.", Name,
                    path);
  if (Common::Error failed = Detail::RunTool({"mount", "-t", "auto", Detail::DevicePath(Name), Common::ToUtf8(path)},
                                             AS_STORAGE_AT("DoMount", 371)))
    return Common::Error(kErrorMount, Core::FormatMessage(Messages::FailedToMountStorage, Name, path),
                         AS_STORAGE_AT("DoMount", 370))
        .WithCause(failed);
  MigrationManagement::StorageConfig::ResetCurrentStorageConfig();
  const String label = GetLabelImpl();
  if (Detail::HasLabelPrefix(label)) return {};
  if (!label.empty())
    TraceTools::DbgTraceError(Detail::kTraceStorage, GetTextFromMessageFile(Messages::MountedStorageUnexpectedLabel),
                              Uuid.ToWideString(), label);
  else
    TraceTools::DbgTraceInfo(Detail::kTraceStorage, GetTextFromMessageFile(Messages::MountedStorageNoLabel),
                             Uuid.ToWideString());
  return SetLabel(String());
}

Common::Error Partition::Unmount() {
  AS_STORAGE_ASSERT(!MountPoint.empty(), 284);
  if (Common::Error error = DoUnmount()) return error;
  const String dir = std::move(MountPoint);
  MountPoint.clear();
  // Only a directory of our own below the root goes; an absolute mount point
  // elsewhere is not ours to remove.
  if (!Detail::IsSingleComponent(dir)) return {};
  const std::string root = Common::ToUtf8(MountRoot), narrowDir = Common::ToUtf8(dir);
  Common::Error error;
  for (int attempt = 0; attempt < kDirectoryAttempts; ++attempt) {
    if (attempt > 0) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    auto rootDir = FileSystem::Directory::Open(root, &error);
    if (!rootDir) break;
    MigrationManagement::StorageConfig::ResetCurrentStorageConfig();
    if (rootDir->RemoveDir(narrowDir)) return {};
    error = rootDir->TakeLastError();
  }
  return Common::Error(kErrorUnmount, Core::FormatMessage(Messages::FailedToUnmountStorage, Uuid.ToWideString()),
                       AS_STORAGE_AT("Unmount", 299))
      .WithCause(error);
}

Common::Error Partition::DoUnmount() {
  TraceTools::Trace(Common::EventLevelNotice, Detail::kTraceLabels, u"Unmounting local storage '{0}'.", Name);
  const Common::Error failed = Detail::RunTool({"umount", Detail::DevicePath(Name)}, AS_STORAGE_AT("DoUnmount", 359));
  if (!failed) return {};
  return Common::Error(kErrorUnmount, Core::FormatMessage(Messages::FailedToUnmountStorage, Name),
                       AS_STORAGE_AT("DoUnmount", 358))
      .WithCause(failed);
}

}  // namespace Appliance
}  // namespace Virtualization
