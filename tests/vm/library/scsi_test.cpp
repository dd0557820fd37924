// The disk subsystem on a real kernel: the appliance VM boots with one disk on each
// controller kind the library knows (see ../CMakeLists.txt), and this program runs
// inside it. Removing and adding a disk waits for the kernel's uevents, so this also
// shows that the notifications arrive.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "../../support/error_text.h"
#include "core/common/unicode.h"
#include "disk_view.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/disk_text.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/unit_serial.h"

namespace {

std::vector<SCSI::Disk> List(SCSI::DiskSubsystem& disks) {
  std::vector<SCSI::Disk> list;
  const Common::Error e = disks.Enumerate(list);
  EXPECT_FALSE(e) << TestSupport::ChainText(e);
  return list;
}

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// The identifier is the one that scsi_id's ID_SCSI_SERIAL gave, taken from the kernel's copy
// of the unit serial number page and, with those copies hidden, from an INQUIRY of the disk,
// without running scsi_id. The ide disk's short serial comes padded with spaces.
TEST(RealKernel, SerialsAreScsiIdsWithoutScsiId) {
  const std::string calls = "/tmp/zl_scsi_id.calls", empty = "/tmp/zl_empty", path = std::getenv("PATH");
  std::filesystem::create_directories("/tmp/zl_bin");
  std::ofstream("/tmp/zl_bin/scsi_id") << "#!/bin/sh\necho \"$*\" >> " << calls << "\nPATH=${PATH#*:}\nexec scsi_id \"$@\"\n";
  std::filesystem::permissions("/tmp/zl_bin/scsi_id", std::filesystem::perms::owner_all);
  std::ofstream{empty};
  ASSERT_EQ(0, setenv("PATH", ("/tmp/zl_bin:" + path).c_str(), 1));
  auto disks = SCSI::CreateDiskSubsystem();
  for (const bool hidden : {false, true}) {
    SCOPED_TRACE(hidden ? "INQUIRY" : "sysfs");
    const std::vector<SCSI::Disk> list = List(*disks);
    ASSERT_EQ(8u, list.size());
    EXPECT_EQ("", Read(calls));
    size_t identified = 0;
    for (const SCSI::Disk& disk : list) {
      const std::string name = Common::ToUtf8(disk.name), page = "/sys/block/" + name + "/device/vpd_pg80";
      SCOPED_TRACE(name);
      std::string out = VmTest::Output("scsi_id --page=0x83 --export --whitelisted --device=/dev/" + name);
      FILE* stream = fmemopen(&out[0], out.size(), "r");
      GUID expected;
      (void)SCSI::Detail::ReadScsiSerial(stream, disk.name, expected);  // zero without one
      std::fclose(stream);
      EXPECT_EQ(expected, disk.id);
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
  for (const SCSI::Disk& disk : List(*disks))
    umount2(("/sys/block/" + Common::ToUtf8(disk.name) + "/device/vpd_pg80").c_str(), MNT_DETACH);
  ASSERT_EQ(0, setenv("PATH", path.c_str(), 1));
}

// Each driver takes its disk off the bus and brings it back with a host scan, and the
// kernel's remove and add uevents end the library's waits.
TEST(RealKernel, RemovesAndAddsTheDiskOfEveryControllerKind) {
  auto disks = SCSI::CreateDiskSubsystem();
  auto lock = disks->Lock();
  ASSERT_FALSE(disks->Refresh());
  const std::vector<SCSI::Disk> before = List(*disks);
  ASSERT_EQ(8u, before.size());  // no controller kind left out
  std::vector<String> names(before.size());
  for (size_t i = 0; i < before.size(); ++i) {
    const SCSI::Disk& disk = before[i];
    SCOPED_TRACE(Common::ToUtf8(disk.name));
    EXPECT_TRUE(disk.readable);
    const std::string sysfs = "/sys/block/" + Common::ToUtf8(disk.name);
    EXPECT_EQ(0, access(sysfs.c_str(), F_OK));
    Common::Error e = disks->RemoveDisk(disk);
    ASSERT_FALSE(e) << TestSupport::ChainText(e);
    EXPECT_NE(0, access(sysfs.c_str(), F_OK));
    e = disks->AddDisk(disk, names[i]);
    ASSERT_FALSE(e) << TestSupport::ChainText(e);
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

}  // namespace
