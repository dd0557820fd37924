// A storage on the appliance VM's first 12 GiB disk (../CMakeLists.txt): prepared, mounted,
// relabelled, unmounted and found again by a rescan, checked against the kernel's own view;
// then, next to it, the other five disks as other systems leave them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string_view>

#include "core/linex/linux_misc.h"
#include "disk_view.h"

namespace {

namespace fs = std::filesystem;
using Common::FromUtf8, Common::ToUtf8;
using namespace VmTest;
const std::string kSt1 = "/mnt/local_storages/st1";

// The kernel's name of the disk with serial ...0n, from its inquiry page 0x80.
std::string KernelName(int n) {
  const std::string serial = "5a4c4d" + std::string(25, '0') + std::to_string(n);
  for (const auto& entry : fs::directory_iterator("/sys/block"))
    if (Read(entry.path() / "device/vpd_pg80").find(serial) != std::string::npos) return entry.path().filename();
  return "";
}
// Whether `dir` lies on the partition, by device number.
bool MountedAt(const std::string& part, const std::string& dir) {
  struct stat node {}, at {};
  return stat(("/dev/" + part).c_str(), &node) == 0 && stat(dir.c_str(), &at) == 0 && at.st_dev == node.st_rdev;
}
// A hash of the disk's first 64 MiB and last 1 MiB, where tables and signatures lie, read
// from the disk itself: a partition's node has a page cache of its own.
size_t Digest(const std::string& name, uint64_t size) {
  sync();
  const int fd = open(("/dev/" + name).c_str(), O_RDONLY | O_DIRECT);
  alignas(4096) static char chunk[1 << 20];
  size_t hash = 0;
  for (uint64_t at = 0; at <= 64; ++at)
    if (fd < 0 || pread(fd, chunk, sizeof chunk, at < 64 ? at << 20 : size - sizeof chunk) != sizeof chunk) {
      ADD_FAILURE() << "cannot read /dev/" << name;
      break;
    } else {
      hash = hash * 31 + std::hash<std::string_view>()(std::string_view(chunk, sizeof chunk));
    }
  if (fd >= 0) close(fd);
  return hash;
}
TEST(RealKernel, APreparedStorageSurvivesARescan) {
  const std::string name = KernelName(1), part = name + "1";
  const Device disk = List().at(0);
  ASSERT_EQ("ok", Prepare(disk));
  EXPECT_EQ("gpt 1:ext4:ZLM", Blkid(name));
  const auto partition = disk->GetPartitions().at(0);
  ASSERT_EQ("ok", ChainCodes(partition->Mount(FromUtf8("st1"))));
  EXPECT_TRUE(MountedAt(part, kSt1));
  ASSERT_EQ("ok", ChainCodes(partition->SetLabel(FromUtf8("data"))));
  EXPECT_EQ("gpt 1:ext4:ZLMdata", Blkid(name));
  EXPECT_EQ("st1 data|", Storages());
  std::ofstream(kSt1 + "/kept") << "intact";
  ASSERT_EQ("ok", ChainCodes(partition->Unmount()));
  EXPECT_EQ(std::string::npos, Read("/proc/mounts").find("/dev/" + part + " "));
  EXPECT_FALSE(fs::exists(kSt1));
  struct stat before {}, after {};  // a disk that left the kernel and came back has a new kernfs node
  ASSERT_EQ(0, lstat(("/sys/block/" + name).c_str(), &before));
  const std::vector<Device> devices = List(true);
  ASSERT_EQ(6u, devices.size());
  ASSERT_EQ(0, lstat(("/sys/block/" + KernelName(1)).c_str(), &after));
  EXPECT_NE(before.st_ino, after.st_ino);
  ASSERT_EQ("ok", ChainCodes(devices[0]->GetPartitions().at(0)->Mount(FromUtf8("st1"))));
  EXPECT_EQ("intact", Read(kSt1 + "/kept"));  // the new directory, the old file system
}

// Only the disk left by an interrupted preparation is prepared; the others may hold data:
// refused, and not a byte changed where tables, labels and signatures lie.
TEST(RealKernel, DisksOfOtherSystemsAreLeftAsTheyAre) {
  const std::string gpt = "echo , | sfdisk -q -X gpt ", refused = "0x720022@447>0x72004A@448";
  const struct { int serial; std::string setup, found, prepared; } cases[] = {
      {2, gpt + "$D", "gpt", "ok"},
      {3, gpt + "$D && mke2fs -q -t ext2 -L photos ${D}1", "gpt 1:ext2:photos", refused},
      {4, gpt + "$D && mkswap -q ${D}1", "gpt 1:swap:", refused},
      {5, gpt + "$D && pvcreate -q ${D}1", "gpt 1:LVM2_member:", refused},
      {6, "echo ,,83 | sfdisk -q -X dos $D && mke2fs -q -t ext3 ${D}1", "dos 1:ext3:", refused},
  };
  for (const auto& c : cases) ASSERT_EQ(0, RunCommand("D=/dev/" + KernelName(c.serial) + " && " + c.setup)) << c.setup;
  EXPECT_EQ("st1 data|", Storages());
  const std::vector<Device> devices = List();
  ASSERT_EQ(6u, devices.size());
  for (const auto& c : cases) {
    const Device disk = devices[c.serial - 1];
    const std::string name = ToUtf8(disk->GetName());
    SCOPED_TRACE(c.setup);
    ASSERT_EQ(KernelName(c.serial), name);
    ASSERT_EQ(1u, disk->GetPartitions().size());
    EXPECT_FALSE(disk->GetPartitions()[0]->IsSupported());
    EXPECT_EQ(c.found, Signatures(*disk));
    const size_t before = Digest(name, disk->GetSize());
    EXPECT_EQ(c.prepared, Prepare(disk));
    EXPECT_EQ(c.prepared == "ok" ? "gpt 1:ext4:ZLM" : c.found, Blkid(name));
    if (c.prepared == "ok") continue;
    EXPECT_EQ(before, Digest(name, disk->GetSize())) << "a refused disk changed";
  }
}

}  // namespace
