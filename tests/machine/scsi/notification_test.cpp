// Device notifications: which records of a batch are offered, who claims them, and
// the proxy's registration with the driver library. Batches are handed to the proxy
// directly; the handlers' waits use short time-outs instead of ten minutes.
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

// Records what it is offered and claims one device. Only SCSI disk numbers (major 8)
// are kept: the host's own kernel may announce its loop devices meanwhile.
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

TEST(Notifications, OnlyUpdatedDevicesBeforeTheEndAreOffered) {
  auto recorder = std::make_shared<Recorder>();
  AttachedHandler attached(recorder);
  DiskNotificationProxy::Obtain()->Deliver(Batch({{2, 8, 0}, {1, 8, 16}, {0, 8, 32}, {1, 8, 48}}).data());
  EXPECT_EQ((std::vector<Device>{{8, 16}}), recorder->Offered());
}

TEST(Notifications, TheFirstClaimEndsTheBatch) {
  auto first = std::make_shared<Recorder>(Device{8, 16});
  auto second = std::make_shared<Recorder>(Device{8, 32});
  AttachedHandler a(first), b(second);
  DiskNotificationProxy::Obtain()->Deliver(Batch({{1, 8, 16}, {1, 8, 32}, {0, 0, 0}}).data());
  EXPECT_TRUE(first->Execute(0));
  EXPECT_FALSE(second->Execute(0));  // still waiting
  EXPECT_TRUE(second->Offered().empty());
}

TEST(Notifications, RemoveWaitsForItsOwnDevice) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdc").At(2, 0, 2, 0);
  m.Build();
  auto handler = std::make_shared<SCSI::Detail::RemoveDiskHandler>(Common::Str(u"sdc"), 8, 32);
  AttachedHandler attached(handler);
  auto proxy = DiskNotificationProxy::Obtain();

  proxy->Deliver(Batch({{1, 8, 33}, {0, 0, 0}}).data());
  EXPECT_FALSE(handler->Execute(50));  // timed out
  EXPECT_EQ("1\n", m.ReadFile("/sys/block/sdc/device/delete"));
  proxy->Deliver(Batch({{1, 8, 32}, {0, 0, 0}}).data());
  EXPECT_TRUE(handler->Execute(50));
}

TEST(Notifications, AddClaimsTheDiskAtItsAddressAndKeepsTheFirstAnswer) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0);  // 8:16
  m.Disk("sdd").At(2, 0, 3, 0);  // 8:48
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();  // the disk library is initialised
  dsk_supp::UnixVolID expected;
  expected.ScsiHost = 2;
  expected.ScsiTarget = 3;
  auto handler = std::make_shared<SCSI::Detail::AddDiskHandler>(expected);
  auto behind = std::make_shared<Recorder>();
  AttachedHandler attachedHandler(handler);
  AttachedHandler attachedBehind(behind);
  auto proxy = DiskNotificationProxy::Obtain();

  proxy->Deliver(Batch({{1, 8, 240}, {1, 8, 16}, {0, 0, 0}}).data());
  EXPECT_FALSE(handler->Execute(50));  // timed out: no such disk, another target
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/class/scsi_host/host2/scan"));
  proxy->Deliver(Batch({{1, 8, 48}, {0, 0, 0}}).data());
  EXPECT_TRUE(handler->Execute(50));
  EXPECT_EQ("/dev/sdd", handler->Volume().DevNode);
  // Announced again: still the handler's own, so nobody behind it is asked.
  proxy->Deliver(Batch({{1, 8, 48}, {0, 0, 0}}).data());
  EXPECT_EQ((std::vector<Device>{{8, 240}, {8, 16}}), behind->Offered());
  EXPECT_EQ("/dev/sdd", handler->Volume().DevNode);
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
