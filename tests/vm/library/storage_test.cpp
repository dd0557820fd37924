// A storage on the appliance VM's first 12 GiB disk (../CMakeLists.txt): prepared, mounted,
// relabelled, unmounted and found again by a rescan, checked against the kernel's own view;
// then, next to it, the other five disks as other systems leave them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>

#include "../../support/error_text.h"
#include "core/common/unicode.h"
#include "core/linex/linux_misc.h"
#include "disk_view.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

namespace {

namespace fs = std::filesystem;
using Common::FromUtf8, Common::ToUtf8;
using Device = std::shared_ptr<Virtualization::Appliance::BlockDevice>;
const std::string kSt1 = "/mnt/local_storages/st1";

testing::AssertionResult Ok(Common::Error e) {
  return testing::AssertionResult(!e) << TestSupport::ChainText(e);
}
std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}
// What blkid finds on the device, through the library's launcher.
std::string Probe(const std::string& field, const std::string& device) {
  std::string out;
  FILE* stream = POpen("blkid -p -o value -s " + field + " /dev/" + device, "rt");
  for (int c; stream && (c = std::fgetc(stream)) != EOF;) out += static_cast<char>(c);
  if (stream) PClose(stream);
  return out;
}
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
std::vector<Device> List(bool rescan) try {
  return Virtualization::Appliance::StoragesManager().GetBlockDevices(rescan);
} catch (const Common::Error& e) {
  ADD_FAILURE() << Ok(e).message();
  return {};
}
Common::Error Prepare(const Device& disk) try {
  return disk->CreateBackupPartition();
} catch (const Common::Error& e) {
  return e;
}
TEST(RealKernel, APreparedStorageSurvivesARescan) {
  const std::string name = KernelName(1), part = name + "1";
  const Device disk = List(false).at(0);
  ASSERT_TRUE(Ok(Prepare(disk)));
  EXPECT_EQ("gpt\n" "ext4\n" "ZLM\n", Probe("PTTYPE", name) + Probe("TYPE", part) + Probe("LABEL", part));
  const auto partition = disk->GetPartitions().at(0);
  ASSERT_TRUE(Ok(partition->Mount(FromUtf8("st1"))));
  EXPECT_TRUE(MountedAt(part, kSt1));
  ASSERT_TRUE(Ok(partition->SetLabel(FromUtf8("data"))));
  EXPECT_EQ("ZLMdata\n", Probe("LABEL", part));
  std::vector<MigrationManagement::StorageConfig::Storage> list;
  ASSERT_TRUE(Ok(MigrationManagement::StorageConfig::GetCurrentStorageConfig()->GetStoragesList(list)));
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ("st1 data", ToUtf8(list[0].MountPoint) + " " + ToUtf8(list[0].Label));
  std::ofstream(kSt1 + "/kept") << "intact";
  ASSERT_TRUE(Ok(partition->Unmount()));
  EXPECT_EQ(std::string::npos, Read("/proc/mounts").find("/dev/" + part + " "));
  EXPECT_FALSE(fs::exists(kSt1));
  struct stat before {}, after {};  // a disk that left the kernel and came back has a new kernfs node
  ASSERT_EQ(0, lstat(("/sys/block/" + name).c_str(), &before));
  const std::vector<Device> devices = List(true);
  ASSERT_EQ(6u, devices.size());
  ASSERT_EQ(0, lstat(("/sys/block/" + KernelName(1)).c_str(), &after));
  EXPECT_NE(before.st_ino, after.st_ino);
  ASSERT_TRUE(Ok(devices[0]->GetPartitions().at(0)->Mount(FromUtf8("st1"))));
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
  std::vector<MigrationManagement::StorageConfig::Storage> list;
  ASSERT_TRUE(Ok(MigrationManagement::StorageConfig::GetCurrentStorageConfig()->GetStoragesList(list)));
  ASSERT_EQ(1u, list.size());
  EXPECT_EQ("st1", ToUtf8(list[0].MountPoint));
  const std::vector<Device> devices = List(false);
  ASSERT_EQ(6u, devices.size());
  for (const auto& c : cases) {
    const Device disk = devices[c.serial - 1];
    const std::string name = ToUtf8(disk->GetName());
    SCOPED_TRACE(c.setup);
    ASSERT_EQ(KernelName(c.serial), name);
    ASSERT_EQ(1u, disk->GetPartitions().size());
    EXPECT_FALSE(disk->GetPartitions()[0]->IsSupported());
    EXPECT_EQ(c.found, VmTest::Signatures(*disk));
    const size_t before = Digest(name, disk->GetSize());
    EXPECT_EQ(c.prepared, TestSupport::ChainCodes(Prepare(disk)));
    EXPECT_EQ(c.prepared == "ok" ? "gpt 1:ext4:ZLM" : c.found, VmTest::Blkid(name));
    if (c.prepared == "ok") continue;
    EXPECT_EQ(before, Digest(name, disk->GetSize())) << "a refused disk changed";
  }
}

}  // namespace
