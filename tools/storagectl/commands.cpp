// The commands: each finds its objects by name, asks the library and describes the
// result. Which disks are offered, what is refused and why is the library's business.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <thread>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/module.h"
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"
#include "dsk_supp.h"
#include "quillenmark/raw/common/scsi_disk_helpers/attributes.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "storagectl.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

namespace Storagectl {
namespace {

using Virtualization::Appliance::BlockDevice;
using Virtualization::Appliance::Partition;
using Virtualization::Appliance::StoragesManager;

std::string U8(const String& text) { return Common::ToUtf8(text); }

void Check(const Common::Error& e) {
  if (e) throw e;
}

// "/dev/sdb" and "sdb" name the same device.
std::string KernelName(const std::string& name) { return name.rfind("/dev/", 0) == 0 ? name.substr(5) : name; }

// host:channel:target:lun as the disk library tells it; null when it cannot.
Json Address(const String& name) {
  dsk_supp::ecodes code = dsk_supp::ec_ok;
  dsk_supp::UnixVolID volume;
  volume.DevNode = "/dev/" + U8(name);
  dsk_supp::index_t index = 0;
  if (!dsk_supp::InitInternals(code) || !dsk_supp::IndexbyDevName(volume, dsk_supp::mt_disk, index) ||
      !dsk_supp::VolIDbyIndex(index, dsk_supp::mt_disk, volume) || volume.ScsiHost == dsk_supp::kNoScsiAddress)
    return nullptr;
  return std::to_string(volume.ScsiHost) + ":" + std::to_string(volume.ScsiChannel) + ":" +
         std::to_string(volume.ScsiTarget) + ":" + std::to_string(volume.ScsiLun);
}

Json Guid(const GUID& id) { return id.IsNull() ? Json() : Json(id.ToString()); }

Json PartitionJson(const Partition& p) {
  return {{"name", U8(p.GetName())},     {"number", p.GetNumber()},   {"size", p.GetSize()},
          {"uuid", Guid(p.GetUuid())},   {"label", U8(p.GetLabel())}, {"mountpoint", U8(p.GetMountPoint())},
          {"supported", p.IsSupported()}};
}

std::vector<SCSI::Disk> ScsiDisks(SCSI::DiskSubsystem& subsystem) {
  std::vector<SCSI::Disk> disks;
  Check(subsystem.Enumerate(disks));
  return disks;
}

Json DeviceJson(BlockDevice& d, const std::vector<SCSI::Disk>& disks) {
  Json controller;
  for (const SCSI::Disk& disk : disks)
    if (disk.name == d.GetName()) controller = SCSI::HostTypeName(disk.type);
  Json partitions = Json::array();
  for (const auto& p : d.GetPartitions()) partitions.push_back(PartitionJson(*p));
  return {{"name", U8(d.GetName())},         {"size", d.GetSize()},           {"controller", controller},
          {"address", Address(d.GetName())}, {"serial", Guid(d.GetDiskId())}, {"supported", d.IsSupported()},
          {"partitions", partitions}};
}

std::shared_ptr<BlockDevice> FindDevice(const StoragesManager& manager, const std::string& name) {
  for (const auto& d : manager.GetBlockDevices(false))
    if (U8(d->GetName()) == KernelName(name)) return d;
  throw Refusal{"no disk '" + name + "' among those the library offers for storages (see 'storagectl devices')"};
}

std::shared_ptr<Partition> FindPartition(const std::string& name) {
  for (const auto& d : StoragesManager().GetBlockDevices(false))
    for (const auto& p : d->GetPartitions())
      if (U8(p->GetName()) == KernelName(name)) return p;
  throw Refusal{"no partition '" + name + "' on the disks the library offers for storages (see 'storagectl devices')"};
}

// "sdb1: ext4 'backup'": where libblkid found what, and its label.
std::string Describe(const BlockDevice::Signature& s) {
  return U8(s.partition) + ": " + s.type + (s.label.empty() ? "" : " '" + s.label + "'");
}

}  // namespace

Json List() {
  std::vector<MigrationManagement::StorageConfig::Storage> storages;
  Check(MigrationManagement::StorageConfig::GetCurrentStorageConfig()->GetStoragesList(storages));
  Json list = Json::array();
  for (const auto& s : storages) list.push_back({{"mountpoint", U8(s.MountPoint)}, {"label", U8(s.Label)}});
  return {{"root", U8(MigrationManagement::StorageConfig::GetStoragesRoot())}, {"storages", list}};
}

Json Devices(bool rescan, const Progress& progress) {
  if (rescan)
    progress("Removing the disks not in use, rescanning the SCSI hosts, waiting 1 s for the kernel to bring the "
             "disks back");
  auto devices = StoragesManager().GetBlockDevices(rescan);
  // In the kernel's name order: sdz before sdaa.
  std::sort(devices.begin(), devices.end(), [](const auto& a, const auto& b) {
    return std::make_pair(a->GetName().size(), a->GetName()) < std::make_pair(b->GetName().size(), b->GetName());
  });
  const auto disks = ScsiDisks(*SCSI::CreateDiskSubsystem());
  Json list = Json::array();
  for (const auto& d : devices) list.push_back(DeviceJson(*d, disks));
  return {{"devices", list}};
}

Json Prepare(const std::string& device, bool yes, bool wipe, const std::function<void(const std::string&)>& step) {
  StoragesManager manager;
  const auto disk = FindDevice(manager, device);
  const std::string path = "/dev/" + U8(disk->GetName());
  const auto found = wipe ? disk->FindSignatures() : std::vector<BlockDevice::Signature>();
  if (!yes) {
    if (!isatty(STDIN_FILENO)) throw Refusal{"standard input is not a terminal: give --yes to prepare " + path, 2};
    std::cerr << "Everything on " << path << " (" << disk->GetSize() << " bytes) will be lost";
    if (wipe) std::cerr << (found.empty() ? "; libblkid finds nothing on it" : ", including what libblkid finds:");
    for (const auto& s : found) std::cerr << "\n  " << Describe(s);
    std::cerr << (found.empty() ? ". " : "\n") << "Type 'yes' to go on: ";
    std::string answer;
    const bool answered = static_cast<bool>(std::getline(std::cin, answer));
    if (!answered) std::cerr << '\n';  // Ctrl-D leaves the cursor after the question
    if (!answered || answer != "yes") throw Refusal{path + " left as it was"};
  }
  std::vector<std::string> steps;
  Json wiped = Json::array();
  for (const auto& s : found) {
    step("Wiping " + Describe(s));
    wiped.push_back({{"partition", U8(s.partition)}, {"type", s.type}, {"label", s.label}});
  }
  // Also with nothing found: the wipe makes the kernel drop empty partitions too.
  if (wipe) Check(disk->WipeSignatures());
  // mke2fs's own lines (indented) are shown, not counted as steps.
  Check(disk->CreateBackupPartition([&](const std::string& line) {
    if (line.compare(0, 2, "  ") != 0) steps.push_back(line);
    step(line);
  }));
  return {{"device", DeviceJson(*disk, ScsiDisks(*SCSI::CreateDiskSubsystem()))},
          {"steps", steps},
          {"wiped", wiped}};
}

Json Label(const std::string& partition, const std::optional<std::string>& label) {
  const auto p = FindPartition(partition);
  if (label) Check(p->SetLabel(Common::FromUtf8(*label)));
  return {{"partition", U8(p->GetName())}, {"label", U8(p->GetLabel())}};
}

Json Mount(const std::string& partition, const std::string& name) {
  const auto p = FindPartition(partition);
  Check(p->Mount(Common::FromUtf8(name)));
  return {{"partition", U8(p->GetName())}, {"root", U8(p->GetMountRoot())}, {"mountpoint", U8(p->GetMountPoint())}};
}

Json Unmount(const std::string& partition) {
  const auto p = FindPartition(partition);
  Check(p->Unmount());
  return {{"partition", U8(p->GetName())}, {"mountpoint", U8(p->GetMountPoint())}};
}

Json Temporary() {
  const std::string names = U8(StoragesManager().CleanupDiskSubsystem());
  Json list = Json::array();
  for (size_t start = 0, end; (end = names.find('\n', start)) != std::string::npos; start = end + 1)
    list.push_back(names.substr(start, end - start));
  return {{"temporary", list}};
}

Json Attributes(const std::string& action, const std::string& disk, const std::optional<std::string>& name,
                const std::optional<std::string>& value) {
  const std::string wanted = action == "get" ? "DISK [NAME]" : action == "set" ? "DISK NAME VALUE" : "DISK NAME";
  if (action == "get" ? value.has_value() : !name || (action == "set") != value.has_value())
    throw Refusal{"attributes " + action + " takes " + wanted, 2};
  const auto subsystem = SCSI::CreateDiskSubsystem();
  const auto lock = subsystem->Lock();
  for (const SCSI::Disk& d : ScsiDisks(*subsystem)) {
    if (U8(d.name) != KernelName(disk)) continue;
    const String key = Common::FromUtf8(name.value_or(""));
    if (action == "set") Check(SCSI::SetDiskAttribute(d.id, key, Common::FromUtf8(*value)));
    if (action == "remove") Check(SCSI::RemoveDiskAttribute(d.id, key));
    SCSI::DiskAttributes attributes;
    Check(SCSI::GetDiskAttributes(d.id, attributes));
    Json shown = Json::object();
    for (const auto& [n, v] : attributes)
      if (action != "get" || !name || n == key) shown[U8(n)] = U8(v);
    if (action == "get" && name && shown.empty()) throw Refusal{"disk '" + disk + "' has no attribute '" + *name + "'"};
    return {{"disk", U8(d.name)}, {"serial", Guid(d.id)}, {"attributes", shown}};
  }
  throw Refusal{"no SCSI disk '" + disk + "' (see 'storagectl devices')"};
}

Json Rescan(const Progress& progress) {
  const auto subsystem = SCSI::CreateDiskSubsystem();
  const auto lock = subsystem->Lock();
  std::map<std::string, int> seen;  // 1: before the rescan, 2: after it, 3: both
  for (const SCSI::Disk& d : ScsiDisks(*subsystem)) seen[U8(d.name)] = 1;
  progress("Rescanning the SCSI hosts and their disks");
  Check(subsystem->Refresh());
  progress("Waiting 1 s for the kernel to report new disks");
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the kernel brings new disks up meanwhile
  for (const SCSI::Disk& d : ScsiDisks(*subsystem)) seen[U8(d.name)] |= 2;
  Json added = Json::array(), removed = Json::array(), disks = Json::array();
  for (const auto& [name, when] : seen) {
    if (when & 2) disks.push_back(name);
    if (when == 2) added.push_back(name);
    if (when == 1) removed.push_back(name);
  }
  return {{"added", added}, {"removed", removed}, {"disks", disks}};
}

Json Version() {
  const unsigned short* text = GetTextFromMessageFile(Messages::FailedToGetDisksWithStorages);
  return {{"library",
           std::to_string(major_version) + "." + std::to_string(minor_version) + "." + std::to_string(build_number)},
          {"module", std::string(_ErrorModuleName)},
          {"message_file", std::string(MsgFileName)},
          {"registry_dir", Common::ToUtf8(REG_LINUX_DIR, Common::Length(REG_LINUX_DIR))},
          {"message", Common::ToUtf8(text, Common::Length(text))}};
}

}  // namespace Storagectl
