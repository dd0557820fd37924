// The fake tools answer the library's command lines as the real ones do on a real
// machine, and the real tools work on the images.
#include "fake_machine.h"
#include "run_shell.h"

namespace FakeMachineTesting {
namespace {

using Lines = std::vector<std::string>;

const char kNewPartition[] = "echo -e \"n\\n1\\n\\n\\n\\nw\\ny\" | gdisk /dev/sdb >/dev/null 2>&1";

TEST(FakeTools, ScsiIdPrintsTheDescribedIdentityOrFails) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(2, 0, 1, 0).Serial("6000c29a1b2c3d4e5f60718293a4b5c6");
  m.Disk("sdc").At(2, 0, 2, 0).ScsiIdFails(3);
  m.Build();
  const char kCommand[] = "scsi_id --page=0x83 --export --whitelisted --device=/dev/sdb";
  ShellResult b = RunShell(kCommand);
  EXPECT_EQ(0, b.status);
  EXPECT_NE(std::string::npos, b.out.find("\nID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6\n")) << b.out;
  ShellResult c = RunShell("scsi_id --device=/dev/sdc");
  EXPECT_EQ(3, c.status);
  EXPECT_EQ("", c.out);
  m.FailTool("scsi_id", 127);
  EXPECT_EQ(127, RunShell(kCommand).status);
  m.FailTool("scsi_id", -1);
  EXPECT_EQ(0, RunShell(kCommand).status);
  EXPECT_EQ(kCommand, m.Calls("scsi_id").at(0));
  EXPECT_EQ(4u, m.Calls().size());
}

// The library's own preparation sequence, command line for command line.
TEST(FakeTools, PreparedDiskMountsAndUnmounts) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(2, 0, 1, 0).Size(64_MiB);
  m.Build();
  ASSERT_EQ(0, RunShell("dd if=/dev/zero of=/dev/sdb bs=512 count=1 2>/dev/null").status);
  ASSERT_EQ(0, RunShell(kNewPartition).status);
  EXPECT_EQ("2048\n", m.ReadFile("/sys/block/sdb/sdb1/start"));
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

TEST(FakeTools, RefuseWhatTheKernelWould) {
  AS_FAKE_MACHINE(m);
  m.Disk("sda").At(0, 0, 0, 0).Partition(1, 2048, 8192).Partition(2, 10240, 8192);
  m.Disk("sdb").At(0, 0, 1, 0).Partition(1, 2048, 8192);
  m.Build();
  m.WriteFile("/mnt/x/.keep", "");
  m.Mounted("/dev/sda2", "/");
  const struct {
    const char* command;
    int status;
    const char* out;
  } cases[] = {
      {"mount -t auto /dev/sdb1 /mnt/x", 32, ""},  // no file system yet
      {"mount -t auto /dev/sdb9 /mnt/x", 32, ""},  // no such device
      {"mount -t auto /dev/sdb1 /mnt/none", 32, ""},
      {"mount -t auto /dev/sdb1", 1, ""},  // not a form the library uses
      {"lsblk -n -o mountpoint /dev/sda2", 0, "/\n"},
      {"lsblk -n -o mountpoint /dev/sda", 0, "\n\n/\n"},
      {"lsblk -o name /dev/sda", 1, ""},
      {"lsblk -n -o mountpoint /dev/sdz", 32, ""},
      {"umount /", 0, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    const ShellResult r = RunShell(std::string(c.command) + " 2>/dev/null");
    EXPECT_EQ(c.status, r.status);
    EXPECT_EQ(c.out, r.out);
  }
  EXPECT_TRUE(m.Mounts().empty());
}

TEST(FakeTools, PartitionsFollowTheTableOnlyWhenGdiskSucceeds) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").Size(64_MiB).Partition(1, 2048, 4096).Partition(2, 8192, 4096);
  m.Build();
  m.FailTool("gdisk", 5);
  EXPECT_EQ(5, RunShell(kNewPartition).status);
  EXPECT_EQ("4096\n", m.ReadFile("/sys/block/sdb/sdb1/size"));
  m.RereadPartitions("sdb");  // the image holds no table at all
  for (const char* path : {"/sys/block/sdb/sdb1", "/sys/block/sdb/sdb2", "/sys/dev/block/8:18", "/dev/sdb2"})
    EXPECT_FALSE(m.Exists(path)) << path;
}

}  // namespace
}  // namespace FakeMachineTesting
