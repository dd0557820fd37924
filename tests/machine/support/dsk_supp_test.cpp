// The disk library stand-in, as the library asks it: by node name for the numbers (to
// remove a disk), by numbers for the node and SCSI address (to claim an added disk).
#include "dsk_supp.h"
#include "fake_machine.h"

namespace {

using namespace dsk_supp;

TEST(DskSupp, NamesAndNumbersLeadToTheAddress) {
  AS_FAKE_MACHINE(m);
  m.Disk("sda").At(2, 3, 1, 4);
  m.Disk("sdb").At(5, 0, 9, 0).Partition(1, 2048, 4096);  // 8:16, its partition 8:17
  m.Disk("sdc").At(6, 0, 2, 0);                           // 8:32, removed below
  m.Disk("vda");
  m.Build();
  m.RemoveDisk("sdc");
  const unsigned kNone = kNoScsiAddress;
  const std::pair<const char*, std::vector<unsigned>> cases[] = {  // major, minor, host, channel, target, LUN
      {"/dev/sda", {8, 0, 2, 3, 1, 4}}, {"/dev/sdb", {8, 16, 5, 0, 9, 0}},
      {"/dev/vda", {254, 0, kNone, kNone, kNone, kNone}}, {"/dev/sdb1", {}}, {"/dev/sdc", {}}};  // {}: not found
  for (const auto& [node, numbers] : cases) {
    SCOPED_TRACE(node);
    UnixVolID volume{node};
    index_t byName = 0, byNumbers = 1;
    ASSERT_EQ(!numbers.empty(), IndexbyDevName(volume, mt_disk, byName) && VolIDbyIndex(byName, mt_disk, volume));
    if (numbers.empty()) continue;
    EXPECT_EQ(node, volume.DevNode);
    EXPECT_EQ(numbers, (std::vector<unsigned>{volume.Major, volume.Minor, volume.ScsiHost, volume.ScsiChannel,
                                              volume.ScsiTarget, volume.ScsiLun}));
    ASSERT_TRUE(IndexbyDev(volume, mt_disk, byNumbers));
    EXPECT_EQ(byName, byNumbers);
  }
  for (const unsigned minor : {17u, 32u}) {  // the partition, the removed disk
    UnixVolID volume;
    volume.Major = 8, volume.Minor = minor;
    index_t index;
    EXPECT_FALSE(IndexbyDev(volume, mt_disk, index)) << minor;
  }
}

}  // namespace
