#include "quillenmark/raw/common/scsi_disk_helpers/impl/notification.h"

#include <cstdio>

#include "core/common/message_ids.h"
#include "core/trace/trace_tools.h"
#include "lx_supp.h"
#include "processor/format/format_string.h"
#include "quillenmark/raw/common/scsi_disk_helpers/errors.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/host.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/utils.h"

namespace SCSI {
namespace Detail {
namespace {

void OnSnapMessages(const LinuxEx::snap_message* messages, void* context) {
  static_cast<DiskNotificationProxy*>(context)->Deliver(messages);
}

// Obtaining and replacing the one proxy is serialised, so that two first calls on
// two threads never register twice.
std::mutex gProxyMutex;
std::weak_ptr<DiskNotificationProxy> gProxy;

}  // namespace

bool AddDiskHandler::Execute(uint32_t timeout) {
  RefreshHost(host_);
  return event_.Wait(timeout);
}

bool AddDiskHandler::OnDeviceEvent(uint32_t major, uint32_t minor) {
  dsk_supp::UnixVolID found;
  found.Major = major;
  found.Minor = minor;
  dsk_supp::index_t index = 0;
  if (!dsk_supp::IndexbyDev(found, dsk_supp::mt_disk, index)) return false;
  if (!dsk_supp::VolIDbyIndex(index, dsk_supp::mt_disk, found)) return false;
  if (found.ScsiHost != host_ || found.ScsiTarget != target_) return false;
  // The kernel may announce the disk again while the caller reads the first answer:
  // a repeat is still this handler's own, but the answer stays as it was.
  if (!claimed_.exchange(true)) volume_ = found;  // read by the caller only after the event, which orders it
  event_.Set();
  return true;
}

bool RemoveDiskHandler::Execute(uint32_t timeout) {
  const std::string path = Core::FormatString("/sys/block/{0}/device/delete", name_);
  if (Common::Error e = WriteCommand(path, "1\n")) throw e;
  return event_.Wait(timeout);
}

bool RemoveDiskHandler::OnDeviceEvent(uint32_t major, uint32_t minor) {
  if (major != major_ || minor != minor_) return false;
  event_.Set();
  return true;
}

std::shared_ptr<DiskNotificationProxy> DiskNotificationProxy::Obtain() {
  std::lock_guard<std::mutex> lock(gProxyMutex);
  if (std::shared_ptr<DiskNotificationProxy> live = gProxy.lock()) return live;
  std::shared_ptr<DiskNotificationProxy> proxy(new DiskNotificationProxy);
  if (const int err = LinuxEx::RegisterSnapApiCallBack(OnSnapMessages, proxy.get())) {
    Common::Error e(kErrorDisk, GetTextFromMessageFile(Messages::InternalError), AS_HERE);
    e.AddPosixError(err, AS_HERE);
    throw e;
  }
  proxy->registered_ = true;
  gProxy = proxy;
  return proxy;
}

DiskNotificationProxy::~DiskNotificationProxy() {
  // Returns once the callback is no longer running (unless this is its own thread).
  if (registered_) LinuxEx::UnregisterSnapApiCallBack(OnSnapMessages);
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  handlers_.clear();
}

DiskNotificationProxy::Handlers::iterator DiskNotificationProxy::Attach(std::shared_ptr<DiskSubsystemHandler> handler) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  return handlers_.insert(handlers_.end(), std::move(handler));
}

void DiskNotificationProxy::Detach(Handlers::iterator node) {
  std::lock_guard<std::recursive_mutex> lock(mutex_);
  handlers_.erase(node);
}

void DiskNotificationProxy::Deliver(const void* batch) {
  for (const auto* m = static_cast<const LinuxEx::snap_message*>(batch); m->kind != LinuxEx::snap_end; ++m) {
    if (m->kind != LinuxEx::snap_disk_updated) continue;
    char major[24], minor[24];
    std::snprintf(major, sizeof major, "%llu", static_cast<unsigned long long>(m->major));
    std::snprintf(minor, sizeof minor, "%llu", static_cast<unsigned long long>(m->minor));
    TraceTools::DbgTraceInfo(kTraceCode, "Updated disk device {0}:{1}.", major, minor);
    Handlers handlers;
    {
      std::lock_guard<std::recursive_mutex> lock(mutex_);
      handlers = handlers_;
    }
    // The first claim ends the whole batch: later records are not looked at.
    for (const auto& handler : handlers)
      if (handler->OnDeviceEvent(m->major, m->minor)) return;
  }
}

}  // namespace Detail
}  // namespace SCSI
