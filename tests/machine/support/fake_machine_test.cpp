// The faked machine looks like the kernel's sysfs where the library reads it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "fake_machine.h"

namespace FakeMachineTesting {
namespace {

std::string LinkTarget(const std::string& path) {
  char buffer[PATH_MAX];
  ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
  return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

std::string Resolved(const std::string& path) {
  char buffer[PATH_MAX];
  return ::realpath(path.c_str(), buffer) ? std::string(buffer) : std::string();
}

bool IsDirectoryLink(const std::string& path) {
  struct stat link, target;
  return ::lstat(path.c_str(), &link) == 0 && S_ISLNK(link.st_mode) && ::stat(path.c_str(), &target) == 0 &&
         S_ISDIR(target.st_mode);
}

TEST(FakeMachine, HostsAreClassLinksWithProcNameAndScan) {
  AS_FAKE_MACHINE(m);
  m.Host(0, "ata_piix\n").Host(10, "ahci").HostWithoutProcName(3);
  m.Build();
  EXPECT_TRUE(IsDirectoryLink("/sys/class/scsi_host/host0"));
  EXPECT_EQ("../../devices/platform/host0/scsi_host/host0", LinkTarget("/sys/class/scsi_host/host0"));
  EXPECT_EQ("ata_piix\n", m.ReadFile("/sys/class/scsi_host/host0/proc_name"));
  EXPECT_EQ("ahci", m.ReadFile("/sys/class/scsi_host/host10/proc_name"));
  EXPECT_EQ("", m.ReadFile("/sys/class/scsi_host/host10/scan"));
  EXPECT_FALSE(m.Exists("/sys/class/scsi_host/host3/proc_name"));
  EXPECT_TRUE(m.Exists("/sys/class/scsi_host/host3/scan"));
}

TEST(FakeMachine, ScsiDiskHasTheKernelsLayout) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0).Size(12_GiB).State("running\n").Serial("6000c29a1b2c3d4e5f60718293a4b5c6");
  m.Build();
  EXPECT_TRUE(IsDirectoryLink("/sys/block/sdb"));
  EXPECT_EQ("../devices/platform/host2/target2:0:1/2:0:1:0/block/sdb", LinkTarget("/sys/block/sdb"));
  EXPECT_EQ("../../../2:0:1:0", LinkTarget("/sys/block/sdb/device"));
  EXPECT_EQ("8:16\n", m.ReadFile("/sys/block/sdb/dev"));
  EXPECT_EQ("25165824\n", m.ReadFile("/sys/block/sdb/size"));
  EXPECT_EQ("running\n", m.ReadFile("/sys/block/sdb/device/state"));
  EXPECT_TRUE(m.Exists("/sys/block/sdb/device/scsi_disk/2:0:1:0"));
  EXPECT_EQ("", m.ReadFile("/sys/block/sdb/device/rescan"));
  EXPECT_EQ("", m.ReadFile("/sys/block/sdb/device/delete"));
  EXPECT_EQ(Resolved("/sys/block/sdb"), Resolved("/sys/dev/block/8:16"));
  struct stat image;
  ASSERT_EQ(0, ::stat("/dev/sdb", &image));
  EXPECT_EQ(static_cast<off_t>(12_GiB), image.st_size);
  EXPECT_EQ(0, image.st_blocks) << "the image is sparse";
}

TEST(FakeMachine, DeviceNumbersFollowTheKernel) {
  AS_FAKE_MACHINE(m);
  struct Case {
    const char* name;
    const char* dev;
  } cases[] = {{"sda", "8:0\n"}, {"sdp", "8:240\n"}, {"sdq", "65:0\n"}, {"sdz", "65:144\n"}, {"sdaa", "65:160\n"}};
  for (const Case& c : cases) m.Disk(c.name).NoImage();
  m.VirtioDisk("vda").NoImage();
  m.LoopDevice("loop3").NoImage();
  m.Build();
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.dev, m.ReadFile(std::string("/sys/block/") + c.name + "/dev"));
  }
  EXPECT_EQ("254:0\n", m.ReadFile("/sys/block/vda/dev"));
  EXPECT_EQ("7:3\n", m.ReadFile("/sys/block/loop3/dev"));
  EXPECT_FALSE(m.Exists("/sys/block/loop3/device"));
  EXPECT_FALSE(m.Exists("/sys/block/vda/device/scsi_disk"));
}

TEST(FakeMachine, OddDisksAreDescribedAsAsked) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdc").At(1, 0, 0, 0).NoScsiDisk();
  m.Disk("sdd").At(4, 0, 2, 0).ScsiDiskEntries({"7:0:0:0", "junk"}).ImageBytes(100);
  m.Build();
  EXPECT_FALSE(m.Exists("/sys/block/sdc/device/scsi_disk"));
  EXPECT_TRUE(m.Exists("/sys/block/sdd/device/scsi_disk/7:0:0:0"));
  EXPECT_TRUE(m.Exists("/sys/block/sdd/device/scsi_disk/junk"));
  EXPECT_FALSE(m.Exists("/sys/block/sdd/device/scsi_disk/4:0:2:0"));
  struct stat image;
  ASSERT_EQ(0, ::stat("/dev/sdd", &image));
  EXPECT_EQ(100, image.st_size);
}

TEST(FakeMachine, PartitionsHaveTheirEntriesAndImages) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(0, 0, 0, 0).Size(1_GiB).Partition(1, 2048, 2095104);
  m.Build();
  EXPECT_EQ("1\n", m.ReadFile("/sys/block/sdb/sdb1/partition"));
  EXPECT_EQ("2048\n", m.ReadFile("/sys/block/sdb/sdb1/start"));
  EXPECT_EQ("2095104\n", m.ReadFile("/sys/block/sdb/sdb1/size"));
  EXPECT_EQ("8:17\n", m.ReadFile("/sys/block/sdb/sdb1/dev"));
  EXPECT_EQ(Resolved("/sys/block/sdb") + "/sdb1", Resolved("/sys/dev/block/8:17"));
  struct stat image;
  ASSERT_EQ(0, ::stat("/dev/sdb1", &image));
  EXPECT_EQ(static_cast<off_t>(2095104) * 512, image.st_size);
}

TEST(FakeMachine, RemovedDiskLeavesNothingBehind) {
  AS_FAKE_MACHINE(m);
  m.Disk("sdb").At(2, 0, 1, 0).Partition(1, 2048, 4096);
  m.Disk("sdc").At(2, 0, 2, 0);
  m.Build();
  m.RemoveDisk("sdb");
  for (const char* path : {"/sys/block/sdb", "/sys/dev/block/8:16", "/sys/dev/block/8:17", "/dev/sdb", "/dev/sdb1",
                           "/sys/devices/platform/host2/target2:0:1/2:0:1:0"}) {
    SCOPED_TRACE(path);
    EXPECT_FALSE(m.Exists(path));
  }
  EXPECT_TRUE(m.Exists("/sys/block/sdc/device/state"));
}

TEST(FakeMachine, EveryMachineStartsFromNothing) {
  {
    AS_FAKE_MACHINE(m);
    m.Disk("sdb");
    m.Build();
    m.WriteFile("/tmp/left_over", "x");
    m.WriteFile("/mnt/local_storages/a/b", "x");
  }
  AS_FAKE_MACHINE(m);
  EXPECT_FALSE(m.Exists("/sys/block/sdb"));
  EXPECT_FALSE(m.Exists("/tmp/left_over"));
  EXPECT_FALSE(m.Exists("/mnt/local_storages"));
  EXPECT_TRUE(m.Exists("/etc/Zemlora"));
}

TEST(FakeMachine, KeptDeviceNodesAreTheRealOnes) {
  AS_FAKE_MACHINE(m);
  for (const char* path : {"/dev/null", "/dev/zero", "/dev/urandom", "/dev/full"}) {
    SCOPED_TRACE(path);
    struct stat st;
    ASSERT_EQ(0, ::stat(path, &st));
    EXPECT_TRUE(S_ISCHR(st.st_mode));
  }
  int fd = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  char byte = 1;
  EXPECT_EQ(1, ::read(fd, &byte, 1));
  EXPECT_EQ(0, byte);
  ::close(fd);
}

TEST(FakeMachine, NoFreeDescriptorsMakesPipesFail) {
  AS_FAKE_MACHINE(m);
  int fds[2];
  {
    NoFreeDescriptors none;
    EXPECT_NE(0, ::pipe(fds));
  }
  ASSERT_EQ(0, ::pipe(fds));
  ::close(fds[0]);
  ::close(fds[1]);
}

}  // namespace
}  // namespace FakeMachineTesting
