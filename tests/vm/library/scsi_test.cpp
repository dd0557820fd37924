// The disk subsystem on a real kernel: the appliance VM boots with two virtio-scsi
// disks and one megasas disk of known serials (see CMakeLists.txt), and this program
// runs inside it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "core/common/unicode.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"

namespace {

GUID Serial(int n) {
  GUID id;
  EXPECT_TRUE(GUID::Parse("5A4C4D00-0000-0000-0000-00000000000" + std::to_string(n), id));
  return id;
}

std::vector<SCSI::Disk> List(SCSI::DiskSubsystem& disks) {
  std::vector<SCSI::Disk> list;
  const Common::Error e = disks.Enumerate(list);
  EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  return list;
}

const SCSI::Disk* Find(const std::vector<SCSI::Disk>& list, const GUID& id) {
  const auto found = std::find_if(list.begin(), list.end(), [&](const SCSI::Disk& d) { return d.id == id; });
  return found == list.end() ? nullptr : &*found;
}

TEST(RealKernel, EnumeratesTheControllersDisks) {
  auto disks = SCSI::CreateDiskSubsystem();
  auto lock = disks->Lock();
  const std::vector<SCSI::Disk> list = List(*disks);
  ASSERT_EQ(3u, list.size());
  for (int n : {1, 2, 3}) {
    SCOPED_TRACE(n);
    const SCSI::Disk* disk = Find(list, Serial(n));
    ASSERT_NE(nullptr, disk);
    EXPECT_EQ(n < 3 ? SCSI::HostTypeVirtioScsi : SCSI::HostTypeMegaraidSas, disk->type);
    EXPECT_TRUE(disk->readable);
    EXPECT_EQ(0, access(("/sys/block/" + Common::ToUtf8(disk->name)).c_str(), F_OK));
  }
  EXPECT_TRUE(std::is_sorted(list.begin(), list.end()));
  EXPECT_FALSE(disks->Refresh());
}

TEST(RealKernel, RemovesADiskAndBringsItBack) {
  auto disks = SCSI::CreateDiskSubsystem();
  auto lock = disks->Lock();
  const SCSI::Disk* found = Find(List(*disks), Serial(2));
  ASSERT_NE(nullptr, found);
  const SCSI::Disk disk = *found;
  const std::string block = "/sys/block/" + Common::ToUtf8(disk.name);

  Common::Error e = disks->RemoveDisk(disk);
  ASSERT_FALSE(e) << Common::ToUtf8(e.GetText());
  EXPECT_NE(0, access(block.c_str(), F_OK));
  EXPECT_EQ(nullptr, Find(List(*disks), Serial(2)));

  String name;
  e = disks->AddDisk(disk, name);
  ASSERT_FALSE(e) << Common::ToUtf8(e.GetText());
  EXPECT_FALSE(name.empty());
  const SCSI::Disk* back = Find(List(*disks), Serial(2));
  ASSERT_NE(nullptr, back);
  EXPECT_EQ(name, back->name);
  EXPECT_EQ(disk.host, back->host);
  EXPECT_EQ(disk.target, back->target);
}

TEST(RealKernel, RemovingAGoneDiskSaysSo) {
  auto disks = SCSI::CreateDiskSubsystem();
  SCSI::Disk ghost;
  ghost.name = Common::Str(u"sdz");
  const Common::Error e = disks->RemoveDisk(ghost);
  EXPECT_EQ(0x530040u, e.GetCode());
  EXPECT_EQ("Cannot find attached hard disks in the system.", Common::ToUtf8(e.GetCause().GetText()));
}

}  // namespace
