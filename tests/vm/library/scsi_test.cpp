// The disk subsystem on a real kernel: the appliance VM boots with one disk on each
// controller kind the library knows (see ../CMakeLists.txt), and this program runs
// inside it. Removing and adding a disk waits for the kernel's uevents, so this also
// shows that the notifications arrive.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "../../support/error_text.h"
#include "core/common/unicode.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"

namespace {

std::vector<SCSI::Disk> List(SCSI::DiskSubsystem& disks) {
  std::vector<SCSI::Disk> list;
  const Common::Error e = disks.Enumerate(list);
  EXPECT_FALSE(e) << TestSupport::ChainText(e);
  return list;
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
