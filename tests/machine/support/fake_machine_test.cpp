// The faked machine looks like the kernel's sysfs where the library reads it.
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

off_t ImageSize(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

TEST(FakeMachine, LaidOutAsTheKernelDoes) {
  AS_FAKE_MACHINE(m);
  m.Host(0, "ata_piix\n").Host(10, "ahci").HostWithoutProcName(3).Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0).Size(12_GiB).Partition(1, 2048, 2095104);
  m.Disk("sdc").At(1, 0, 0, 0).NoScsiDisk();
  m.Disk("sdd").At(4, 0, 2, 0).ScsiDiskEntries({"7:0:0:0", "junk"}).ImageBytes(100);
  for (const char* name : {"sda", "sdp", "sdq", "sdz", "sdaa"}) m.Disk(name).NoImage();
  m.VirtioDisk("vda").NoImage();
  m.LoopDevice("loop3").NoImage();
  m.Build();
  // nullptr: absent; "*": present, whatever it holds.
  const struct {
    const char* path;
    const char* text;
  } files[] = {
      {"/sys/class/scsi_host/host0/proc_name", "ata_piix\n"},
      {"/sys/class/scsi_host/host10/proc_name", "ahci"},
      {"/sys/class/scsi_host/host10/scan", ""},
      {"/sys/class/scsi_host/host3/proc_name", nullptr},
      {"/sys/class/scsi_host/host3/scan", "*"},
      {"/sys/block/sdb/dev", "8:16\n"},
      {"/sys/block/sdb/size", "25165824\n"},
      {"/sys/block/sdb/device/state", "running\n"},
      {"/sys/block/sdb/device/scsi_disk/2:0:1:0", "*"},
      {"/sys/block/sdb/device/rescan", ""},
      {"/sys/block/sdb/device/delete", ""},
      {"/sys/block/sdb/sdb1/partition", "1\n"},
      {"/sys/block/sdb/sdb1/start", "2048\n"},
      {"/sys/block/sdb/sdb1/size", "2095104\n"},
      {"/sys/block/sdb/sdb1/dev", "8:17\n"},
      {"/sys/block/sdc/device/scsi_disk", nullptr},
      {"/sys/block/sdd/device/scsi_disk/7:0:0:0", "*"},
      {"/sys/block/sdd/device/scsi_disk/junk", "*"},
      {"/sys/block/sdd/device/scsi_disk/4:0:2:0", nullptr},
      {"/sys/block/sda/dev", "8:0\n"},
      {"/sys/block/sdp/dev", "8:240\n"},
      {"/sys/block/sdq/dev", "65:0\n"},
      {"/sys/block/sdz/dev", "65:144\n"},
      {"/sys/block/sdaa/dev", "65:160\n"},
      {"/sys/block/vda/dev", "254:0\n"},
      {"/sys/block/vda/device/scsi_disk", nullptr},
      {"/sys/block/loop3/dev", "7:3\n"},
      {"/sys/block/loop3/device", nullptr},
  };
  for (const auto& f : files) {
    SCOPED_TRACE(f.path);
    EXPECT_EQ(f.text != nullptr, m.Exists(f.path));
    if (f.text != nullptr && std::string(f.text) != "*") {
      EXPECT_EQ(f.text, m.ReadFile(f.path));
    }
  }
  EXPECT_EQ("../../devices/platform/host0/scsi_host/host0", LinkTarget("/sys/class/scsi_host/host0"));
  EXPECT_EQ("../devices/platform/host2/target2:0:1/2:0:1:0/block/sdb", LinkTarget("/sys/block/sdb"));
  EXPECT_EQ("../../../2:0:1:0", LinkTarget("/sys/block/sdb/device"));
  EXPECT_EQ(Resolved("/sys/block/sdb"), Resolved("/sys/dev/block/8:16"));
  EXPECT_EQ(Resolved("/sys/block/sdb") + "/sdb1", Resolved("/sys/dev/block/8:17"));
  struct stat image;
  ASSERT_EQ(0, ::stat("/dev/sdb", &image));
  EXPECT_EQ(static_cast<off_t>(12_GiB), image.st_size);
  EXPECT_EQ(0, image.st_blocks) << "the image is sparse";
  EXPECT_EQ(static_cast<off_t>(2095104) * 512, ImageSize("/dev/sdb1"));
  EXPECT_EQ(100, ImageSize("/dev/sdd"));
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

TEST(FakeMachine, EveryMachineStartsFromNothingWithRealDeviceNodes) {
  {
    AS_FAKE_MACHINE(m);
    m.Disk("sdb");
    m.Build();
    m.WriteFile("/tmp/left_over", "x");
    m.WriteFile("/mnt/local_storages/a/b", "x");
  }
  AS_FAKE_MACHINE(m);
  for (const char* path : {"/sys/block/sdb", "/tmp/left_over", "/mnt/local_storages"}) EXPECT_FALSE(m.Exists(path));
  EXPECT_TRUE(m.Exists("/etc/Zemlora"));
  for (const char* path : {"/dev/null", "/dev/zero", "/dev/urandom", "/dev/full"}) {
    struct stat st;
    EXPECT_TRUE(::stat(path, &st) == 0 && S_ISCHR(st.st_mode)) << path;
  }
}

}  // namespace
}  // namespace FakeMachineTesting
