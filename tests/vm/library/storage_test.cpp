// Storages on the appliance VM's three 12 GiB disks (../CMakeLists.txt), in order: disk 2
// turns temporary, disk 1 becomes the storage "st1", disk 3 takes hostile names, then holds
// a child's "/". Results are checked against the kernel's own view.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
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
// A tool's standard output, through the library's launcher.
std::string Output(const std::string& command) {
  std::string out;
  FILE* stream = POpen(command, "rt");
  for (int c; stream && (c = std::fgetc(stream)) != EOF;) out += static_cast<char>(c);
  if (stream) PClose(stream);
  return out;
}
std::string Probe(const std::string& field, const std::string& device) {
  return Output("blkid -p -o value -s " + field + " /dev/" + device);
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
  const std::string name = KernelName(2);
  Registry::Key record;
  const String id = FromUtf8("5A4C4D00-0000-0000-0000-000000000002");  // disk 2's record
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(id, record));
  ASSERT_FALSE(record.SetValue(String(), Registry::MultiString{FromUtf8("Temporary"), FromUtf8("1")}));
  EXPECT_EQ(KernelName(1) + "," + KernelName(3) + ",", Names(List(false)));
  EXPECT_EQ(name + "\n", ToUtf8(Manager().CleanupDiskSubsystem()));
  EXPECT_TRUE(fs::exists("/sys/block/" + name));  // hidden, not removed
}

TEST(RealKernel, APreparedStorageSurvivesARefusedSecondPreparationAndARescan) {
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
  // Refused before the first write: table and file system stay as they were.
  const std::string head = Read("/dev/" + name, 2 << 20);
  EXPECT_EQ(0x720022u, Prepare(disk).GetCode());
  EXPECT_TRUE(head == Read("/dev/" + name, 2 << 20)) << "the disk was written";
  ASSERT_EQ(0, RunCommand("blockdev --rereadpt /dev/" + name));
  EXPECT_TRUE(fs::exists("/sys/block/" + name + "/" + part));
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

// A child makes disk 3's partition its "/", the real root's folders bound into it.
TEST(RealKernel, TheDiskHoldingRootIsNeverOffered) {
  const std::string part = "/dev/" + KernelName(3) + "1", root = "/mnt/zl_root", others = KernelName(1) + ",";
  EXPECT_EQ(0, TestSupport::RunInChild([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mkdir(root.c_str(), 0755) != 0 || mount(part.c_str(), root.c_str(), "ext4", 0, nullptr) != 0)
      return 10;
    for (const auto& entry : fs::directory_iterator("/")) {
      const std::string from = entry.path().string(), to = root + from;
      if (entry.is_symlink()) fs::create_symlink(fs::read_symlink(entry.path()), to);
      else if (entry.is_directory() && fs::create_directories(to) && from != "/mnt" &&
               mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        return 11;
    }
    if (chroot(root.c_str()) != 0 || chdir("/") != 0 || Output("lsblk -n -o mountpoint " + part) != "/\n") return 12;
    return Names(List(false)) == others ? 0 : 1;
  }));
}

TEST(RealKernel, TwoRescansAtOnceTakeTurnsAndKeepTheMountedDisk) {
  const std::string kept = KernelName(1);
  ASSERT_TRUE(MountedAt(kept + "1", kSt1));
  const ino_t keptNode = SysfsNode(kept), goneNode = SysfsNode(KernelName(3));
  const auto now = [] { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()); };
  pid_t children[2];
  for (int i = 0; i < 2; ++i)
    children[i] = TestSupport::StartChild([&, i] {
      const double start = now().count();
      const std::string names = Names(List(true));
      std::ofstream("/tmp/zl_call" + std::to_string(i)) << std::fixed << start << " " << now().count() << " " << names;
      return testing::Test::HasFailure() ? 1 : 0;
    });
  double start[2] = {}, end[2] = {};
  std::string names[2];  // the disks each call offered
  for (const pid_t child : children) EXPECT_EQ(0, TestSupport::ExitCode(TestSupport::WaitChild(child)));
  for (int i = 0; i < 2; ++i) std::ifstream("/tmp/zl_call" + std::to_string(i)) >> start[i] >> end[i] >> names[i];
  // Both inside the call at once, yet one ended a whole rescan (its 1 s wait included) after the other.
  EXPECT_LT(std::max(start[0], start[1]), std::min(end[0], end[1]));
  EXPECT_GE(std::max(end[0] - end[1], end[1] - end[0]), 1.0);
  EXPECT_EQ(kept + "," + KernelName(3) + ",", names[0]);
  EXPECT_EQ(names[0], names[1]);
  EXPECT_EQ(keptNode, SysfsNode(kept));           // never left the kernel
  EXPECT_NE(goneNode, SysfsNode(KernelName(3)));  // left and came back
}

}  // namespace
