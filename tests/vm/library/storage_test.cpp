// Storages on six disks, checked against the kernel: one prepared, held busy, relabelled, found
// by a rescan; the others as other systems leave them; then the faults where the kernel matters.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <thread>

#include "../../support/child.h"
#include "core/linex/linux_misc.h"
#include "disk_view.h"

namespace {

namespace fs = std::filesystem;
using Common::FromUtf8, Common::ToUtf8;
using namespace VmTest;
const std::string kRoot = "/mnt/local_storages/", kSt1 = kRoot + "st1";

// The kernel's name of the disk with serial ...0n, from its inquiry page 0x80.
std::string KernelName(int n) {
  const std::string serial = "5a4c4d" + std::string(25, '0') + std::to_string(n);
  for (const auto& entry : fs::directory_iterator("/sys/block"))
    if (Read(entry.path() / "device/vpd_pg80").find(serial) != std::string::npos) return entry.path().filename();
  return "";
}
// "DIR rw" or "DIR ro" of /dev/<part> in /proc/mounts, empty when it is not mounted.
std::string Mounted(const std::string& part) {
  std::ifstream in("/proc/mounts");
  for (std::string device, dir, type, options, rest; in >> device >> dir >> type >> options && std::getline(in, rest);)
    if (device == "/dev/" + part) return dir + " " + options.substr(0, 2);
  return "";
}
// What a listing offers, as "disk:partitions," items.
std::string Offered(bool rescan = false) {
  std::string names;
  for (const auto& d : List(rescan)) names += ToUtf8(d->GetName()) + ":" + std::to_string(d->GetPartitions().size()) + ",";
  return names;
}
// Nothing is left behind: no mount directory, no child (running or unreaped).
void ExpectNothingLeft() {
  EXPECT_TRUE(fs::is_empty(kRoot));
  EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD);
}
// The disk's first 64 MiB and last 1 MiB, where tables and signatures lie, past the page cache.
std::string Digest(const std::string& name) {
  const std::string sum = Output("sync; D=/dev/" + name + "; { dd if=$D bs=1M count=64 iflag=direct; dd if=$D bs=1M"
                                 " iflag=direct skip=$(($(blockdev --getsize64 $D) / 1048576 - 1)); } 2>/dev/null | cksum");
  EXPECT_NE(std::string::npos, sum.find(" 68157440\n")) << "cannot read 65 MiB of /dev/" << name;
  return sum;
}
// What a listing offers while `victim` is deleted from the kernel the moment the listing opens
// `node` (a sysfs file: device nodes raise no permission events), the open held back till then.
std::string OfferedDeleting(const std::string& node, const std::string& victim) {
  const int fd = fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY);
  EXPECT_EQ(0, fanotify_mark(fd, FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD, node.c_str()));
  std::atomic<bool> stop{false};
  std::thread trap([&] {
    for (pollfd ready{fd, POLLIN, 0}; !stop;) {
      fanotify_event_metadata event{};
      if (poll(&ready, 1, 50) != 1 || read(fd, &event, sizeof event) != sizeof event) continue;
      std::ofstream("/sys/block/" + victim + "/device/delete") << "1\n";  // the first time only: it is gone after
      const fanotify_response allow{event.fd, FAN_ALLOW};
      EXPECT_EQ(sizeof allow, static_cast<size_t>(write(fd, &allow, sizeof allow)));
      close(event.fd);
    }
  });
  const std::string offered = Offered();
  stop = true;
  trap.join();
  close(fd);
  return offered;
}

TEST(RealKernel, APreparedStorageSurvivesARescan) {
  const std::string name = KernelName(1), part = name + "1";
  const Device disk = List().at(0);
  ASSERT_EQ("ok", Prepare(disk));
  EXPECT_EQ("gpt 1:ext4:ZLM", Blkid(name));
  const auto partition = disk->GetPartitions().at(0);
  ASSERT_EQ("ok", ChainCodes(partition->Mount(FromUtf8("st1"))));
  EXPECT_EQ(kSt1 + " rw", Mounted(part));
  ASSERT_EQ("ok", ChainCodes(partition->SetLabel(FromUtf8("data"))));
  EXPECT_EQ("gpt 1:ext4:ZLMdata", Blkid(name));
  EXPECT_EQ("st1 data|", Storages());
  std::ofstream(kSt1 + "/kept") << "intact";
  // A user's working directory inside holds it mounted, as the library knows it.
  ASSERT_EQ(0, chdir(kSt1.c_str()));
  const pid_t user = TestSupport::StartChild([] { return pause(); });
  ASSERT_EQ(0, chdir("/"));
  EXPECT_EQ("0x720024@358>0x720004(32)@359", ChainCodes(partition->Unmount()));
  EXPECT_EQ(kSt1 + " rw", Mounted(part));
  EXPECT_EQ("st1", ToUtf8(partition->GetMountPoint()));
  ASSERT_EQ(0, kill(user, SIGTERM));
  TestSupport::WaitChild(user);
  ASSERT_EQ("ok", ChainCodes(partition->Unmount()));
  EXPECT_EQ("", Mounted(part));
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

// Only a disk left by an interrupted preparation is prepared; others are refused, unchanged.
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
    const std::string before = Digest(name);
    EXPECT_EQ(c.prepared, Prepare(disk));
    if (c.prepared == "ok") EXPECT_EQ("gpt 1:ext4:ZLM", Blkid(name));
    else EXPECT_EQ(before, Digest(name)) << "a refused disk changed";
  }
}

// A listing that meets a disk gone from the kernel as it reads the first storage's size
// (after probing its file system) leaves that disk out; a rescan brings it back.
TEST(Faults, ADiskLeavingTheKernelDuringAListing) {
  ASSERT_EQ("ok", ChainCodes(List().at(0)->GetPartitions().at(0)->Unmount()));
  const std::string probed = KernelName(1);
  std::string all;
  for (int n = 1; n <= 6; ++n) all += KernelName(n) + ":1,";
  ASSERT_EQ(all, Offered());
  // The disk being probed (what was read of it may be half), then the next one (no size).
  for (const std::string& victim : {probed, KernelName(2)}) {
    SCOPED_TRACE(victim);
    EXPECT_EQ(std::string(all).erase(all.find(victim + ":"), victim.size() + 3),
              OfferedDeleting("/sys/block/" + probed + "/" + probed + "1/size", victim));
    EXPECT_FALSE(fs::exists("/sys/block/" + victim));
    EXPECT_EQ(all, Offered(true));
    ExpectNothingLeft();
  }
}

TEST(Faults, MountsThatFailOrFallBackToReadOnly) {
  const std::string disk = "/dev/" + KernelName(1), part = KernelName(1) + "1", st = kRoot + "st";
  const struct { std::string setup, codes, mounted; } cases[] = {
      {"blockdev --setro " + disk, "ok", st + " ro"},  // mount falls back to read-only
      // Mounted read-only, then the foreign label cannot be replaced: the mount stays, unknown.
      {"blockdev --setrw " + disk + " && e2label " + disk + "1 x && blockdev --setro " + disk,
       "0x720026@322>0x720004(1)@323", st + " ro"},
      {"blockdev --setrw " + disk + " && mkswap -q " + disk + "1", "0x720023@370>0x720004(32)@371", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.setup);
    ASSERT_EQ(0, RunCommand(c.setup));
    const auto partition = List().at(0)->GetPartitions().at(0);
    EXPECT_EQ(c.codes, ChainCodes(partition->Mount(FromUtf8("st"))));
    EXPECT_EQ(c.mounted, Mounted(part));
    EXPECT_TRUE(fs::is_directory(st));
    EXPECT_EQ(c.codes == "ok" ? "st" : "", ToUtf8(partition->GetMountPoint()));
    if (c.codes == "ok") EXPECT_EQ("ok", ChainCodes(partition->Unmount()));
    else EXPECT_EQ(0, RunCommand("umount -q " + st + "; rmdir " + st));
    ExpectNothingLeft();
  }
}

}  // namespace
