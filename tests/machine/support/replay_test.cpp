// Replayed captures of a real kernel's sysfs read the way the kernel showed them.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "../../support/files.h"
#include "fake_machine.h"

namespace FakeMachineTesting {
namespace {

// The slices as a capture of a QEMU guest holds them: a virtio_scsi host with one disk
// and a partition, an ata_piix host without disks, links written by the kernel.
void WriteCapture(const std::string& root) {
  const std::string pci = root + "/sys/devices/pci0000:00/0000:00:04.0/virtio1";
  const std::string sdev = pci + "/host2/target2:0:1/2:0:1:0";
  WriteText(pci + "/host2/scsi_host/host2/proc_name", "virtio_scsi\n");
  WriteText(pci + "/host2/scsi_host/host2/scan", "");
  WriteText(root + "/sys/devices/pci0000:00/0000:00:01.1/ata1/host0/scsi_host/host0/proc_name", "ata_piix\n");
  WriteText(sdev + "/state", "running\n");
  WriteText(sdev + "/delete", "");
  MakeDirs(sdev + "/scsi_disk/2:0:1:0");
  WriteText(sdev + "/block/sdb/dev", "8:16\n");
  WriteText(sdev + "/block/sdb/size", "2097152\n");
  WriteText(sdev + "/block/sdb/sdb1/partition", "1\n");
  WriteText(sdev + "/block/sdb/sdb1/dev", "8:17\n");
  WriteText(sdev + "/block/sdb/sdb1/size", "2093056\n");
  MakeDirs(root + "/sys/class/scsi_host");
  MakeDirs(root + "/sys/block");
  ::symlink("../../../2:0:1:0", (sdev + "/block/sdb/device").c_str());
  ::symlink("../../devices/pci0000:00/0000:00:04.0/virtio1/host2/scsi_host/host2",
            (root + "/sys/class/scsi_host/host2").c_str());
  ::symlink("../../devices/pci0000:00/0000:00:01.1/ata1/host0/scsi_host/host0",
            (root + "/sys/class/scsi_host/host0").c_str());
  ::symlink("../devices/pci0000:00/0000:00:04.0/virtio1/host2/target2:0:1/2:0:1:0/block/sdb",
            (root + "/sys/block/sdb").c_str());
}

std::string Resolved(const std::string& path) {
  char buffer[PATH_MAX];
  return ::realpath(path.c_str(), buffer) ? std::string(buffer) : std::string();
}

off_t FileSize(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Every host's proc_name and every disk's numbers, size and links read back as captured.
void ExpectReplayed(FakeMachine& m, const std::string& capture) {
  const std::string root = PathExists(capture + "/sys/block") ? capture + "/sys" : capture;
  m.Replay(capture);
  const std::vector<std::string> hosts = ListDir(root + "/class/scsi_host");
  EXPECT_FALSE(hosts.empty());
  for (const std::string& host : hosts) {
    std::string text;
    if (ReadText(root + "/class/scsi_host/" + host + "/proc_name", text)) {
      EXPECT_EQ(text, m.ReadFile("/sys/class/scsi_host/" + host + "/proc_name")) << host;
    }
  }
  for (const std::string& disk : ListDir(root + "/block")) {
    SCOPED_TRACE(disk);
    std::string dev;
    if (!ReadText(root + "/block/" + disk + "/dev", dev)) continue;
    EXPECT_EQ(dev, m.ReadFile("/sys/block/" + disk + "/dev"));
    const std::string size = m.ReadFile("/sys/block/" + disk + "/size");
    EXPECT_EQ(static_cast<off_t>(std::strtoull(size.c_str(), nullptr, 10) * 512), FileSize("/dev/" + disk));
    EXPECT_EQ(Resolved("/sys/block/" + disk), Resolved("/sys/dev/block/" + dev.substr(0, dev.find('\n'))));
    EXPECT_TRUE(m.Exists("/sys/block/" + disk + "/device/state"));
  }
}

TEST(Replay, CaptureBecomesTheMachine) {
  AS_FAKE_MACHINE(m);
  WriteCapture("/mnt/capture");
  ExpectReplayed(m, "/mnt/capture");
  EXPECT_EQ("running\n", m.ReadFile("/sys/block/sdb/device/state"));
  EXPECT_TRUE(m.Exists("/sys/block/sdb/device/scsi_disk/2:0:1:0"));
  EXPECT_EQ(Resolved("/sys/block/sdb") + "/sdb1", Resolved("/sys/dev/block/8:17"));
  EXPECT_EQ(2093056 * 512, FileSize("/dev/sdb1"));
}

// Every fixture the appliance VM captured.
TEST(Replay, FixturesOfTheApplianceVm) {
  const std::string fixtures = std::string(AS_SOURCE_ROOT) + "/tests/vm/fixtures";
  bool any = false;
  for (const std::string& name : ListDir(fixtures)) {
    struct stat st;
    if (::stat((fixtures + "/" + name).c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    any = true;
    SCOPED_TRACE(name);
    AS_FAKE_MACHINE(m);
    ExpectReplayed(m, fixtures + "/" + name);
  }
  if (!any) GTEST_SKIP() << "no fixtures in " << fixtures;
}

}  // namespace
}  // namespace FakeMachineTesting
