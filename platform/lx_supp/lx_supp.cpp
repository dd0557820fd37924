#include "lx_supp.h"
#include "lx_supp_internal.h"

#include <libudev.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace LinuxEx {
namespace {

// Records delivered in one call at most; a burst of uevents is split into batches.
constexpr size_t kMaxBatch = 256;
// A burst of disk changes must not overflow the socket's default buffer.
constexpr int kReceiveBuffer = 1 << 20;

struct Listener {
  udev* context = nullptr;
  udev_monitor* monitor = nullptr;
  int wake = -1;
  std::thread thread;
  // Set under the registry lock. `selfOwned`: the listener was stopped from its own
  // thread, which then detaches and frees it.
  bool stop = false;
  bool selfOwned = false;

  ~Listener() {
    if (monitor) udev_monitor_unref(monitor);
    if (context) udev_unref(context);
    if (wake >= 0) ::close(wake);
  }
};
struct Registration {
  SnapApiCallBack callback;
  void* context;
  uint64_t id;
};

struct Registry {
  // Recursive: callbacks run with it held and may register or unregister.
  std::recursive_mutex mutex;
  std::vector<Registration> registrations;
  uint64_t nextId = 1;
  std::unique_ptr<Listener> listener;
};

// Never destroyed: a listener that outlives static destruction still finds it.
Registry& TheRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

bool StillRegistered(const Registry& registry, uint64_t id) {
  for (const Registration& r : registry.registrations) {
    if (r.id == id) return true;
  }
  return false;
}

// Returns whether the listener should go on.
bool Deliver(Listener& self, std::vector<snap_message>& batch) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::recursive_mutex> lock(registry.mutex);
  if (self.stop) return false;
  snap_message end{};
  end.kind = snap_end;
  batch.push_back(end);
  // A callback may change the registrations; those removed meanwhile are skipped,
  // those added meanwhile wait for the next batch.
  std::vector<Registration> snapshot = registry.registrations;
  for (const Registration& r : snapshot) {
    if (self.stop) break;
    if (StillRegistered(registry, r.id)) r.callback(batch.data(), r.context);
  }
  batch.clear();
  return !self.stop;
}

// Reads every uevent that is waiting and delivers the disk changes among them.
// libudev answers null once nothing is waiting, and also for a datagram it refuses
// (not from the kernel, damaged, overflow): poll then brings the thread back.
bool Drain(Listener& self) {
  std::vector<snap_message> batch;
  while (udev_device* device = udev_monitor_receive_device(self.monitor)) {
    snap_message record;
    if (Detail::DiskChangeRecord(device, record)) batch.push_back(record);
    udev_device_unref(device);
    if (batch.size() == kMaxBatch && !Deliver(self, batch)) return false;
  }
  return batch.empty() || Deliver(self, batch);
}

void Run(Listener* self) {
  for (;;) {
    pollfd fds[2] = {{udev_monitor_get_fd(self->monitor), POLLIN, 0}, {self->wake, POLLIN, 0}};
    int ready = ::poll(fds, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || fds[1].revents != 0) break;
    // POLLERR is an overflow, which the next read reports and clears.
    if (fds[0].revents & POLLNVAL) break;
    if (!Drain(*self)) break;
  }
  bool selfOwned;
  {
    std::lock_guard<std::recursive_mutex> lock(TheRegistry().mutex);
    selfOwned = self->selfOwned;
  }
  if (selfOwned) {
    self->thread.detach();
    delete self;
  }
}

int LastError() { return errno != 0 ? errno : ENOMEM; }

int Start(std::unique_ptr<Listener>& started) {
  auto listener = std::make_unique<Listener>();
  errno = 0;
  listener->context = udev_new();
  if (!listener->context) return LastError();
  // The kernel's own uevents, not udevd's: the appliance may run none.
  listener->monitor = udev_monitor_new_from_netlink(listener->context, "kernel");
  if (!listener->monitor) return LastError();
  int r = udev_monitor_filter_add_match_subsystem_devtype(listener->monitor, "block", "disk");
  if (r >= 0) r = udev_monitor_enable_receiving(listener->monitor);
  if (r < 0) return -r;
  udev_monitor_set_receive_buffer_size(listener->monitor, kReceiveBuffer);
  listener->wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (listener->wake < 0) return errno;
  try {
    listener->thread = std::thread(Run, listener.get());
  } catch (...) {
    return EAGAIN;
  }
  started = std::move(listener);
  return 0;
}

// Called without the registry lock: the listener may be waiting for it.
void StopAndJoin(std::unique_ptr<Listener> listener) {
  uint64_t one = 1;
  // An eventfd write fails only on overflow, which a pending wake-up already means.
  (void)TEMP_FAILURE_RETRY(::write(listener->wake, &one, sizeof one));
  if (listener->thread.joinable()) listener->thread.join();
}

}  // namespace

int RegisterSnapApiCallBack(SnapApiCallBack callback, void* context) noexcept {
  if (!callback) return EINVAL;
  Registry& registry = TheRegistry();
  std::lock_guard<std::recursive_mutex> lock(registry.mutex);
  try {
    if (!registry.listener) {
      int error = Start(registry.listener);
      if (error != 0) return error;
    }
    registry.registrations.push_back({callback, context, registry.nextId++});
  } catch (...) {
    return ENOMEM;
  }
  return 0;
}

int UnregisterSnapApiCallBack(SnapApiCallBack callback) noexcept {
  Registry& registry = TheRegistry();
  std::unique_ptr<Listener> stopping;
  {
    std::lock_guard<std::recursive_mutex> lock(registry.mutex);
    auto& list = registry.registrations;
    auto found = list.begin();
    while (found != list.end() && found->callback != callback) ++found;
    if (found == list.end()) return ENOENT;
    list.erase(found);
    if (!list.empty() || !registry.listener) return 0;
    Listener* listener = registry.listener.get();
    listener->stop = true;
    if (listener->thread.get_id() == std::this_thread::get_id()) {
      // Inside a callback: the thread finishes this batch's bookkeeping and frees itself.
      listener->selfOwned = true;
      registry.listener.release();
      return 0;
    }
    stopping = std::move(registry.listener);
  }
  StopAndJoin(std::move(stopping));
  return 0;
}

}  // namespace LinuxEx
