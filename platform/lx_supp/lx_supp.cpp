#include "lx_supp.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "uevent.h"

namespace LinuxEx {
namespace {

// Records delivered in one call at most; a burst of uevents is split into batches.
constexpr size_t kMaxBatch = 256;
// The kernel keeps one uevent below 2 KiB; anything longer is not one.
constexpr size_t kDatagramSize = 8192;
constexpr int kReceiveBuffer = 1 << 20;

struct Listener {
  int socket = -1;
  int wake = -1;
  std::thread thread;
  // Set under the registry lock. `selfOwned`: the listener was stopped from its own
  // thread, which then detaches and frees it.
  bool stop = false;
  bool selfOwned = false;

  ~Listener() {
    if (socket >= 0) ::close(socket);
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

// Reads every datagram that is waiting and delivers the disk changes among them.
bool Drain(Listener& self) {
  std::vector<snap_message> batch;
  char buffer[kDatagramSize];
  for (;;) {
    sockaddr_nl sender{};
    iovec io{buffer, sizeof buffer};
    msghdr message{};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    ssize_t got = ::recvmsg(self.socket, &message, MSG_DONTWAIT);
    if (got < 0) {
      if (errno == EINTR || errno == ENOBUFS) continue;  // ENOBUFS: some were lost
      break;
    }
    // Only the kernel speaks on this socket; a datagram from a process is not a uevent.
    if (sender.nl_pid != 0 || (message.msg_flags & MSG_TRUNC)) continue;
    Uevent::DiskChange change;
    if (!Uevent::ParseDiskChange(buffer, static_cast<size_t>(got), change)) continue;
    snap_message record{};
    record.kind = snap_disk_updated;
    record.major = change.major;
    record.minor = change.minor;
    batch.push_back(record);
    if (batch.size() == kMaxBatch && !Deliver(self, batch)) return false;
  }
  return batch.empty() || Deliver(self, batch);
}

void Run(Listener* self) {
  for (;;) {
    pollfd fds[2] = {{self->socket, POLLIN, 0}, {self->wake, POLLIN, 0}};
    int ready = ::poll(fds, 2, -1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || fds[1].revents != 0) break;
    if (fds[0].revents & (POLLERR | POLLNVAL)) break;
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

int Start(std::unique_ptr<Listener>& started) {
  auto listener = std::make_unique<Listener>();
  listener->socket = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_KOBJECT_UEVENT);
  if (listener->socket < 0) return errno;
  // A burst of disk changes must not overflow the default buffer; the forced size
  // needs privileges, the plain one is the fallback.
  if (::setsockopt(listener->socket, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer,
                   sizeof kReceiveBuffer) != 0) {
    ::setsockopt(listener->socket, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = 1;  // the kernel's own uevents
  if (::bind(listener->socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return errno;
  }
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
  ssize_t written;
  do {
    written = ::write(listener->wake, &one, sizeof one);
  } while (written < 0 && errno == EINTR);
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
