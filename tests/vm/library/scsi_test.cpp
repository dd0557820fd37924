// The disk subsystem on a real kernel, one disk on each controller kind (../CMakeLists.txt);
// last, the storage listing of those disks is held to what the tools print of them.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "core/common/unicode.h"
#include "core/linex/linux_misc.h"
#include "disk_view.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/disk_text.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/unit_serial.h"

namespace {

using VmTest::Read;

std::vector<SCSI::Disk> List(SCSI::DiskSubsystem& disks) {
  std::vector<SCSI::Disk> list;
  const Common::Error e = disks.Enumerate(list);
  EXPECT_FALSE(e) << Common::ErrorChainText(e);
  return list;
}
// The identifier made from scsi_id's ID_SCSI_SERIAL; zero without one.
GUID ScsiIdGuid(const std::string& out) {
  GUID id;
  (void)SCSI::Detail::ReadScsiSerial(out, String(), id);
  return id;
}

// Identifiers are scsi_id's, from the kernel's copy of the serial page, then from an INQUIRY,
// never running scsi_id (ATA pads short serials). Each driver takes its disk off the bus and
// brings it back with a host scan, the kernel's uevents ending the library's waits.
TEST(RealKernel, IdentifiesRemovesAndAddsTheDiskOfEveryControllerKind) {
  const std::string calls = "/tmp/zl_scsi_id.calls", empty = "/tmp/zl_empty", path = std::getenv("PATH");
  std::filesystem::create_directories("/tmp/zl_bin");
  std::ofstream("/tmp/zl_bin/scsi_id") << "#!/bin/sh\necho \"$*\" >> " << calls << "\nPATH=${PATH#*:}\nexec scsi_id \"$@\"\n";
  std::filesystem::permissions("/tmp/zl_bin/scsi_id", std::filesystem::perms::owner_all);
  std::ofstream{empty};
  ASSERT_EQ(0, setenv("PATH", ("/tmp/zl_bin:" + path).c_str(), 1));
  auto disks = SCSI::CreateDiskSubsystem();
  auto lock = disks->Lock();
  ASSERT_FALSE(disks->Refresh());
  std::vector<SCSI::Disk> before;
  for (const bool hidden : {false, true}) {
    SCOPED_TRACE(hidden ? "INQUIRY" : "sysfs");
    before = List(*disks);
    ASSERT_EQ(8u, before.size());  // no controller kind left out
    EXPECT_EQ("", Read(calls));
    size_t identified = 0;
    for (const SCSI::Disk& disk : before) {
      const std::string name = Common::ToUtf8(disk.name), page = "/sys/block/" + name + "/device/vpd_pg80";
      SCOPED_TRACE(name);
      const std::string out = VmTest::Output("scsi_id --page=0x83 --export --whitelisted --device=/dev/" + name);
      EXPECT_EQ(ScsiIdGuid(out), disk.id);
      identified += !disk.id.IsNull();
      if (hidden) continue;
      const size_t at = out.find("\nID_SCSI_SERIAL=") + 16;
      const std::string bytes = Read(page);
      EXPECT_EQ(out.substr(at, out.find('\n', at) - at),
                SCSI::Detail::UnitSerialText(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
      ASSERT_EQ(0, mount(empty.c_str(), page.c_str(), nullptr, MS_BIND, nullptr));
    }
    EXPECT_EQ(6u, identified);  // the ATA serials are too short
    std::remove(calls.c_str());
  }
  for (const SCSI::Disk& disk : before)
    umount2(("/sys/block/" + Common::ToUtf8(disk.name) + "/device/vpd_pg80").c_str(), MNT_DETACH);
  ASSERT_EQ(0, setenv("PATH", path.c_str(), 1));
  std::vector<String> names(before.size());
  for (size_t i = 0; i < before.size(); ++i) {
    const SCSI::Disk& disk = before[i];
    SCOPED_TRACE(Common::ToUtf8(disk.name));
    EXPECT_TRUE(disk.readable);
    const std::string sysfs = "/sys/block/" + Common::ToUtf8(disk.name);
    EXPECT_EQ(0, access(sysfs.c_str(), F_OK));
    Common::Error e = disks->RemoveDisk(disk);
    ASSERT_FALSE(e) << Common::ErrorChainText(e);
    EXPECT_NE(0, access(sysfs.c_str(), F_OK));
    e = disks->AddDisk(disk, names[i]);
    ASSERT_FALSE(e) << Common::ErrorChainText(e);
  }
  // Back at the same addresses, under the names AddDisk gave.
  const std::vector<SCSI::Disk> after = List(*disks);
  ASSERT_EQ(before.size(), after.size());
  for (size_t i = 0; i < after.size(); ++i) {
    SCOPED_TRACE(Common::ToUtf8(after[i].name));
    EXPECT_EQ(names[i], after[i].name);
    EXPECT_TRUE(before[i].type == after[i].type && before[i].host == after[i].host &&
                before[i].target == after[i].target && before[i].id == after[i].id && after[i].readable);
  }
}

// The listing of every disk and partition says what the tools print: storages, foreign and blank
// partitions, hostile labels (16 bytes, ext4's most) and mount paths. Last: it leaves them mounted.
TEST(RealKernel, ListingSaysWhatTheToolsPrint) {
  using Common::ToUtf8;
  const std::pair<const char*, const char*> hostile[] = {
      {"L1", "ZLM$(id);`x`|&'\""}, {"L2", "ZLMa b \"q\" \x7fzz!!"}, {"L3", "\xd0\x94\xd0\xb0 unicode\xe2\x9c\x93!"},
      {"L4", "line1\nline2 $PWD"}, {"L5", "tab\there*?[a]~#!"},  {"L6", "back\\slash%n%s{}"},
      {"P1", "/mnt/local_storages/odd 'dir'"}, {"P2", "/mnt/with space"}, {"P3", "/mnt/new\nline"}};
  for (const auto& [name, value] : hostile) ASSERT_EQ(0, setenv(name, value, 1));
  const std::string tools = "p() { printf \"$1\" | sfdisk -q -X ${2:-gpt} $D; }; f() { mke2fs -q -F -t \"$@\"; };"
                            " m() { mkdir -p \"$2\" && mount \"$1\" \"$2\"; }; ";
  const std::string setups[] = {  // a disk each, in the listing's order
      "p ',6G\\n,64M\\n' && f ext4 -L ZLMstore ${D}1 && f ext4 -L \"$L1\" ${D}2 &&"
      " m ${D}1 /mnt/local_storages/st1 && m ${D}2 \"$P1\"",
      "p ',64M\\n,64M\\n,64M\\n' && mkswap -q -L \"$L5\" ${D}2 && pvcreate -q ${D}3",
      "p ',64M\\n,64M\\n' && f ext4 -L \"$L2\" ${D}1 && f ext2 -L photos ${D}2 && m ${D}1 /mnt/twice_a &&"
      " m ${D}1 /mnt/twice_b",
      "p ',64M\\n,64M\\n' && f ext4 -L \"$L3\" ${D}1 && f ext3 ${D}2 && m ${D}1 \"$P2\"",
      "p ',64M\\n' && f ext4 -L \"$L4\" ${D}1 && m ${D}1 \"$P3\"",
      "p ',64M,83\\n,64M,83\\n' dos && f ext4 -L plain ${D}1 && f ext4 -L \"$L6\" ${D}2 &&"
      " m ${D}2 /mnt/local_storages/st2",
      "p ',64M\\n,64M\\n' && f ext4 -L \"$L5\" ${D}1 && mkswap -q ${D}2",
      "p ',64M\\n' && f ext4 ${D}1 && m ${D}1 /mnt/plain"};
  const auto devices = VmTest::List();
  ASSERT_EQ(std::size(setups), devices.size());
  for (size_t i = 0; i < devices.size(); ++i)
    ASSERT_EQ(0, RunCommand("D=/dev/" + ToUtf8(devices[i]->GetName()) + "; " + tools + setups[i])) << setups[i];
  const auto line = [](const std::string& text, size_t at = 0) { return text.substr(at, text.find('\n', at) - at); };
  const std::string root = "/mnt/local_storages/";
  struct Fact { std::string device, field, tools, library; };
  std::vector<Fact> facts;
  std::string storages;  // as GetStoragesList should give them
  for (const auto& disk : VmTest::List()) {
    const std::string name = ToUtf8(disk->GetName());
    std::set<std::string> kernel, listed;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/block/" + name))
      if (entry.path().filename().string().rfind(name, 0) == 0) kernel.insert(entry.path().filename());
    for (const auto& partition : disk->GetPartitions()) {
      const std::string part = ToUtf8(partition->GetName()), dev = " /dev/" + part;
      listed.insert(part);
      const std::string blkid = "\n" + VmTest::Output("blkid -p -o export" + dev);
      // lsblk shows a byte it would not print as \xNN.
      std::string at = line(VmTest::Output("lsblk -n -o MOUNTPOINT" + dev));
      for (size_t x; (x = at.find("\\x")) != std::string::npos;)
        at.replace(x, 4, 1, static_cast<char>(std::stoi(at.substr(x + 2, 2), nullptr, 16)));
      GUID uuid;  // zero when none, or not a GUID
      if (blkid.find("\nUUID=") != std::string::npos) GUID::Parse(line(blkid, blkid.find("\nUUID=") + 6), uuid);
      // e2label's "/dev/sdX2 contains a swap file system" of other file systems is no label.
      const bool ext = std::regex_search(blkid, std::regex("\nTYPE=ext[234]\n"));
      std::string label = ext ? VmTest::Output("e2label" + dev + " 2>/dev/null") : "";
      label.erase(std::find_if(label.begin(), label.end(), [](unsigned char c) { return c < 0x20 || c > 0x7e; }),
                  label.end());
      const std::string bare = label.rfind("ZLM", 0) == 0 ? label.substr(3) : label;
      std::string point = ToUtf8(partition->GetMountPoint());
      if (!point.empty() && point[0] != '/') point = ToUtf8(partition->GetMountRoot()) + "/" + point;
      if (!at.empty()) storages += (at.rfind(root, 0) == 0 ? at.substr(root.size()) : at) + " " + bare + "|";
      facts.push_back({part, "uuid", uuid.ToString(), partition->GetUuid().ToString()});
      facts.push_back({part, "label", label, ToUtf8(partition->GetLabelImpl())});
      facts.push_back({part, "label without ZLM", bare, ToUtf8(partition->GetLabel())});
      facts.push_back({part, "mount point", at, point});
    }
    facts.push_back({name, "partitions", testing::PrintToString(kernel), testing::PrintToString(listed)});
    const std::string scsiId = VmTest::Output("scsi_id --whitelisted --export --device=/dev/" + name);
    facts.push_back({name, "disk id", ScsiIdGuid(scsiId).ToString(), disk->GetDiskId().ToString()});
  }
  facts.push_back({"all", "storages", storages, VmTest::Storages()});
  EXPECT_EQ(8 * 2 + 15 * 4 + 1, facts.size());  // every partition made is listed
  for (const Fact& f : facts) EXPECT_EQ(f.tools, f.library) << f.device << ": " << f.field;
}

}  // namespace
