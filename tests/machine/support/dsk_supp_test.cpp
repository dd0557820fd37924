// The disk library stand-in finds disks and their SCSI addresses in sysfs.
#include "dsk_supp.h"
#include "fake_machine.h"
#include "files.h"

namespace {

using dsk_supp::UnixVolID;

bool ByName(const std::string& node, dsk_supp::index_t& index) {
  return dsk_supp::IndexbyDevName(UnixVolID{node}, dsk_supp::mt_disk, index);
}

bool Lookup(const std::string& node, UnixVolID& volume) {
  dsk_supp::index_t index;
  return ByName(node, index) && dsk_supp::VolIDbyIndex(index, dsk_supp::mt_disk, volume);
}

// The address comes from the first readable device/scsi_disk entry, else the device link.
TEST(DskSupp, NamesAndNumbersLeadToTheAddress) {
  AS_FAKE_MACHINE(m);
  m.Disk("sda").At(2, 3, 1, 4);
  m.Disk("sdb").At(5, 0, 9, 0).ScsiDiskEntries({"junk", "7:0:3:0"});
  m.Disk("sdc").At(6, 0, 2, 0).NoScsiDisk();
  m.Disk("sdd").At(6, 0, 4, 0).ScsiDiskEntries({"1:2:3"});
  m.Disk("vda");
  m.Build();
  m.WriteFile("/sys/block/sdc/dev", "8:32");  // a last line without its line feed
  const unsigned kNone = dsk_supp::kNoScsiAddress;
  const std::pair<const char*, std::vector<unsigned>> cases[] = {  // major, minor, host, channel, target, LUN
      {"/dev/sda", {8, 0, 2, 3, 1, 4}},  {"/dev/sdb", {8, 16, 7, 0, 3, 0}}, {"/dev/sdc", {8, 32, 6, 0, 2, 0}},
      {"/dev/sdd", {8, 48, 6, 0, 4, 0}}, {"/dev/vda", {254, 0, kNone, kNone, kNone, kNone}}};
  for (const auto& [node, numbers] : cases) {
    SCOPED_TRACE(node);
    UnixVolID volume;
    ASSERT_TRUE(Lookup(node, volume));
    EXPECT_EQ(node, volume.DevNode);
    EXPECT_EQ(numbers, (std::vector<unsigned>{volume.Major, volume.Minor, volume.ScsiHost, volume.ScsiChannel,
                                              volume.ScsiTarget, volume.ScsiLun}));
    dsk_supp::index_t byName = 0, byNumbers = 1;
    ASSERT_TRUE(ByName(node, byName) && dsk_supp::IndexbyDev(volume, dsk_supp::mt_disk, byNumbers));
    EXPECT_EQ(byName, byNumbers);
  }
}

TEST(DskSupp, UnknownOddOrRemovedDevicesAreNotFound) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(2, 0, 1, 0).Partition(1, 2048, 4096);
  for (unsigned target : {2, 3, 5}) m.Disk(std::string("sd") + char('a' + target)).At(2, 0, target, 0);
  m.Build();
  m.WriteFile("/sys/block/sdc/dev", "8:32x\n");
  m.WriteFile("/sys/block/sdd/dev", "99999999999:1\n");
  dsk_supp::index_t removed, index;
  ASSERT_TRUE(ByName("/dev/sdf", removed));
  m.RemoveDisk("sdf");
  for (const char* node : {"/dev/sdz", "/dev/sdb1", "/dev/", "/dev/..", "/dev/sdc", "/dev/sdd", "/dev/sdf"})
    EXPECT_FALSE(ByName(node, index)) << node;
  UnixVolID numbers;
  numbers.Major = 8, numbers.Minor = 17;  // a partition
  EXPECT_FALSE(dsk_supp::IndexbyDev(numbers, dsk_supp::mt_disk, index));
  UnixVolID volume{"kept"};
  for (dsk_supp::index_t bad : {(8ull << 32) | 17, removed})
    EXPECT_FALSE(dsk_supp::VolIDbyIndex(bad, dsk_supp::mt_disk, volume));
  EXPECT_EQ("kept", volume.DevNode);
}

}  // namespace
