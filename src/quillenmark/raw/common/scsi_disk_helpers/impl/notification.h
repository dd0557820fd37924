#pragma once
// Completion of disk additions and removals by the snapshot driver's device
// notifications. Each AddDisk or RemoveDisk call puts a handler on the list of the
// process-wide proxy; the driver's callback, on its own thread, offers every updated
// device to the handlers until one claims it, and the claiming handler sets the
// event its call waits on.
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>

#include "core/common/event.h"
#include "core/common/ustring.h"
#include "dsk_supp.h"

namespace SCSI {
namespace Detail {

class DiskSubsystemHandler {
 public:
  virtual ~DiskSubsystemHandler() = default;
  // Starts the change and waits up to `timeout` ms for its notification.
  virtual bool Execute(uint32_t timeout) = 0;
  // True when the updated device is this handler's own; the event is then set.
  virtual bool OnDeviceEvent(uint32_t major, uint32_t minor) = 0;

 protected:
  Common::Event event_;  // auto-reset, not signalled
};

class AddDiskHandler : public DiskSubsystemHandler {
 public:
  // Expects the disk at `expected`'s SCSI host and target.
  explicit AddDiskHandler(const dsk_supp::UnixVolID& expected)
      : host_(expected.ScsiHost), target_(expected.ScsiTarget), volume_(expected) {}
  bool Execute(uint32_t timeout) override;
  bool OnDeviceEvent(uint32_t major, uint32_t minor) override;
  // The volume found; read it after Execute returned true.
  const dsk_supp::UnixVolID& Volume() const { return volume_; }

 private:
  const unsigned int host_;
  const unsigned int target_;
  // Kept by the handler, not borrowed from the caller: a notification may still
  // arrive after the call has given up and gone.
  dsk_supp::UnixVolID volume_;
  std::atomic<bool> claimed_{false};
};

class RemoveDiskHandler : public DiskSubsystemHandler {
 public:
  RemoveDiskHandler(String name, uint32_t major, uint32_t minor)
      : name_(std::move(name)), major_(major), minor_(minor) {}
  bool Execute(uint32_t timeout) override;
  bool OnDeviceEvent(uint32_t major, uint32_t minor) override;

 private:
  String name_;
  uint32_t major_;
  uint32_t minor_;
};

// The one per-process receiver of device notifications; it is registered with the
// driver library while any call is attached and unregistered when the last goes.
class DiskNotificationProxy {
 public:
  using Handlers = std::list<std::shared_ptr<DiskSubsystemHandler>>;

  // The live proxy, or a new, registered one. Throws when registration fails.
  static std::shared_ptr<DiskNotificationProxy> Obtain();
  ~DiskNotificationProxy();

  Handlers::iterator Attach(std::shared_ptr<DiskSubsystemHandler> handler);
  void Detach(Handlers::iterator node);

  // Offers the devices of a batch to the handlers (the driver's callback).
  void Deliver(const void* messages);

 private:
  DiskNotificationProxy() = default;

  bool registered_ = false;  // unregistered by the destructor only if it was
  std::recursive_mutex mutex_;
  Handlers handlers_;
};

// A handler attached for the life of the scope, detached also when Execute throws.
class AttachedHandler {
 public:
  explicit AttachedHandler(std::shared_ptr<DiskSubsystemHandler> handler)
      : proxy_(DiskNotificationProxy::Obtain()), node_(proxy_->Attach(std::move(handler))) {}
  ~AttachedHandler() { proxy_->Detach(node_); }
  AttachedHandler(const AttachedHandler&) = delete;
  AttachedHandler& operator=(const AttachedHandler&) = delete;

 private:
  std::shared_ptr<DiskNotificationProxy> proxy_;
  DiskNotificationProxy::Handlers::iterator node_;
};

}  // namespace Detail
}  // namespace SCSI
