// Faults on the appliance VM's two 12 GiB disks (../CMakeLists.txt), in order: both become storages,
// each leaves the kernel during a listing, the second's storage is unmounted while busy, the first's
// partition is mounted write-protected, then holding swap. Checked against the kernel.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/fanotify.h>
#include <unistd.h>

#include <atomic>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>

#include "../../support/child.h"
#include "../../support/error_text.h"
#include "core/common/unicode.h"
#include "core/linex/linux_misc.h"
#include "virtualization/common/storage/storage_manager.h"

namespace {

namespace fs = std::filesystem;
using Common::FromUtf8, Common::ToUtf8;
using Manager = Virtualization::Appliance::StoragesManager;
const std::string kRoot = "/mnt/local_storages/";
// The disks in target order: a deleted disk's name is free again when the rescan finds it.
const std::string kDisk1 = "sda", kDisk2 = "sdb";

using TestSupport::ChainCodes;
// "rw" or "ro" from /dev/<part>'s line in /proc/mounts, empty when it is not mounted.
std::string MountOptions(const std::string& part) {
  std::ifstream in("/proc/mounts");
  std::string device, dir, type, options, rest;
  while (in >> device >> dir >> type >> options && std::getline(in, rest) && device != "/dev/" + part) options.clear();
  return options.substr(0, 2);
}
// What a listing offers, as "disk:partitions," items, or the codes of its error.
std::string Offered(bool rescan = false) try {
  std::string names;
  for (const auto& d : Manager().GetBlockDevices(rescan))
    names += ToUtf8(d->GetName()) + ":" + std::to_string(d->GetPartitions().size()) + ",";
  return names;
} catch (const Common::Error& e) {
  return ChainCodes(e);
}
auto PartitionOf(size_t disk) { return Manager().GetBlockDevices(false).at(disk)->GetPartitions().at(0); }
// Nothing is left behind: no mount directory, no child (running or unreaped).
void ExpectNothingLeft() {
  EXPECT_TRUE(fs::is_empty(kRoot));
  EXPECT_TRUE(waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD);
}

// Deletes `victim` from the kernel the moment someone opens `node` (a sysfs file: device
// nodes raise no permission events), holding the open back until the disk is gone, so that
// a listing meets it mid-way.
class DeleteOnOpen {
 public:
  DeleteOnOpen(const std::string& node, const std::string& victim)
      : fd_(fanotify_init(FAN_CLASS_CONTENT | FAN_CLOEXEC, O_RDONLY)), thread_([this, victim] { Serve(victim); }) {
    EXPECT_EQ(0, fanotify_mark(fd_, FAN_MARK_ADD, FAN_OPEN_PERM, AT_FDCWD, node.c_str()));
  }
  ~DeleteOnOpen() {
    stop_ = true;
    thread_.join();
    close(fd_);
  }
  bool Done() const { return done_; }

 private:
  void Serve(const std::string& victim) {
    for (pollfd ready{fd_, POLLIN, 0}; !stop_;) {
      if (poll(&ready, 1, 50) != 1) continue;
      fanotify_event_metadata event{};
      if (read(fd_, &event, sizeof event) != sizeof event) continue;
      if (!done_) std::ofstream("/sys/block/" + victim + "/device/delete") << "1\n", done_ = true;
      const fanotify_response allow{event.fd, FAN_ALLOW};
      EXPECT_EQ(sizeof allow, static_cast<size_t>(write(fd_, &allow, sizeof allow)));
      close(event.fd);
    }
  }
  const int fd_;
  std::atomic<bool> stop_{false}, done_{false};
  std::thread thread_;
};

// Both disks become storages. Then a listing, as it reads the first storage's size (after
// probing its file system), finds a disk gone.
TEST(Faults, ADiskLeavingTheKernelDuringAListing) {
  for (const auto& disk : Manager().GetBlockDevices(false)) ASSERT_EQ("ok", ChainCodes(disk->CreateBackupPartition()));
  ASSERT_EQ(kDisk1 + ":1," + kDisk2 + ":1,", Offered());
  const std::pair<std::string, std::string> cases[] = {
      {kDisk1, kDisk2 + ":1,"},  // the disk being probed: what was read of it may be half, left out
      {kDisk2, kDisk1 + ":1,"},  // the next one: no size, no partitions, left out
  };
  for (const auto& [victim, listed] : cases) {
    SCOPED_TRACE(victim);
    {
      const DeleteOnOpen trap("/sys/block/" + kDisk1 + "/" + kDisk1 + "1/size", victim);
      EXPECT_EQ(listed, Offered());
      EXPECT_TRUE(trap.Done() && !fs::exists("/sys/block/" + victim));
    }
    EXPECT_EQ(kDisk1 + ":1," + kDisk2 + ":1,", Offered(true));
    ExpectNothingLeft();
  }
}

// A user's working directory inside holds the storage mounted, as the library knows it.
TEST(Faults, ABusyStorageStaysMountedUntilItsUserLeaves) {
  const auto partition = PartitionOf(1);
  ASSERT_EQ("ok", ChainCodes(partition->Mount(FromUtf8("busy"))));
  ASSERT_EQ(0, chdir((kRoot + "busy").c_str()));
  const pid_t user = TestSupport::StartChild([] { return pause(); });
  ASSERT_EQ(0, chdir("/"));
  EXPECT_EQ("0x720024@358>0x720004(32)@359", ChainCodes(partition->Unmount()));
  EXPECT_EQ("rw", MountOptions(kDisk2 + "1"));
  EXPECT_EQ("busy", ToUtf8(partition->GetMountPoint()));
  ASSERT_EQ(0, kill(user, SIGTERM));
  TestSupport::WaitChild(user);
  EXPECT_EQ("ok", ChainCodes(partition->Unmount()));
  ExpectNothingLeft();  // the directory went: the file system was unmounted
}

TEST(Faults, MountsThatFailOrFallBackToReadOnly) {
  const std::string disk = "/dev/" + kDisk1, part = kDisk1 + "1";
  const struct { std::string setup, codes, mounted; } cases[] = {
      {"blockdev --setro " + disk, "ok", "ro"},  // mount falls back to read-only
      // Mounted read-only, then the foreign label cannot be replaced: the mount stays, unknown.
      {"blockdev --setrw " + disk + " && e2label " + disk + "1 x && blockdev --setro " + disk, "0x720026@322>0x720004(1)@323", "ro"},
      {"blockdev --setrw " + disk + " && mkswap -q " + disk + "1", "0x720023@370>0x720004(32)@371", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.setup);
    ASSERT_EQ(0, RunCommand(c.setup));
    const auto partition = PartitionOf(0);
    EXPECT_EQ(c.codes, ChainCodes(partition->Mount(FromUtf8("st"))));
    EXPECT_EQ(c.mounted, MountOptions(part));
    EXPECT_TRUE(fs::is_directory(kRoot + "st"));
    EXPECT_EQ(c.codes == "ok" ? "st" : "", ToUtf8(partition->GetMountPoint()));
    if (c.codes == "ok") EXPECT_EQ("ok", ChainCodes(partition->Unmount()));
    else EXPECT_EQ(0, RunCommand("umount -q " + kRoot + "st; rmdir " + kRoot + "st"));
    ExpectNothingLeft();
  }
}

}  // namespace
