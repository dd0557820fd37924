// The notification stand-in against the host kernel's own uevents: adding and removing a
// loop device makes the kernel report "add" and "remove" for its number.
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "../../support/descriptors.h"
#include "lx_supp.h"

namespace {

using namespace std::chrono_literals;
using LinuxEx::RegisterSnapApiCallBack;
using LinuxEx::UnregisterSnapApiCallBack;
using TestSupport::CountOwnFds;
using TestSupport::CountThreads;

struct Seen {
  std::mutex mutex;
  std::condition_variable changed;
  std::set<dev_t> devices;
  bool malformed = false;

  bool WaitFor(dev_t device) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, 20s, [&] { return devices.count(device) > 0; });
  }
};

// Notifies under the lock: the waiter may destroy `seen` as soon as it has the lock again.
void Record(const LinuxEx::snap_message* messages, void* context) {
  Seen& seen = *static_cast<Seen*>(context);
  std::lock_guard<std::mutex> lock(seen.mutex);
  int i = 0;
  for (; messages[i].kind != LinuxEx::snap_end && i < 1000; ++i) {
    seen.malformed |= messages[i].kind != LinuxEx::snap_disk_updated;
    seen.devices.insert(makedev(messages[i].major, messages[i].minor));
  }
  seen.malformed |= i == 0 || i == 1000;
  seen.changed.notify_all();
}

void RecordAndLeave(const LinuxEx::snap_message* messages, void* context) {
  Record(messages, context);
  EXPECT_EQ(0, UnregisterSnapApiCallBack(RecordAndLeave));
}

// A listener thread serves the registrations; the last one to leave takes the thread and
// its descriptors away, also from inside its callback (the library's last handle may drop there).
TEST(LxSupp, RegistrationsHearTheKernelUntilTheyLeave) {
  std::thread([] {}).join();  // sanitizer runtimes start a helper thread with the first one
  const int threads = CountThreads(), descriptors = CountOwnFds(), inheritable = TestSupport::CountInheritableFds();
  const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  if (control < 0) GTEST_SKIP() << "needs root and loop devices";
  Seen added, removed;
  ASSERT_EQ(0, RegisterSnapApiCallBack(Record, &added));
  EXPECT_EQ(threads + 1, CountThreads());
  EXPECT_EQ(inheritable, TestSupport::CountInheritableFds()) << "the listener's descriptors are close-on-exec";
  const int n = ::ioctl(control, LOOP_CTL_ADD, -1);
  struct stat st {};
  ASSERT_EQ(0, ::stat(("/dev/loop" + std::to_string(n)).c_str(), &st));
  EXPECT_TRUE(added.WaitFor(st.st_rdev)) << "added";
  ASSERT_EQ(0, RegisterSnapApiCallBack(RecordAndLeave, &removed));
  ASSERT_EQ(0, UnregisterSnapApiCallBack(Record));
  EXPECT_EQ(threads + 1, CountThreads());
  EXPECT_EQ(0, ::ioctl(control, LOOP_CTL_REMOVE, n));
  ::close(control);
  EXPECT_TRUE(removed.WaitFor(st.st_rdev)) << "removed";
  for (int i = 0; i < 200 && (CountThreads() != threads || CountOwnFds() != descriptors); ++i)
    std::this_thread::sleep_for(10ms);
  EXPECT_EQ(threads, CountThreads());
  EXPECT_EQ(descriptors, CountOwnFds());
  EXPECT_FALSE(added.malformed || removed.malformed);
}

}  // namespace
