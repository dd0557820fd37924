// The disk subsystem on a real kernel: the appliance VM boots with one disk on each
// controller kind the library knows (see ../CMakeLists.txt), and this program runs
// inside it. Removing and adding a disk waits for the kernel's uevents, so these
// tests also show that the notifications arrive.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../../support/error_text.h"
#include "core/common/unicode.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"

namespace {

// The machine's disks: SCSI ones by the serial the VM gave them (0: an ATA disk,
// which has no 32-digit serial and is found by its host's kind).
struct MachineDisk {
  int serial;
  SCSI::HostType type;
};
const MachineDisk kDisks[] = {
    {1, SCSI::HostTypeVirtioScsi}, {2, SCSI::HostTypeVirtioScsi}, {3, SCSI::HostTypeSym53c8xx},
    {4, SCSI::HostTypeMegaraidSas}, {5, SCSI::HostTypePvScsi},    {6, SCSI::HostTypeMptSas},
    {0, SCSI::HostTypeAhci},        {0, SCSI::HostTypeAtaPiix},
};

std::vector<SCSI::Disk> List(SCSI::DiskSubsystem& disks) {
  std::vector<SCSI::Disk> list;
  const Common::Error e = disks.Enumerate(list);
  EXPECT_FALSE(e) << TestSupport::ChainText(e);
  return list;
}

const SCSI::Disk* Find(const std::vector<SCSI::Disk>& list, const MachineDisk& want) {
  GUID id;
  if (want.serial != 0) {
    EXPECT_TRUE(GUID::Parse("5A4C4D00-0000-0000-0000-00000000000" + std::to_string(want.serial), id));
  }
  const auto found = std::find_if(list.begin(), list.end(), [&](const SCSI::Disk& d) {
    return d.type == want.type && d.id == id;
  });
  return found == list.end() ? nullptr : &*found;
}

bool InSysfs(const SCSI::Disk& disk) { return access(("/sys/block/" + Common::ToUtf8(disk.name)).c_str(), F_OK) == 0; }

TEST(RealKernel, EnumeratesTheDisksOfEveryControllerKind) {
  auto disks = SCSI::CreateDiskSubsystem();
  auto lock = disks->Lock();
  const std::vector<SCSI::Disk> list = List(*disks);
  EXPECT_EQ(std::size(kDisks), list.size());
  for (const MachineDisk& want : kDisks) {
    SCOPED_TRACE(testing::Message() << "serial " << want.serial << ", host type " << want.type);
    const SCSI::Disk* disk = Find(list, want);
    ASSERT_NE(nullptr, disk);
    EXPECT_TRUE(disk->readable);
    EXPECT_TRUE(InSysfs(*disk));
  }
  EXPECT_TRUE(std::is_sorted(list.begin(), list.end()));
  EXPECT_FALSE(disks->Refresh());
  EXPECT_EQ(list.size(), List(*disks).size());
}

// Each driver takes the disk off its bus and brings it back with a host scan, and the
// kernel's remove and add uevents end the library's waits.
TEST(RealKernel, RemovesADiskAndBringsItBackOnEveryControllerKind) {
  auto disks = SCSI::CreateDiskSubsystem();
  auto lock = disks->Lock();
  const std::vector<SCSI::Disk> before = List(*disks);
  ASSERT_EQ(std::size(kDisks), before.size());
  std::vector<String> names;
  for (const SCSI::Disk& disk : before) {
    SCOPED_TRACE(testing::Message() << Common::ToUtf8(disk.name) << ", host type " << disk.type);
    Common::Error e = disks->RemoveDisk(disk);
    ASSERT_FALSE(e) << TestSupport::ChainText(e);
    EXPECT_FALSE(InSysfs(disk));
    names.emplace_back();
    e = disks->AddDisk(disk, names.back());
    ASSERT_FALSE(e) << TestSupport::ChainText(e);
  }
  // Back at the same addresses, under the names AddDisk gave.
  const std::vector<SCSI::Disk> after = List(*disks);
  ASSERT_EQ(before.size(), after.size());
  for (size_t i = 0; i < after.size(); ++i) {
    SCOPED_TRACE(Common::ToUtf8(after[i].name));
    EXPECT_EQ(names[i], after[i].name);
    EXPECT_TRUE(before[i].type == after[i].type && before[i].host == after[i].host &&
                before[i].target == after[i].target && before[i].id == after[i].id);
    EXPECT_TRUE(after[i].readable);
  }
}

TEST(RealKernel, RemovingAGoneDiskFails) {
  auto disks = SCSI::CreateDiskSubsystem();
  SCSI::Disk ghost;
  ghost.name = Common::Str(u"sdz");
  const Common::Error e = disks->RemoveDisk(ghost);
  EXPECT_EQ(0x530040u, e.GetCode());
  EXPECT_EQ(0x530040u, e.GetCause().GetCode());
}

}  // namespace
