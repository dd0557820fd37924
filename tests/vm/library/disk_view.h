#pragma once
// What a disk holds, as blkid and as the library see it: "gpt 1:ext4:ZLM" (the table, then each
// partition with a signature, by number: type and label).
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "core/common/unicode.h"
#include "../../support/error_text.h"
#include "../../support/shell.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

namespace VmTest {

using TestSupport::ChainCodes;
using TestSupport::Output;
using Device = std::shared_ptr<Virtualization::Appliance::BlockDevice>;

inline std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

inline std::vector<Device> List(bool rescan = false) try {
  return Virtualization::Appliance::StoragesManager().GetBlockDevices(rescan);
} catch (const Common::Error& e) {
  ADD_FAILURE() << Common::ErrorChainText(e);
  return {};
}

inline std::string Prepare(const Device& disk) try {
  return ChainCodes(disk->CreateBackupPartition());
} catch (const Common::Error& e) {
  return ChainCodes(e);
}

// "mount point label|" for each storage listed, or the error's codes.
inline std::string Storages() {
  std::vector<MigrationManagement::StorageConfig::Storage> list;
  if (Common::Error e = MigrationManagement::StorageConfig::GetCurrentStorageConfig()->GetStoragesList(list))
    return ChainCodes(e);
  std::string text;
  for (const auto& s : list) text += Common::ToUtf8(s.MountPoint) + " " + Common::ToUtf8(s.Label) + "|";
  return text;
}

// blkid -p on the disk `name` and on each partition the kernel shows.
inline std::string Blkid(const std::string& name) {
  return Output("cd /dev && set -- $(blkid -p -o value -s PTTYPE " + name + "; for p in " + name +
                "?*; do t=$(blkid -p -o value -s TYPE \"$p\" 2>/dev/null); [ -n \"$t\" ] &&"
                " echo \"${p#" + name + "}:$t:$(blkid -p -o value -s LABEL \"$p\")\"; done); printf %s \"$*\"");
}

inline std::string Signatures(Virtualization::Appliance::BlockDevice& disk) {
  const std::string name = Common::ToUtf8(disk.GetName());
  std::string text;
  for (const auto& s : disk.FindSignatures()) {
    const std::string part = Common::ToUtf8(s.partition);
    text += (text.empty() ? "" : " ") + (part == name ? s.type : part.substr(name.size()) + ":" + s.type + ":" + s.label);
  }
  return text;
}

}  // namespace VmTest
