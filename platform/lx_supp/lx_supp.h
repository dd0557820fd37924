#pragma once
// Snapshot-driver support library of the appliance, the part that reports block
// device changes. This is the stand-in: a thread of its own listens to the kernel's
// block-device uevents and hands them to the registered callbacks as batches of
// snap_message records.
//
// Threads: the listener thread starts with the first registration and stops with the
// last unregistration, which waits for it to end, so that once
// UnregisterSnapApiCallBack returns (from any other thread) the callback is not
// running and will not be called again. Callbacks run on the listener thread, one at a
// time, with the library's lock held; they may register and unregister callbacks,
// themselves included. A callback that unregisters the last registration stops the
// listener, which cannot wait for itself: it ends as soon as the callback returns and
// closes its descriptors on its way out. A callback must not wait for a thread that
// is itself unregistering, or the two wait for each other.
//
// Nothing is thrown across this interface.
#include <cstdint>

#define LX_SUPP_API __attribute__((visibility("default")))

namespace LinuxEx {

enum snap_kind : uint32_t {
  snap_end = 0,           // ends a batch
  snap_disk_updated = 1,  // a whole disk was added, removed or changed
};

// One record of a batch; a batch ends with a record of kind snap_end.
struct snap_message {
  uint32_t kind;
  uint32_t major;
  uint32_t minor;
  uint8_t unused[20];
};
static_assert(sizeof(snap_message) == 32, "snap_message is a 32-byte record");

using SnapApiCallBack = void (*)(const snap_message* messages, void* context);

// Adds a registration. The same callback may be registered more than once; each
// registration is delivered to separately. Returns 0, or an errno value when the
// listener cannot start (EINVAL for a null callback).
LX_SUPP_API int RegisterSnapApiCallBack(SnapApiCallBack callback, void* context) noexcept;

// Removes the oldest registration of `callback`. Returns 0, or ENOENT when it has none.
LX_SUPP_API int UnregisterSnapApiCallBack(SnapApiCallBack callback) noexcept;

}  // namespace LinuxEx
