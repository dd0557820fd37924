#include "quillenmark/raw/common/scsi_disk_helpers/impl/attributes.h"

#include <optional>
#include <set>
#include <stdexcept>

#include "core/common/assert.h"
#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"
#include "processor/format/format_message.h"
#include "quillenmark/raw/common/scsi_disk_helpers/attributes.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"
#include "registry/document.h"
#include "registry/errors.h"
#include "registry/roots.h"
#include "resource_api.h"

namespace SCSI {
namespace Detail {
namespace {

const String& AttributesRootPath() {
  static const String path = [] {
    const char* registryBrandKey = ResourceApi::GetResourceString("registry_brand_key");
    AS_ASSERT_AT(registryBrandKey || !"Failed to get keyname", AS_SOURCE_NAME, 42);
    if (registryBrandKey == nullptr) throw std::logic_error("no registry brand key among the resource strings");
    return Common::FromUtf8(registryBrandKey) + Common::Str(u"\\Quillenmark\\SCSIDevices");
  }();
  return path;
}

// A record's default value as (name, value) pairs; the first pair of a name counts.
DiskAttributes PairsOf(const Registry::Value& value) {
  DiskAttributes pairs;
  if (const auto* strings = std::get_if<Registry::MultiString>(&value)) {
    const Registry::MultiString& multistring = *strings;
    AS_ASSERT_AT(multistring.size() % 2 == 0, AS_SOURCE_NAME, 119);
    for (size_t i = 0; i + 1 < multistring.size(); i += 2) pairs.emplace(multistring[i], multistring[i + 1]);
  } else {
    AS_ASSERT_AT(!"Invalid registry key type", AS_SOURCE_NAME, 124);
  }
  return pairs;
}

}  // namespace

Registry::Key OpenAttributesRoot() {
  Registry::Key machine, root;
  if (Common::Error e = Registry::Key::OpenPredefined(Registry::HKEY_LOCAL_MACHINE, machine)) throw e;
  if (machine.Open(AttributesRootPath(), root))
    if (Common::Error e = machine.CreateKeyRecursive(AttributesRootPath(), root)) throw e;
  return root;
}

Common::Error LoadDiskAttributes(const GUID& id, DiskAttributes& attributes) {
  const String text = id.ToWideString();
  try {
    DiskAttributes loaded;
    Registry::Key record;
    if (OpenAttributesRoot().OpenChild(text, record)) {
      attributes.swap(loaded);  // no record, no attributes
      return Common::Error();
    }
    Registry::Value value;
    if (Common::Error e = record.QueryValue(String(), value)) throw e;
    loaded = PairsOf(value);
    attributes.swap(loaded);
    return Common::Error();
  } catch (const Common::Error& e) {
    return Common::Error(kErrorDisk, Core::FormatMessage(Messages::FailedToGetDiskAttributes, text),
                         AS_LOCATION("GetDiskAttributes", 131))
        .WithCause(e);
  }
}

std::set<String> DisksWithAttribute(const String& name) {
  std::set<String> disks;
  Registry::Key machine, root;
  if (Registry::Key::OpenPredefined(Registry::HKEY_LOCAL_MACHINE, machine) ||
      machine.Open(AttributesRootPath(), root))
    return disks;
  const Common::Error unreadable = root.Inspect([&](const Registry::KeyNode& records) {
    for (const auto& [id, record] : records.children) {
      const auto value = record->values.find(String());
      if (value != record->values.end() && PairsOf(value->second).count(name) != 0) disks.insert(id);
    }
    return Common::Error();
  });
  if (unreadable) disks.clear();
  return disks;
}

void SyncDisksAttributes(const std::vector<Disk>& disks) {
  try {
    std::set<String> present;
    for (const Disk& disk : disks) present.insert(disk.id.ToWideString());
    const Registry::Key root = OpenAttributesRoot();
    std::vector<String> children;
    if (Common::Error e = root.EnumerateChildren(children)) throw e;
    std::set<String> orphans;
    for (String& name : children)
      if (present.count(name) == 0) orphans.insert(std::move(name));
    for (const String& name : orphans) {
      TraceTools::DbgTraceInfo(kTraceCode, GetTextFromMessageFile(Messages::DroppingOrphanedAttributeNode));
      if (Common::Error e = root.DeleteChild(name)) throw e;
    }
  } catch (const Common::Error& e) {
    throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::FailedToSyncDiskAttributes),
                        AS_LOCATION("SyncDisksAttributes", 162))
        .WithCause(e);
  }
}

}  // namespace Detail

namespace {

// The record's (name, value) strings; none when it has no default value. A value of
// another type belongs to someone else and is not overwritten. Throws.
Registry::MultiString ReadPairs(const Registry::Key& record) {
  Registry::Value value;
  if (Common::Error e = record.QueryValue(String(), value)) {
    if (e.GetCode() == Registry::kErrorValueNotFound) return {};
    throw e;
  }
  if (auto* strings = std::get_if<Registry::MultiString>(&value)) return std::move(*strings);
  throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::RegistryInvalidKeyType), AS_HERE);
}

// Sets `name` to `value`, or removes it when there is no value. Readers take the first
// pair of a name, so a set replaces the first and drops the others.
Common::Error ChangeAttribute(const GUID& id, const String& name, const std::optional<String>& value) {
  const String text = id.ToWideString();
  try {
    // Every disk without one would share the all-zero record.
    if (id.IsNull())
      throw Common::Error(kErrorDisk, GetTextFromMessageFile(Messages::DiskHasNoSerialIdentifier), AS_HERE);
    const Registry::Key root = Detail::OpenAttributesRoot();
    Registry::Key record;
    if (root.OpenChild(text, record)) {
      if (!value) return {};
      if (Common::Error e = root.CreateKeyRecursive(text, record)) throw e;
    }
    const Registry::MultiString pairs = ReadPairs(record);
    Registry::MultiString kept;
    bool set = false;
    for (size_t i = 0; i + 1 < pairs.size(); i += 2) {
      if (pairs[i] != name) {
        kept.insert(kept.end(), {pairs[i], pairs[i + 1]});
      } else if (value && !set) {
        kept.insert(kept.end(), {name, *value});
        set = true;
      }
    }
    if (value && !set) kept.insert(kept.end(), {name, *value});
    if (kept.empty()) {
      if (Common::Error e = root.DeleteChild(text)) throw e;
    } else if (Common::Error e = record.SetValue(String(), kept)) {
      throw e;
    }
    return {};
  } catch (const Common::Error& e) {
    return Common::Error(kErrorDisk,
                         Core::FormatMessage(Messages::FailedToChangeDiskAttribute, name, text),
                         AS_HERE)
        .WithCause(e);
  }
}

}  // namespace

Common::Error GetDiskAttributes(const GUID& id, DiskAttributes& attributes) {
  return Detail::LoadDiskAttributes(id, attributes);
}

Common::Error SetDiskAttribute(const GUID& id, const String& name, const String& value) {
  return ChangeAttribute(id, name, value);
}

Common::Error RemoveDiskAttribute(const GUID& id, const String& name) { return ChangeAttribute(id, name, std::nullopt); }

}  // namespace SCSI
