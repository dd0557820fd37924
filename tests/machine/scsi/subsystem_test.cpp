// Rescanning, adding and removing disks, and the lock between processes.
//
// Adding and removing wait for the kernel's device notification. The faked machine
// has no kernel of its own, so these tests borrow a real one: the fake disk takes the
// device numbers of one of the host's loop devices, and the test makes the real
// kernel announce that loop device (a "change" written to its uevent file, opened
// before the fake /sys covers the real one).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <sys/wait.h>
#include <thread>

#include "core/common/shared_mutex.h"
#include "core/common/unicode.h"
#include "fake_machine.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "recorders.h"

namespace {

using namespace FakeMachineTesting;

TEST(Subsystem, RefreshScansKnownHostsAndRescansListedDisks) {
  AS_FAKE_MACHINE(m);
  m.Host(0, "ata_piix\n").Host(2, "virtio_scsi\n").Host(5, "nvme\n");
  m.Disk("sda").At(0, 0, 0, 0);
  m.Disk("sdb").At(2, 0, 1, 0);
  m.Disk("sdc").At(5, 0, 0, 0);  // on the unknown host: not listed, not rescanned
  m.Build();
  ASSERT_FALSE(SCSI::CreateDiskSubsystem()->Refresh());
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/class/scsi_host/host0/scan"));
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/class/scsi_host/host2/scan"));
  EXPECT_EQ("", m.ReadFile("/sys/class/scsi_host/host5/scan"));
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/block/sda/device/rescan"));
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/block/sdb/device/rescan"));
  EXPECT_EQ("", m.ReadFile("/sys/block/sdc/device/rescan"));
  EXPECT_EQ("", m.ReadFile("/sys/block/sda/device/delete"));
}

TEST(Subsystem, RefreshWithoutHostsStillRescansNothingAndSucceeds) {
  AS_FAKE_MACHINE(m);
  m.Build();
  EXPECT_FALSE(SCSI::CreateDiskSubsystem()->Refresh());
}

TEST(Subsystem, RefreshReportsAHostThatCannotBeScanned) {
  AS_FAKE_MACHINE(m);
  m.Host(1, "ahci\n");
  m.Build();
  ASSERT_EQ(0, unlink("/sys/class/scsi_host/host1/scan"));
  const Common::Error e = SCSI::CreateDiskSubsystem()->Refresh();
  EXPECT_EQ(0x530040u, e.GetCode());
  EXPECT_EQ("Failed to refresh SCSI subsystem.", Common::ToUtf8(e.GetText()));
  EXPECT_EQ(366, e.GetLocation().line);
  EXPECT_EQ(0x5300C6u, e.GetCause().GetCause().GetCode());
}

TEST(Subsystem, RemovingAnUnknownDiskSaysSo) {
  AS_FAKE_MACHINE(m);
  m.Build();
  SCSI::Disk disk;
  disk.name = Common::Str(u"sdz");
  const Common::Error e = SCSI::CreateDiskSubsystem()->RemoveDisk(disk);
  EXPECT_EQ(0x530040u, e.GetCode());
  EXPECT_EQ("Failed to delete SCSI disk from the system. Device name: sdz.", Common::ToUtf8(e.GetText()));
  EXPECT_EQ("Cannot find attached hard disks in the system.", Common::ToUtf8(e.GetCause().GetText()));
}

TEST(Subsystem, LockIsRecursiveAndHeldByEveryCopy) {
  AS_FAKE_MACHINE(m);
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();
  auto first = subsystem->Lock();
  auto second = subsystem->Lock();  // same thread: no deadlock
  second.reset();
  subsystem.reset();  // the holder keeps what it locked alive
  // Another process must wait while `first` lives.
  auto other = std::async(std::launch::async, [] {
    const pid_t child = fork();
    if (child == 0) {
      auto mutex = Common::SharedMutex::Create("SCSISubsystemLocker");
      mutex->Lock();
      mutex->Unlock();
      _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return std::chrono::steady_clock::now();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto released = std::chrono::steady_clock::now();
  first.reset();
  EXPECT_GE(other.get(), released);
}

// A loop device of the host whose kernel announcements the test can trigger.
class BorrowedDevice {
 public:
  BorrowedDevice() {
    for (int n = 0; n < 8 && fd_ < 0; ++n) {
      const std::string dir = "/sys/devices/virtual/block/loop" + std::to_string(n);
      FILE* dev = std::fopen((dir + "/dev").c_str(), "r");
      if (dev == nullptr) continue;
      if (std::fscanf(dev, "%u:%u", &major_, &minor_) == 2) fd_ = open((dir + "/uevent").c_str(), O_WRONLY | O_CLOEXEC);
      std::fclose(dev);
    }
  }
  ~BorrowedDevice() {
    if (fd_ >= 0) close(fd_);
  }
  bool Available() const { return fd_ >= 0; }
  unsigned Major() const { return major_; }
  unsigned Minor() const { return minor_; }
  // Until the waiting call has registered for notifications, an announcement could
  // be missed; keep announcing until it completes.
  template <class F>
  Common::Error AnnounceUntilDone(F call) {
    auto result = std::async(std::launch::async, call);
    while (result.wait_for(std::chrono::milliseconds(200)) != std::future_status::ready)
      if (write(fd_, "change", 6) != 6) ADD_FAILURE() << "cannot announce the device";
    return result.get();
  }

 private:
  int fd_ = -1;
  unsigned major_ = 0, minor_ = 0;
};

TEST(Subsystem, RemoveWritesDeleteAndCompletesOnTheDevicesAnnouncement) {
  BorrowedDevice loop;  // before the fake /sys hides the real one
  if (!loop.Available()) GTEST_SKIP() << "this host has no loop device to borrow";
  AS_FAKE_MACHINE(m);
  TraceRecorder traces;
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0).Dev(loop.Major(), loop.Minor());
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();
  SCSI::Disk disk;
  disk.name = Common::Str(u"sdb");
  const Common::Error e = loop.AnnounceUntilDone([&] { return subsystem->RemoveDisk(disk); });
  EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  EXPECT_EQ("1\n", m.ReadFile("/sys/block/sdb/device/delete"));
  const std::string updated = "Updated disk device " + std::to_string(loop.Major()) + ":" + std::to_string(loop.Minor());
  EXPECT_FALSE(traces.Containing(updated).empty());
  EXPECT_TRUE(traces.Containing("time:").empty());  // a normal exit is not timed
}

TEST(Subsystem, AddScansTheHostAndNamesTheDiskThatAppears) {
  BorrowedDevice loop;
  if (!loop.Available()) GTEST_SKIP() << "this host has no loop device to borrow";
  AS_FAKE_MACHINE(m);
  m.Host(0, "ata_piix\n").Host(2, "virtio_scsi\n");
  m.Disk("sdd").At(2, 0, 3, 0).Dev(loop.Major(), loop.Minor());
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();
  SCSI::Disk wanted;
  wanted.host = 2;
  wanted.target = 3;
  String name;
  const Common::Error e = loop.AnnounceUntilDone([&] { return subsystem->AddDisk(wanted, name); });
  EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  EXPECT_EQ(Common::Str(u"sdd"), name);
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/class/scsi_host/host2/scan"));
  EXPECT_EQ("", m.ReadFile("/sys/class/scsi_host/host0/scan"));
  // The finished call unregistered from the driver library; the next one registers
  // again and completes the same way.
  name.clear();
  const Common::Error again = loop.AnnounceUntilDone([&] { return subsystem->AddDisk(wanted, name); });
  EXPECT_FALSE(again) << Common::ToUtf8(again.GetText());
  EXPECT_EQ(Common::Str(u"sdd"), name);
}

}  // namespace
