// The disk library stand-in finds disks and their SCSI addresses in sysfs.
#include <unistd.h>

#include "dsk_supp.h"
#include "fake_machine.h"

#include <thread>

namespace FakeMachineTesting {
namespace {

using dsk_supp::UnixVolID;

UnixVolID ByName(const std::string& node) {
  UnixVolID volume;
  volume.DevNode = node;
  return volume;
}

UnixVolID ByNumbers(unsigned major, unsigned minor) {
  UnixVolID volume;
  volume.Major = major;
  volume.Minor = minor;
  return volume;
}

class DskSupp : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!FakeMachine::Available(&why)) GTEST_SKIP() << why;
    m_ = std::make_unique<FakeMachine>();
  }
  FakeMachine& m() { return *m_; }

  std::unique_ptr<FakeMachine> m_;
};

TEST_F(DskSupp, InitNeedsSysfs) {
  dsk_supp::ecodes code = dsk_supp::ec_ok;
  ASSERT_TRUE(dsk_supp::InitInternals(code));
  EXPECT_EQ(dsk_supp::ec_ok, code);
  EXPECT_NE(nullptr, dsk_supp::Instance.load());
  m().WriteFile("/sys/.keep", "");
  ::rmdir("/sys/dev/block");
  EXPECT_FALSE(dsk_supp::InitInternals(code));
  EXPECT_EQ(dsk_supp::ec_no_sysfs, code);
}

TEST_F(DskSupp, NameAndNumbersLeadToTheSameScsiDisk) {
  m().Host(2, "virtio_scsi\n");
  m().Disk("sdb").At(2, 3, 1, 4);
  m().Build();
  dsk_supp::index_t byName = 0, byNumbers = 1;
  ASSERT_TRUE(dsk_supp::IndexbyDevName(ByName("/dev/sdb"), dsk_supp::mt_disk, byName));
  ASSERT_TRUE(dsk_supp::IndexbyDev(ByNumbers(8, 16), dsk_supp::mt_disk, byNumbers));
  EXPECT_EQ(byName, byNumbers);
  UnixVolID volume;
  ASSERT_TRUE(dsk_supp::VolIDbyIndex(byName, dsk_supp::mt_disk, volume));
  EXPECT_EQ("/dev/sdb", volume.DevNode);
  EXPECT_EQ(8u, volume.Major);
  EXPECT_EQ(16u, volume.Minor);
  EXPECT_EQ(2u, volume.ScsiHost);
  EXPECT_EQ(3u, volume.ScsiChannel);
  EXPECT_EQ(1u, volume.ScsiTarget);
  EXPECT_EQ(4u, volume.ScsiLun);
}

TEST_F(DskSupp, AddressComesFromTheFirstReadableEntryElseTheDeviceLink) {
  m().Disk("sdb").At(5, 0, 9, 0).ScsiDiskEntries({"junk", "7:0:3:0"});
  m().Disk("sdc").At(6, 0, 2, 0).NoScsiDisk();
  m().Disk("sdd").At(6, 0, 4, 0).ScsiDiskEntries({"1:2:3"});
  m().VirtioDisk("vda");
  m().Build();
  struct Case {
    const char* node;
    unsigned host, target;
  } cases[] = {{"/dev/sdb", 7, 3}, {"/dev/sdc", 6, 2}, {"/dev/sdd", 6, 4},
               {"/dev/vda", dsk_supp::kNoScsiAddress, dsk_supp::kNoScsiAddress}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.node);
    dsk_supp::index_t index;
    UnixVolID volume;
    ASSERT_TRUE(dsk_supp::IndexbyDevName(ByName(c.node), dsk_supp::mt_disk, index));
    ASSERT_TRUE(dsk_supp::VolIDbyIndex(index, dsk_supp::mt_disk, volume));
    EXPECT_EQ(c.node, volume.DevNode);
    EXPECT_EQ(c.host, volume.ScsiHost);
    EXPECT_EQ(c.target, volume.ScsiTarget);
  }
}

TEST_F(DskSupp, UnknownOrOddDevicesAreNotFound) {
  m().Disk("sdb").At(2, 0, 1, 0).Partition(1, 2048, 4096);
  m().Disk("sdc").At(2, 0, 2, 0);
  m().Disk("sdd").At(2, 0, 3, 0);
  m().Disk("sde").At(2, 0, 4, 0);
  m().Build();
  m().WriteFile("/sys/block/sdc/dev", "8:32x\n");
  m().WriteFile("/sys/block/sdd/dev", "99999999999:1\n");
  m().WriteFile("/sys/block/sde/dev", "\x01\xff");
  dsk_supp::index_t index;
  for (const char* node : {"/dev/sdz", "/dev/sdb1", "/dev/", "", "/dev/..", "/dev/sdc", "/dev/sdd", "/dev/sde"}) {
    SCOPED_TRACE(node);
    EXPECT_FALSE(dsk_supp::IndexbyDevName(ByName(node), dsk_supp::mt_disk, index));
  }
  EXPECT_FALSE(dsk_supp::IndexbyDev(ByNumbers(8, 17), dsk_supp::mt_disk, index)) << "a partition";
  EXPECT_FALSE(dsk_supp::IndexbyDev(ByNumbers(8, 240), dsk_supp::mt_disk, index));
  EXPECT_FALSE(dsk_supp::IndexbyDevName(ByName("/dev/sdb"), dsk_supp::mt_unknown, index));
  UnixVolID volume = ByName("kept");
  EXPECT_FALSE(dsk_supp::VolIDbyIndex((8ull << 32) | 17, dsk_supp::mt_disk, volume));
  EXPECT_FALSE(dsk_supp::VolIDbyIndex((8ull << 32) | 240, dsk_supp::mt_disk, volume));
  EXPECT_EQ("kept", volume.DevNode);
}

TEST_F(DskSupp, RemovedDiskIsNoLongerFound) {
  m().Disk("sdb").At(2, 0, 1, 0);
  m().Build();
  dsk_supp::index_t index;
  ASSERT_TRUE(dsk_supp::IndexbyDevName(ByName("/dev/sdb"), dsk_supp::mt_disk, index));
  m().RemoveDisk("sdb");
  UnixVolID volume;
  EXPECT_FALSE(dsk_supp::VolIDbyIndex(index, dsk_supp::mt_disk, volume));
  EXPECT_FALSE(dsk_supp::IndexbyDevName(ByName("/dev/sdb"), dsk_supp::mt_disk, index));
}

TEST_F(DskSupp, LookupsFromManyThreadsAgree) {
  m().Disk("sdb").At(2, 0, 1, 0);
  m().Disk("sdc").At(3, 0, 7, 0);
  m().Build();
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &wrong] {
      const char* node = t % 2 ? "/dev/sdb" : "/dev/sdc";
      for (int i = 0; i < 200; ++i) {
        dsk_supp::index_t index;
        UnixVolID volume;
        dsk_supp::ecodes code;
        if (!dsk_supp::InitInternals(code) || !dsk_supp::IndexbyDevName(ByName(node), dsk_supp::mt_disk, index) ||
            !dsk_supp::VolIDbyIndex(index, dsk_supp::mt_disk, volume) || volume.DevNode != node) {
          ++wrong[t];
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), wrong);
}

}  // namespace
}  // namespace FakeMachineTesting
