// The disk library stand-in finds disks and their SCSI addresses in sysfs.
#include <unistd.h>

#include <thread>

#include "dsk_supp.h"
#include "fake_machine.h"

namespace FakeMachineTesting {
namespace {

using dsk_supp::UnixVolID;

UnixVolID ByName(const std::string& node) {
  UnixVolID volume;
  volume.DevNode = node;
  return volume;
}

bool Lookup(const std::string& node, UnixVolID& volume) {
  dsk_supp::index_t index;
  return dsk_supp::IndexbyDevName(ByName(node), dsk_supp::mt_disk, index) &&
         dsk_supp::VolIDbyIndex(index, dsk_supp::mt_disk, volume);
}

TEST(DskSupp, InitNeedsSysfs) {
  AS_FAKE_MACHINE(m);
  dsk_supp::ecodes code = dsk_supp::ec_ok;
  ASSERT_TRUE(dsk_supp::InitInternals(code));
  EXPECT_EQ(dsk_supp::ec_ok, code);
  EXPECT_NE(nullptr, dsk_supp::Instance.load());
  m.WriteFile("/sys/.keep", "");
  ::rmdir("/sys/dev/block");
  EXPECT_FALSE(dsk_supp::InitInternals(code));
  EXPECT_EQ(dsk_supp::ec_no_sysfs, code);
}

// The address comes from the first readable device/scsi_disk entry, else the device link.
TEST(DskSupp, NamesAndNumbersLeadToTheAddress) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sda").At(2, 3, 1, 4);
  m.Disk("sdb").At(5, 0, 9, 0).ScsiDiskEntries({"junk", "7:0:3:0"});
  m.Disk("sdc").At(6, 0, 2, 0).NoScsiDisk();
  m.Disk("sdd").At(6, 0, 4, 0).ScsiDiskEntries({"1:2:3"});
  m.VirtioDisk("vda");
  m.Build();
  const unsigned kNone = dsk_supp::kNoScsiAddress;
  const struct {
    const char* node;
    unsigned minor, host, channel, target, lun;
  } cases[] = {{"/dev/sda", 0, 2, 3, 1, 4},
               {"/dev/sdb", 16, 7, 0, 3, 0},
               {"/dev/sdc", 32, 6, 0, 2, 0},
               {"/dev/sdd", 48, 6, 0, 4, 0},
               {"/dev/vda", 0, kNone, kNone, kNone, kNone}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.node);
    UnixVolID volume;
    ASSERT_TRUE(Lookup(c.node, volume));
    EXPECT_EQ(c.node, volume.DevNode);
    EXPECT_EQ(c.minor, volume.Minor);
    EXPECT_EQ((std::vector<unsigned>{c.host, c.channel, c.target, c.lun}),
              (std::vector<unsigned>{volume.ScsiHost, volume.ScsiChannel, volume.ScsiTarget, volume.ScsiLun}));
    UnixVolID numbers;
    numbers.Major = volume.Major;
    numbers.Minor = volume.Minor;
    dsk_supp::index_t byName = 0, byNumbers = 1;
    ASSERT_TRUE(dsk_supp::IndexbyDevName(ByName(c.node), dsk_supp::mt_disk, byName));
    ASSERT_TRUE(dsk_supp::IndexbyDev(numbers, dsk_supp::mt_disk, byNumbers));
    EXPECT_EQ(byName, byNumbers);
  }
}

TEST(DskSupp, UnknownOddOrRemovedDevicesAreNotFound) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(2, 0, 1, 0).Partition(1, 2048, 4096);
  m.Disk("sdc").At(2, 0, 2, 0);
  m.Disk("sdd").At(2, 0, 3, 0);
  m.Disk("sde").At(2, 0, 4, 0);
  m.Disk("sdf").At(2, 0, 5, 0);
  m.Build();
  m.WriteFile("/sys/block/sdc/dev", "8:32x\n");
  m.WriteFile("/sys/block/sdd/dev", "99999999999:1\n");
  m.WriteFile("/sys/block/sde/dev", "\x01\xff");
  dsk_supp::index_t removed;
  ASSERT_TRUE(dsk_supp::IndexbyDevName(ByName("/dev/sdf"), dsk_supp::mt_disk, removed));
  m.RemoveDisk("sdf");
  dsk_supp::index_t index;
  for (const char* node :
       {"/dev/sdz", "/dev/sdb1", "/dev/", "", "/dev/..", "/dev/sdc", "/dev/sdd", "/dev/sde", "/dev/sdf"}) {
    SCOPED_TRACE(node);
    EXPECT_FALSE(dsk_supp::IndexbyDevName(ByName(node), dsk_supp::mt_disk, index));
  }
  UnixVolID numbers;
  numbers.Major = 8;
  for (unsigned minor : {17u, 240u}) {  // a partition, and nothing
    numbers.Minor = minor;
    EXPECT_FALSE(dsk_supp::IndexbyDev(numbers, dsk_supp::mt_disk, index)) << minor;
  }
  EXPECT_FALSE(dsk_supp::IndexbyDevName(ByName("/dev/sdb"), dsk_supp::mt_unknown, index));
  UnixVolID volume = ByName("kept");
  for (dsk_supp::index_t bad : {(8ull << 32) | 17, (8ull << 32) | 240, removed})
    EXPECT_FALSE(dsk_supp::VolIDbyIndex(bad, dsk_supp::mt_disk, volume));
  EXPECT_EQ("kept", volume.DevNode);
}

TEST(DskSupp, LookupsFromManyThreadsAgree) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(2, 0, 1, 0);
  m.Disk("sdc").At(3, 0, 7, 0);
  m.Build();
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &wrong] {
      const char* node = t % 2 ? "/dev/sdb" : "/dev/sdc";
      for (int i = 0; i < 200; ++i) {
        UnixVolID volume;
        dsk_supp::ecodes code;
        if (!dsk_supp::InitInternals(code) || !Lookup(node, volume) || volume.DevNode != node) ++wrong[t];
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), wrong);
}

}  // namespace
}  // namespace FakeMachineTesting
