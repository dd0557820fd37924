#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
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

using Stream = std::unique_ptr<FILE, int (*)(FILE*)>;
constexpr uint64_t kMinimumPartitionSize = 0x140000000;  // 5 GiB

// The file-system UUID that blkid reports, all zero when it is no GUID; none when blkid
// identifies no file system. Throws kErrorPartitionUuid when blkid failed otherwise
// (not found, killed, out of resources): then nothing is known of the partition.
std::optional<GUID> GetPartitionUUID(const String& name) {
  Stream stream(POpen("blkid -o export " + Detail::DevicePath(name), "rt"), PClose);
  try {
    return Detail::ReadPartitionUuid(stream.get(), name);
  } catch (const Common::Error& error) {
    if (error.GetCode() != kErrorPartitionUuid) throw;
    // blkid: 2 nothing identified (or no such device), 8 more than one candidate.
    const int status = stream ? PClose(stream.release()) : -1;
    if (status != 0 && status != 2 && status != 8) throw;
    return std::nullopt;
  }
}

uint64_t ReadPartitionNumber(const String& device, const String& partition, const char* file) {
  return Detail::ReadSysfsNumber(
      Detail::ReadSysfsFile("/sys/block/" + Common::ToUtf8(device) + "/" + Common::ToUtf8(partition) + "/" + file));
}

}  // namespace

Partition::Partition(const std::shared_ptr<BlockDevice>& device, const String& name)
    : Device(device), DeviceName(device->GetName()), Host(device->GetHost()), Target(device->GetTarget()), Name(name) {
  if (const std::optional<GUID> uuid = GetPartitionUUID(name)) {
    Uuid = *uuid;
  } else {
    // Blank, foreign or gone: listed, never a storage, and no reason to hide the others.
    Identified = false;
    TraceTools::Trace(Common::EventLevelWarning, Detail::kTraceStorage,
                      u"Partition '{0}' holds no file system that blkid identifies: listed as unsupported.", name);
  }
  try {
    Size = ReadPartitionNumber(DeviceName, Name, "size") << 9;
    Number = ReadPartitionNumber(DeviceName, Name, "partition");
  } catch (const Common::Error& error) {
    if (FileSystem::ErrnoOf(error) != ENOENT) throw;
    Identified = false;  // the kernel dropped it meanwhile
  }
  SetMountRoot(StoragesManager::PartitionsMountRoot);
}

String Partition::GetLabelImpl() const {
  std::string narrow;
  for (const unsigned short unit : Name) narrow += static_cast<char>(unit & 0xFF);
  Stream stream(POpen("e2label " + Shell::Word("/dev/" + narrow), "rt"), PClose);
  if (!stream) {
    const Common::Error error(kErrorGetLabel, Core::FormatMessage(Messages::FailedToGetLabel, narrow),
                              AS_STORAGE_AT("GetLabelImpl", 341));
    TraceTools::TraceError(Detail::kTraceLabels, error, Common::Str(u"GetLabelImpl"));
    return {};
  }
  return Detail::ReadLabel(stream.get());
}

String Partition::GetLabel() const {
  String raw = GetLabelImpl();
  if (Detail::HasLabelPrefix(raw)) return raw.substr(Detail::kLabelPrefix.size());
  TraceTools::DbgTraceError(Detail::kTraceLabels, GetTextFromMessageFile(Messages::StorageHasUnexpectedLabel),
                            Uuid.ToWideString(), raw);
  return raw;
}

Common::Error Partition::SetLabel(const String& label) {
  const String full = Detail::kLabelPrefix + label;
  TraceTools::Trace(Common::EventLevelNotice, Detail::kTraceLabels, u"Assigning label '{0}' to storage '{1}'.", full,
                    Name);
  const std::string command =
      "tune2fs " + Detail::DevicePath(Name) + " -L \"" + Shell::InDoubleQuotes(Common::ToUtf8(full)) + "\"";
  const int status = RunCommand(command);
  if (status == 0) return {};
  return Common::Error(kErrorSetLabel, Core::FormatMessage(Messages::FailedToAssignLabel, full, Name),
                       AS_STORAGE_AT("SetLabel", 322))
      .WithCause(Detail::ExternalCallError(command, status, AS_STORAGE_AT("SetLabel", 323)));
}

std::string Partition::GetDeprecatedVolumeId() const {
  return std::to_string(Host) + "_" + std::to_string(Target) + "_" + std::to_string(Number);
}

bool Partition::IsSupported() const {
  return Identified && MountRoot == StoragesManager::PartitionsMountRoot && Detail::HasLabelPrefix(GetLabelImpl()) &&
         Size >= kMinimumPartitionSize;
}

}  // namespace Appliance
}  // namespace Virtualization
