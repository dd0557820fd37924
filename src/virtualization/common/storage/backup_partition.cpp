#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "core/trace/trace_tools.h"
#include "processor/format/format_message.h"
#include "processor/format/format_string.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/mount_table.h"
#include "virtualization/common/storage/impl/signatures.h"
#include "virtualization/common/storage/impl/storage_internal.h"
#include "virtualization/common/storage/storage_manager.h"

namespace Virtualization {
namespace Appliance {

namespace {

#define AS_PREPARE_AT(line) AS_STORAGE_AT("CreateBackupPartition", line)

[[noreturn]] void Fail(TextFromMessageFile message, const std::string& devicePath, const Common::ErrorLocation& where,
                       const Common::Error& cause = {}) {
  Common::Error error(kErrorInitializeStorage, Core::FormatMessage(message, devicePath), where);
  if (cause) error.SetCause(cause);
  throw error;
}

void Run(const std::vector<std::string>& argv, TextFromMessageFile message, const std::string& devicePath,
         const Common::ErrorLocation& where, const std::string& input = std::string(),
         const std::function<void(const std::string&)>& onOutput = nullptr) {
  if (Common::Error failed = Detail::RunTool(argv, where, input, onOutput)) Fail(message, devicePath, where, failed);
}

// A tool's output cut into lines as it comes, each as a terminal would show it: a
// counter that the tool rewrites in place with backspaces ends at its last state.
class Lines {
 public:
  explicit Lines(std::function<void(const std::string&)> line) : line_(std::move(line)) {}
  void operator()(const std::string& chunk) {
    for (const char c : chunk) {
      if (c == '\n') {
        text_.erase(text_.find_last_not_of(' ') + 1);  // what wiped the counter
        if (!text_.empty()) line_(text_);
        text_.clear();
      } else if (c == '\b') {
        if (!text_.empty()) text_.pop_back();
      } else if (c != '\r') {
        text_ += c;
      }
    }
  }

 private:
  std::function<void(const std::string&)> line_;
  std::string text_;
};

// `probe()`, its error wrapped as a failed preparation.
template <class Probe>
auto Guarded(const std::string& devicePath, const Common::ErrorLocation& where, Probe probe) {
  try {
    return probe();
  } catch (const Common::Error& error) {
    Fail(Messages::FailedToInitializeStorage, devicePath, where, error);
  }
}

// Whether the disk or any of its partitions is mounted anywhere. Not knowing is no
// reason to write over a disk: an unreadable mount table or sysfs fails.
bool HasMountedStorage(const String& name, const std::string& devicePath) {
  return Guarded(devicePath, AS_PREPARE_AT(452), [&] {
    const Detail::MountTable mounts = Detail::MountTable::Read();
    const std::string disk = Common::ToUtf8(name), dir = "/sys/block/" + disk;
    std::vector<Detail::BlockDeviceId> devices{Detail::BlockDeviceOf(dir, devicePath)};
    Common::Error error;
    if (auto entries = FileSystem::Directory::Open(dir, &error)) {
      for (FileSystem::Directory::Entry entry; entries->Next(entry);)
        if (entry.name.compare(0, disk.size(), disk) == 0)
          devices.push_back(Detail::BlockDeviceOf(dir + "/" + entry.name, "/dev/" + entry.name));
      if (entries->Status() != FileSystem::kStatusEndOfDirectory) throw entries->TakeLastError();
    } else if (FileSystem::ErrnoOf(error) != ENOENT) {
      throw error;
    }
    return std::any_of(devices.begin(), devices.end(),
                       [&](const Detail::BlockDeviceId& device) { return !mounts.MountPointOf(device).empty(); });
  });
}

}  // namespace

Common::Error BlockDevice::CreateBackupPartition() { return CreateBackupPartition(nullptr); }

Common::Error BlockDevice::CreateBackupPartition(const std::function<void(const std::string&)>& progress) {
  const std::string devicePath = "/dev/" + Common::ToUtf8(name);
  const String text = Core::FormatMessage(Messages::InitializeDiskAsLocalStorage, devicePath);
  TraceTools::EventPair<Common::EventLevelDebug> pair(Detail::kTraceStorage,
                                                       Common::Str(u"+CreateBackupPartition: ") + text,
                                                       Common::Str(u"-CreateBackupPartition"));
  const auto step = [&](const char16_t* pattern, const std::string& path) {
    TraceTools::DbgTraceInfo(Detail::kTraceStorage, pattern, path);
    if (progress) progress(Common::ToUtf8(Core::FormatString(pattern, path)));
  };

  step(u"Check for mounted storages on {0}", devicePath);
  if (HasMountedStorage(name, devicePath))
    throw Common::Error(kErrorStorageInUse, Core::FormatMessage(Messages::StorageIsInUse, devicePath),
                        AS_PREPARE_AT(440));
  const Detail::DiskContents contents = Guarded(devicePath, AS_PREPARE_AT(446), [&] { return Detail::ProbeDisk(name); });
  // Data may be there; what an interrupted preparation leaves (a table with at most
  // one empty partition) is prepared again.
  if (!contents.data.empty() || contents.partitions > 1)
    Fail(Messages::FailedToInitializeStorage, devicePath, AS_PREPARE_AT(447),
         Common::Error(kErrorDiskHasPartitionTable,
                       Core::FormatMessage(Messages::DiskMayHoldData, devicePath, Detail::Describe(contents)),
                       AS_PREPARE_AT(448)));

  step(u"Cleanup {0}", devicePath);
  // gdisk keeps an old GPT's backup header, and then answers other questions.
  if (!contents.tables.empty() || contents.partitions > 0)
    Guarded(devicePath, AS_PREPARE_AT(473), [&] { return Detail::WipeDisk(name), 0; });
  Run({"dd", "if=/dev/zero", "of=" + devicePath, "bs=512", "count=1"}, Messages::FailedToInitializeStorage, devicePath,
      AS_PREPARE_AT(474));
  step(u"Marking up {0}", devicePath);
  // A new partition 1 over the whole disk, the default type, written without asking.
  Run({"gdisk", devicePath}, Messages::FailedToInitializeStorage, devicePath, AS_PREPARE_AT(481), "n\n1\n\n\n\nw\ny\n");
  step(u"Formatting {0}", devicePath);
  // Labelled from the start: a cut before the label step must not leave a file system
  // that looks foreign.
  Lines mke2fs([&](const std::string& line) {
    if (progress) progress("  " + line);
  });
  Run({"mke2fs", "-t", "ext4", "-L", Common::ToUtf8(Detail::kLabelPrefix), devicePath + "1"},
      Messages::FailedToInitializeStorageUnquoted, devicePath, AS_PREPARE_AT(488), "", std::ref(mke2fs));

  ReloadPartitions();
  const auto list = OwnPartitions();
  if (list.size() != 1) Fail(Messages::FailedToInitializeStorage, devicePath, AS_PREPARE_AT(495));
  step(u"Labelling {0}", devicePath + "1");
  if (Common::Error error = list.front()->SetLabel(String())) throw error;
  // Success means a storage after a power cut too.
  for (const std::string& path : {devicePath + "1", devicePath})
    if (Common::Error error = Detail::FlushDevice(path))
      Fail(Messages::FailedToInitializeStorage, devicePath, AS_PREPARE_AT(499), error);
  return {};
}

std::vector<BlockDevice::Signature> BlockDevice::FindSignatures() {
  Detail::DiskContents contents = Detail::ProbeDisk(name);
  contents.tables.insert(contents.tables.end(), contents.data.begin(), contents.data.end());
  return contents.tables;
}

Common::Error BlockDevice::WipeSignatures() {
  const std::string devicePath = "/dev/" + Common::ToUtf8(name);
  TraceTools::Trace(Common::EventLevelNotice, Detail::kTraceStorage, u"Erasing the signatures of {0}.", devicePath);
  try {
    if (HasMountedStorage(name, devicePath))
      return Common::Error(kErrorStorageInUse, Core::FormatMessage(Messages::StorageIsInUse, devicePath),
                           AS_STORAGE_AT("WipeSignatures", 625));
    Detail::WipeDisk(name);
    return {};
  } catch (const Common::Error& error) {
    return error;
  }
}

}  // namespace Appliance
}  // namespace Virtualization
