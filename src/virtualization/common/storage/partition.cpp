#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/include/file/file.h"
#include "core/trace/trace_tools.h"
#include "processor/format/format_message.h"
#include "virtualization/common/storage/errors.h"
#include "virtualization/common/storage/impl/storage_internal.h"
#include "virtualization/common/storage/impl/blkid_probe.h"
#include "virtualization/common/storage/impl/file_system_probe.h"
#include "virtualization/common/storage/storage_manager.h"

namespace Virtualization {
namespace Appliance {

namespace {

constexpr uint64_t kMinimumPartitionSize = 0x140000000;  // 5 GiB

// What the partition's own node holds. Throws kErrorPartitionUuid when that cannot be
// known (out of descriptors or memory, no rights): a guess could hide a storage.
Detail::FileSystemFacts Probe(const String& name) {
  const std::string path = "/dev/" + Common::ToUtf8(name);
  try {
    return Detail::ProbeFileSystem(path);
  } catch (const Detail::ProbeFailure& failure) {
    throw Common::Error(kErrorPartitionUuid, Core::FormatMessage(Messages::FailedToGetPartitionUuid, name),
                        AS_STORAGE_AT("GetPartitionUUID", 180))
        .WithCause(FileSystem::MakeError(FileSystem::kErrorRead, failure.path, failure.err,
                                         AS_STORAGE_AT("GetPartitionUUID", 181)));
  }
}

uint64_t ReadPartitionNumber(const String& device, const String& partition, const char* file) {
  return Detail::ReadSysfsNumber(
      Detail::ReadSysfsFile("/sys/block/" + Common::ToUtf8(device) + "/" + Common::ToUtf8(partition) + "/" + file));
}

}  // namespace

Partition::Partition(const std::shared_ptr<BlockDevice>& device, const String& name)
    : Device(device), DeviceName(device->GetName()), Host(device->GetHost()), Target(device->GetTarget()), Name(name) {
  const Detail::FileSystemFacts facts = Probe(name);
  Uuid = facts.uuid;
  if (facts.type.empty()) {
    // Blank, foreign or gone: listed, never a storage, and no reason to hide the others.
    Identified = false;
    TraceTools::Trace(Common::EventLevelWarning, Detail::kTraceStorage,
                      u"Partition '{0}' holds no file system that can be identified: listed as unsupported.", name);
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
  try {
    return Common::FromUtf8(Detail::ProbeFileSystem("/dev/" + Common::ToUtf8(Name)).label);
  } catch (const Detail::ProbeFailure& failure) {
    const Common::Error error(kErrorGetLabel, Core::FormatMessage(Messages::FailedToGetLabel, Name),
                              AS_STORAGE_AT("GetLabelImpl", 341));
    TraceTools::TraceError(Detail::kTraceLabels,
                           error.WithCause(FileSystem::MakeError(FileSystem::kErrorRead, failure.path, failure.err,
                                                                 AS_STORAGE_AT("GetLabelImpl", 342))),
                           Common::Str(u"GetLabelImpl"));
    return {};
  }
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
  if (Common::ToUtf8(label).size() > kMaxLabelLength)  // tune2fs would cut it short
    return Common::Error(kErrorSetLabel, Core::FormatMessage(Messages::FailedToAssignLabel, full, Name),
                         AS_STORAGE_AT("SetLabel", 322))
        .WithCause(Common::Error(kErrorLabelTooLong,
                                 Core::FormatMessage(Messages::LabelTooLong, label, std::to_string(kMaxLabelLength)),
                                 AS_STORAGE_AT("SetLabel", 321)));
  TraceTools::Trace(Common::EventLevelNotice, Detail::kTraceLabels, u"Assigning label '{0}' to storage '{1}'.", full,
                    Name);
  const Common::Error failed =
      Detail::RunTool({"tune2fs", Detail::DevicePath(Name), "-L", Common::ToUtf8(full)}, AS_STORAGE_AT("SetLabel", 323));
  if (!failed) return {};
  return Common::Error(kErrorSetLabel, Core::FormatMessage(Messages::FailedToAssignLabel, full, Name),
                       AS_STORAGE_AT("SetLabel", 322))
      .WithCause(failed);
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
