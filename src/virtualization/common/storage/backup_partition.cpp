#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "core/linex/linux_misc.h"
#include "core/linex/shell_quote_internal.h"
#include "core/trace/trace_tools.h"
#include "processor/format/format_message.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/storage_internal.h"
#include "virtualization/common/storage/impl/tool_output.h"
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

void Run(const std::string& command, TextFromMessageFile message, const std::string& devicePath,
         const Common::ErrorLocation& where) {
  const int status = RunCommand(command);
  if (status != 0) Fail(message, devicePath, where, Detail::ExternalCallError(command, status, where));
}

// Whether the disk or any of its partitions is mounted anywhere, as lsblk sees it.
bool HasMountedStorage(const std::string& devicePath) {
  const std::string command = "lsblk -n -o mountpoint " + Shell::Word(devicePath);
  std::unique_ptr<FILE, int (*)(FILE*)> stream(POpen(command, "rt"), PClose);
  const bool mounted = stream && Detail::AnyMountpoint(stream.get());
  const int status = stream ? PClose(stream.release()) : -1;
  // Not knowing is no reason to write over a disk.
  if (status != 0)
    Fail(Messages::FailedToInitializeStorage, devicePath, AS_PREPARE_AT(452),
         Detail::ExternalCallError(command, status, AS_PREPARE_AT(453)));
  return mounted;
}

// A GPT header in the second sector (512-byte or 4096-byte sectors).
bool HoldsPartitionTable(const std::string& devicePath) {
  FileSystem::File device;
  Common::Error error = FileSystem::File::Open(devicePath, FileSystem::File::kRead, device);
  char head[4096 + 8] = {};
  for (size_t total = 0, count = 1; !error && count > 0 && total < sizeof head; total += count)
    error = device.Read(head + total, sizeof head - total, count);
  if (error) Fail(Messages::FailedToInitializeStorage, devicePath, AS_PREPARE_AT(462), error);
  return std::memcmp(head + 512, "EFI PART", 8) == 0 || std::memcmp(head + 4096, "EFI PART", 8) == 0;
}

}  // namespace

Common::Error BlockDevice::CreateBackupPartition() {
  const std::string devicePath = "/dev/" + Common::ToUtf8(name);
  const String text = Core::FormatMessage(Messages::InitializeDiskAsLocalStorage, devicePath);
  TraceTools::EventPair<Common::EventLevelDebug> pair(Detail::kTraceStorage,
                                                       Common::Str(u"+CreateBackupPartition: ") + text,
                                                       Common::Str(u"-CreateBackupPartition"));
  const auto step = [&](const char16_t* pattern) { TraceTools::DbgTraceInfo(Detail::kTraceStorage, pattern, devicePath); };

  step(u"Check for mounted storages on {0}");
  if (HasMountedStorage(devicePath))
    throw Common::Error(kErrorStorageInUse, Core::FormatMessage(Messages::StorageIsInUse, devicePath),
                        AS_PREPARE_AT(440));
  if (HoldsPartitionTable(devicePath))
    Fail(Messages::FailedToInitializeStorage, devicePath, AS_PREPARE_AT(447),
         Common::Error(kErrorDiskHasPartitionTable, Core::FormatMessage(Messages::DiskHoldsPartitionTable, devicePath),
                       AS_PREPARE_AT(448)));

  const std::string device = Shell::Word(devicePath);
  step(u"Cleanup {0}");
  Run("dd if=/dev/zero of=" + device + " bs=512 count=1 2>/dev/null", Messages::FailedToInitializeStorage, devicePath,
      AS_PREPARE_AT(474));
  step(u"Marking up {0}");
  Run("echo -e \"n\\n1\\n\\n\\n\\nw\\ny\" | gdisk " + device, Messages::FailedToInitializeStorage, devicePath,
      AS_PREPARE_AT(481));
  step(u"Formatting {0}");
  Run("mke2fs -t ext4 " + Shell::Word(devicePath + "1"), Messages::FailedToInitializeStorageUnquoted, devicePath,
      AS_PREPARE_AT(488));

  ReloadPartitions();
  const auto list = GetPartitions();
  if (list.size() != 1) Fail(Messages::FailedToInitializeStorage, devicePath, AS_PREPARE_AT(495));
  if (Common::Error error = list.front()->SetLabel(String())) throw error;
  return {};
}

}  // namespace Appliance
}  // namespace Virtualization
