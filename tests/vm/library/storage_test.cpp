// Storages on the appliance VM's three 12 GiB disks (../CMakeLists.txt), in order: disk 2
// turns temporary, disk 1 becomes the storage "st1", disk 3 takes hostile names; rescans
// run at once. Results are checked against the kernel's own view.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "../../support/child.h"
#include "../../support/error_text.h"
#include "core/common/unicode.h"
#include "core/linex/linux_misc.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/attributes.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

namespace {

namespace fs = std::filesystem;
using Common::FromUtf8, Common::ToUtf8;
using Manager = Virtualization::Appliance::StoragesManager;
using Device = std::shared_ptr<Virtualization::Appliance::BlockDevice>;
const std::string kSt1 = "/mnt/local_storages/st1";

testing::AssertionResult Ok(Common::Error e) {
  return testing::AssertionResult(!e) << TestSupport::ChainText(e);
}
std::string Read(const std::string& path, size_t limit = 1 << 16) {
  std::ifstream in(path, std::ios::binary);
  std::string text(limit, '\0');
  return text.substr(0, static_cast<size_t>(in.read(&text[0], static_cast<std::streamsize>(limit)).gcount()));
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
// The kernfs node of /sys/block/<disk>: a disk removed and found again gets a new one.
ino_t SysfsNode(const std::string& disk) {
  struct stat s {};
  return lstat(("/sys/block/" + disk).c_str(), &s) == 0 ? s.st_ino : 0;
}
// Whether `dir` lies on the partition, by device number.
bool MountedAt(const std::string& part, const std::string& dir) {
  struct stat node {}, at {};
  return stat(("/dev/" + part).c_str(), &node) == 0 && stat(dir.c_str(), &at) == 0 && at.st_dev == node.st_rdev;
}

std::vector<Device> List(bool rescan) try {
  return Manager().GetBlockDevices(rescan);
} catch (const Common::Error& e) {
  ADD_FAILURE() << Ok(e).message();
  return {};
}
std::string Names(const std::vector<Device>& devices) {
  std::string names;
  for (const Device& d : devices) names += ToUtf8(d->GetName()) + ",";
  return names;
}
Common::Error Prepare(const Device& disk) try {
  return disk->CreateBackupPartition();
} catch (const Common::Error& e) {
  return e;
}
// The storage list as "mount point label" lines.
std::string Listed() {
  std::vector<MigrationManagement::StorageConfig::Storage> storages;
  EXPECT_TRUE(Ok(MigrationManagement::StorageConfig::GetCurrentStorageConfig()->GetStoragesList(storages)));
  std::string lines;
  for (const auto& s : storages) lines += ToUtf8(s.MountPoint) + " " + ToUtf8(s.Label) + "\n";
  return lines;
}

TEST(RealKernel, ATemporaryDiskIsHiddenAndReportedByTheCleanup) {
  Registry::Key record;
  const String id = FromUtf8("5A4C4D00-0000-0000-0000-000000000002");  // disk 2's, from its inquiry
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(id, record));
  ASSERT_FALSE(record.SetValue(String(), Registry::MultiString{FromUtf8("Temporary"), FromUtf8("1")}));
  EXPECT_EQ(KernelName(1) + "," + KernelName(3) + ",", Names(List(false)));
  EXPECT_EQ(KernelName(2) + "\n", ToUtf8(Manager().CleanupDiskSubsystem()));
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
  EXPECT_EQ("st1 data\n", Listed());
  std::ofstream(kSt1 + "/kept") << "intact";
  ASSERT_TRUE(Ok(partition->Unmount()));
  EXPECT_EQ(std::string::npos, Read("/proc/mounts").find("/dev/" + part + " "));
  EXPECT_FALSE(fs::exists(kSt1));
  const ino_t node = SysfsNode(name);
  const std::vector<Device> devices = List(true);
  ASSERT_EQ(KernelName(1) + "," + KernelName(3) + ",", Names(devices));
  EXPECT_NE(node, SysfsNode(KernelName(1)));  // it left the kernel and came back
  ASSERT_TRUE(Ok(devices[0]->GetPartitions().at(0)->Mount(FromUtf8("st1"))));
  EXPECT_EQ("intact", Read(kSt1 + "/kept"));  // the new directory, the old file system
}

TEST(RealKernel, HostileLabelsAndMountNamesReachTheToolsAsData) {
  const std::string part = KernelName(3) + "1";
  const Device disk = List(false).at(1);  // the order the first test saw
  ASSERT_TRUE(Ok(Prepare(disk)));
  ASSERT_EQ(0, chdir("/tmp"));  // where the canary of a relative injection would land
  // Balanced quotes: unquoted or in double quotes, the shell would run the touches.
  const std::string hostile = "x\"y\"'z' $(touch canary) `touch canary`; touch canary | cat && touch canary * ?[a]",
                    label = ("ZLM" + hostile).substr(0, 16);  // what ext4 keeps
  const auto partition = disk->GetPartitions().at(0);
  EXPECT_TRUE(Ok(partition->SetLabel(FromUtf8(hostile))));
  EXPECT_EQ(label + "\n", Probe("LABEL", part));
  const testing::AssertionResult mounted = Ok(partition->Mount(FromUtf8(hostile)));
  EXPECT_FALSE(fs::exists("/tmp/canary"));
  ASSERT_TRUE(mounted);
  EXPECT_TRUE(MountedAt(part, "/mnt/local_storages/" + hostile));
  EXPECT_EQ("st1 data\n" + hostile + " " + label.substr(3) + "\n", Listed());
  ASSERT_TRUE(Ok(partition->Unmount()));
  EXPECT_FALSE(fs::exists("/mnt/local_storages/" + hostile));
}

// Two processes rescan at once; the lock has them take turns, so both see the same disks.
TEST(RealKernel, TwoRescansAtOnceKeepTheMountedDisk) {
  const std::string kept = KernelName(1), other = KernelName(3);
  ASSERT_TRUE(MountedAt(kept + "1", kSt1));
  const ino_t keptNode = SysfsNode(kept), otherNode = SysfsNode(other);
  pid_t children[2];
  for (pid_t& child : children)
    child = TestSupport::StartChild([&] { return Names(List(true)) == kept + "," + other + "," ? 0 : 1; });
  for (const pid_t child : children) EXPECT_EQ(0, TestSupport::ExitCode(TestSupport::WaitChild(child)));
  EXPECT_EQ(keptNode, SysfsNode(kept));           // never left the kernel
  EXPECT_NE(otherNode, SysfsNode(KernelName(3)));  // left and came back
}

}  // namespace
