// Device notifications, with batches handed to the proxy directly and short waits.
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <mutex>

#include "core/common/unicode.h"
#include "fake_machine.h"
#include "lx_supp.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/notification.h"

namespace {

using SCSI::Detail::AttachedHandler;
using SCSI::Detail::DiskNotificationProxy;
using Device = std::pair<uint32_t, uint32_t>;

// Claims one device. Keeps only SCSI disks (major 8): the host may announce loop devices.
class Recorder : public SCSI::Detail::DiskSubsystemHandler {
 public:
  explicit Recorder(Device mine = {0, 0}) : mine_(mine) {}
  bool Execute(uint32_t timeout) override { return event_.Wait(timeout); }
  bool OnDeviceEvent(uint32_t major, uint32_t minor) override {
    if (major != 8) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    offered_.emplace_back(major, minor);
    if (Device(major, minor) != mine_) return false;
    event_.Set();
    return true;
  }
  std::vector<Device> Offered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return offered_;
  }

 private:
  const Device mine_;
  mutable std::mutex mutex_;
  std::vector<Device> offered_;
};

std::vector<LinuxEx::snap_message> Batch(std::initializer_list<std::array<uint32_t, 3>> records) {
  std::vector<LinuxEx::snap_message> batch;
  for (const auto& r : records) batch.push_back({r[0], r[1], r[2], {}});
  return batch;
}

size_t Threads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

// Only updated devices before the end record are offered; the first claim ends the batch.
TEST(Notifications, WhichRecordsAreOfferedAndWhoClaims) {
  auto first = std::make_shared<Recorder>(Device{8, 16});
  auto second = std::make_shared<Recorder>(Device{8, 32});
  AttachedHandler a(first), b(second);
  DiskNotificationProxy::Obtain()->Deliver(Batch({{2, 8, 0}, {1, 8, 48}, {1, 8, 16}, {1, 8, 32}, {0, 0, 0}}).data());
  DiskNotificationProxy::Obtain()->Deliver(Batch({{0, 8, 64}, {1, 8, 32}}).data());
  EXPECT_TRUE(first->Execute(0));
  EXPECT_FALSE(second->Execute(0));
  EXPECT_EQ((std::vector<Device>{{8, 48}, {8, 16}}), first->Offered());
  EXPECT_EQ((std::vector<Device>{{8, 48}}), second->Offered());
}

// Each handler waits for its own disk; a claimed disk announced again is still its own.
TEST(Notifications, HandlersClaimOnlyTheirOwnDisk) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0);  // 8:16
  m.Disk("sdc").At(2, 0, 2, 0);  // 8:32
  m.Disk("sdd").At(2, 0, 3, 0);  // 8:48
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();  // the disk library is initialised
  dsk_supp::UnixVolID expected;
  expected.ScsiHost = 2;
  expected.ScsiTarget = 3;
  auto add = std::make_shared<SCSI::Detail::AddDiskHandler>(expected);
  auto remove = std::make_shared<SCSI::Detail::RemoveDiskHandler>(Common::Str(u"sdc"), 8, 32);
  auto behind = std::make_shared<Recorder>();
  AttachedHandler attachedAdd(add), attachedRemove(remove), attachedBehind(behind);
  auto proxy = DiskNotificationProxy::Obtain();
  proxy->Deliver(Batch({{1, 8, 240}, {1, 8, 16}, {1, 8, 33}, {0, 0, 0}}).data());
  EXPECT_FALSE(add->Execute(50));  // timed out: no such disk, another target
  EXPECT_FALSE(remove->Execute(50));
  proxy->Deliver(Batch({{1, 8, 48}, {0, 0, 0}}).data());
  proxy->Deliver(Batch({{1, 8, 32}, {0, 0, 0}}).data());
  EXPECT_TRUE(add->Execute(50));
  EXPECT_TRUE(remove->Execute(50));
  EXPECT_EQ("/dev/sdd", add->Volume().DevNode);
  proxy->Deliver(Batch({{1, 8, 48}, {0, 0, 0}}).data());
  EXPECT_EQ((std::vector<Device>{{8, 240}, {8, 16}, {8, 33}}), behind->Offered());
  EXPECT_EQ("/dev/sdd", add->Volume().DevNode);
}

// The driver library runs a listener thread exactly while a callback is registered.
TEST(Notifications, RegisteredWhileAnyCallIsAttached) {
  const size_t idle = Threads();
  auto first = DiskNotificationProxy::Obtain();
  EXPECT_EQ(idle + 1, Threads());
  auto second = DiskNotificationProxy::Obtain();
  EXPECT_EQ(first, second);
  first.reset();
  EXPECT_EQ(idle + 1, Threads());
  second.reset();
  EXPECT_EQ(idle, Threads());
  auto again = DiskNotificationProxy::Obtain();
  EXPECT_EQ(idle + 1, Threads());
}

}  // namespace
