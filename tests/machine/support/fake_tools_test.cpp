// The fake tools answer the library's command lines as the real ones do on a real
// machine, and the real tools work on the images.
#include "fake_machine.h"
#include "run_shell.h"

namespace FakeMachineTesting {
namespace {

using Lines = std::vector<std::string>;

TEST(FakeTools, ScsiIdPrintsTheDescribedIdentity) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(2, 0, 1, 0).Serial("6000c29a1b2c3d4e5f60718293a4b5c6");
  m.Disk("sdc").At(2, 0, 2, 0).ScsiIdOutput("garbage\x01\n");
  m.Disk("sdd").At(2, 0, 3, 0).ScsiIdFails(3);
  m.Disk("sde").At(2, 0, 4, 0);
  m.Build();
  ShellResult b = RunShell("scsi_id --page=0x83 --export --whitelisted --device=/dev/sdb");
  EXPECT_EQ(0, b.status);
  EXPECT_NE(std::string::npos, b.out.find("\nID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6\n")) << b.out;
  ShellResult c = RunShell("scsi_id --page=0x83 --export --whitelisted --device=/dev/sdc");
  EXPECT_EQ("garbage\x01\n", c.out);
  ShellResult d = RunShell("scsi_id --page=0x83 --export --whitelisted --device=/dev/sdd");
  EXPECT_EQ(3, d.status);
  EXPECT_EQ("", d.out);
  ShellResult e = RunShell("scsi_id --page=0x83 --export --whitelisted --device=/dev/sde");
  EXPECT_EQ(1, e.status);
  EXPECT_EQ("", e.out);
  EXPECT_EQ("scsi_id --page=0x83 --export --whitelisted --device=/dev/sdb", m.Calls("scsi_id").at(0));
  EXPECT_EQ(4u, m.Calls().size());
}

TEST(FakeTools, ForcedFailureEndsWhenLifted) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").Serial("1");
  m.Build();
  m.FailTool("scsi_id", 127);
  EXPECT_EQ(127, RunShell("scsi_id --device=/dev/sdb").status);
  m.FailTool("scsi_id", -1);
  EXPECT_EQ(0, RunShell("scsi_id --device=/dev/sdb").status);
}

// The library's own preparation sequence, command line for command line.
TEST(FakeTools, PreparedDiskMountsAndUnmounts) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(2, 0, 1, 0).Size(64_MiB);
  m.Build();
  ASSERT_EQ(0, RunShell("dd if=/dev/zero of=/dev/sdb bs=512 count=1 2>/dev/null").status);
  ASSERT_EQ(0, RunShell("echo -e \"n\\n1\\n\\n\\n\\nw\\ny\" | gdisk /dev/sdb >/dev/null 2>&1").status);
  EXPECT_EQ("1\n", m.ReadFile("/sys/block/sdb/sdb1/partition"));
  EXPECT_EQ("2048\n", m.ReadFile("/sys/block/sdb/sdb1/start"));
  ASSERT_TRUE(m.Exists("/dev/sdb1"));
  ASSERT_EQ(0, RunShell("mke2fs -q -t ext4 /dev/sdb1 2>/dev/null").status);
  EXPECT_NE(std::string::npos, RunShell("blkid -o export /dev/sdb1").out.find("\nUUID="));
  ASSERT_EQ(0, RunShell("tune2fs /dev/sdb1 -L \"ZLMdata\" >/dev/null").status);
  EXPECT_EQ("ZLMdata\n", RunShell("e2label /dev/sdb1").out);

  EXPECT_EQ("\n", RunShell("lsblk -n -o mountpoint /dev/sdb1").out);
  m.WriteFile("/mnt/local_storages/st1/.keep", "");
  EXPECT_EQ(0, RunShell("mount -t auto /dev/sdb1 /mnt/local_storages/st1").status);
  EXPECT_EQ("/mnt/local_storages/st1\n", RunShell("lsblk -n -o mountpoint /dev/sdb1").out);
  EXPECT_EQ("\n/mnt/local_storages/st1\n", RunShell("lsblk -n -o mountpoint /dev/sdb").out);
  EXPECT_EQ(32, RunShell("mount -t auto /dev/sdb1 /mnt/local_storages/st1 2>/dev/null").status);
  EXPECT_EQ(0, RunShell("umount /dev/sdb1").status);
  EXPECT_EQ(32, RunShell("umount /dev/sdb1 2>/dev/null").status);
  EXPECT_TRUE(m.Mounts().empty());
  EXPECT_EQ((Lines{"mount -t auto /dev/sdb1 /mnt/local_storages/st1", "mount -t auto /dev/sdb1 /mnt/local_storages/st1"}),
            m.Calls("mount"));
  EXPECT_EQ((Lines{"gdisk /dev/sdb"}), m.Calls("gdisk"));
}

TEST(FakeTools, MountRefusesWhatTheKernelWould) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").Partition(1, 2048, 8192);
  m.Build();
  m.WriteFile("/mnt/x/.keep", "");
  struct Case {
    const char* command;
    int status;
  } cases[] = {
      {"mount -t auto /dev/sdb1 /mnt/x", 32},      // no file system yet
      {"mount -t auto /dev/sdb9 /mnt/x", 32},      // no such device
      {"mount -t auto /dev/sdb1 /mnt/none", 32},   // no mount point
      {"mount -t auto /dev/sdb1", 1},              // not a form the library uses
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    EXPECT_EQ(c.status, RunShell(std::string(c.command) + " 2>/dev/null").status);
  }
  EXPECT_TRUE(m.Mounts().empty());
}

TEST(FakeTools, PresetMountsAreSeenAndLsblkRefusesOtherQueries) {
  AS_FAKE_MACHINE(m);
  m.Disk("sda").Partition(1, 2048, 8192).Partition(2, 10240, 8192);
  m.Build();
  m.Mounted("/dev/sda2", "/");
  EXPECT_EQ("/\n", RunShell("lsblk -n -o mountpoint /dev/sda2").out);
  EXPECT_EQ("\n\n/\n", RunShell("lsblk -n -o mountpoint /dev/sda").out);
  EXPECT_EQ(1, RunShell("lsblk -o name /dev/sda 2>/dev/null").status);
  EXPECT_EQ(32, RunShell("lsblk -n -o mountpoint /dev/sdz 2>/dev/null").status);
  EXPECT_EQ(0, RunShell("umount /").status);
  EXPECT_TRUE(m.Mounts().empty());
}

TEST(FakeTools, GdiskFailureLeavesSysfsAlone) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").Size(64_MiB).Partition(1, 2048, 4096);
  m.Build();
  m.FailTool("gdisk", 5);
  EXPECT_EQ(5, RunShell("echo -e \"n\\n1\\n\\n\\n\\nw\\ny\" | gdisk /dev/sdb >/dev/null 2>&1").status);
  EXPECT_EQ("4096\n", m.ReadFile("/sys/block/sdb/sdb1/size"));
}

TEST(FakeTools, RereadDropsPartitionsTheTableNoLongerHas) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").Size(64_MiB).Partition(1, 2048, 4096).Partition(2, 8192, 4096);
  m.Build();
  m.RereadPartitions("sdb");  // the image holds no table at all
  EXPECT_FALSE(m.Exists("/sys/block/sdb/sdb1"));
  EXPECT_FALSE(m.Exists("/sys/block/sdb/sdb2"));
  EXPECT_FALSE(m.Exists("/sys/dev/block/8:18"));
  EXPECT_FALSE(m.Exists("/dev/sdb2"));
}

}  // namespace
}  // namespace FakeMachineTesting
