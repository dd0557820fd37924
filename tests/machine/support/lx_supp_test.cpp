// The notification stand-in against the host kernel's own uevents: attaching and
// detaching a loop device makes the kernel report "change" for its number, adding and
// removing one "add" and "remove".
#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
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
  int batches = 0;
  bool malformed = false;

  // Takes the device out, so that a later wait sees a new report.
  bool WaitFor(dev_t device) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, 20s, [&] { return devices.erase(device) > 0; });
  }
};

void Record(const LinuxEx::snap_message* messages, void* context) {
  Seen& seen = *static_cast<Seen*>(context);
  {
    std::lock_guard<std::mutex> lock(seen.mutex);
    ++seen.batches;
    int i = 0;
    for (; messages[i].kind != LinuxEx::snap_end && i < 1000; ++i) {
      seen.malformed |= messages[i].kind != LinuxEx::snap_disk_updated;
      seen.devices.insert(makedev(messages[i].major, messages[i].minor));
    }
    seen.malformed |= i == 0 || i == 1000;
  }
  seen.changed.notify_all();
}

void RecordAndLeave(const LinuxEx::snap_message* messages, void* context) {
  Record(messages, context);
  EXPECT_EQ(0, UnregisterSnapApiCallBack(RecordAndLeave));
}

// Attaches a free loop device to a small memory file and detaches it; the number of
// the device, 0 when that failed.
dev_t CycleLoopDevice() {
  const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  const int n = control < 0 ? -1 : ::ioctl(control, LOOP_CTL_GET_FREE);
  const int file = ::memfd_create("lx_supp_test", MFD_CLOEXEC);
  const int loop = n < 0 ? -1 : ::open(("/dev/loop" + std::to_string(n)).c_str(), O_RDWR | O_CLOEXEC);
  struct stat st {};
  const bool ok = loop >= 0 && file >= 0 && ::ftruncate(file, 1 << 20) == 0 && ::fstat(loop, &st) == 0 &&
                  ::ioctl(loop, LOOP_SET_FD, file) == 0 && ::ioctl(loop, LOOP_CLR_FD, 0) == 0;
  for (int fd : {loop, file, control}) ::close(fd);
  return ok ? st.st_rdev : 0;
}

// A listener thread serves the registration; unregistering takes the thread and its
// descriptors away, also from inside a callback (the library's last handle may drop there).
TEST(LxSupp, EveryRegistrationHearsTheKernelUntilItLeaves) {
  if (::access("/dev/loop-control", W_OK) != 0) GTEST_SKIP() << "needs root and loop devices";
  // Sanitizer runtimes start a helper thread with the first thread; counts start after it.
  std::thread([] {}).join();
  const int threads = CountThreads(), descriptors = CountOwnFds();
  const int inheritable = TestSupport::CountInheritableFds();
  Seen first, leaver, again;
  ASSERT_EQ(0, RegisterSnapApiCallBack(Record, &first));
  EXPECT_EQ(threads + 1, CountThreads());
  EXPECT_EQ(inheritable, TestSupport::CountInheritableFds()) << "the listener's descriptors are close-on-exec";
  dev_t device = CycleLoopDevice();
  ASSERT_NE(0u, device);
  EXPECT_TRUE(first.WaitFor(device)) << "no uevent for " << major(device) << ":" << minor(device);
  ASSERT_EQ(0, UnregisterSnapApiCallBack(Record));
  EXPECT_EQ(ENOENT, UnregisterSnapApiCallBack(Record));
  EXPECT_EQ(threads, CountThreads());
  EXPECT_EQ(descriptors, CountOwnFds());
  EXPECT_EQ(EINVAL, RegisterSnapApiCallBack(nullptr, nullptr));

  ASSERT_EQ(0, RegisterSnapApiCallBack(RecordAndLeave, &leaver));
  ASSERT_TRUE(leaver.WaitFor(CycleLoopDevice()));
  for (int i = 0; i < 200 && (CountThreads() != threads || CountOwnFds() != descriptors); ++i)
    std::this_thread::sleep_for(10ms);
  EXPECT_EQ(threads, CountThreads());
  EXPECT_EQ(descriptors, CountOwnFds());
  EXPECT_EQ(ENOENT, UnregisterSnapApiCallBack(RecordAndLeave));

  // A new listener hears a new device come and go.
  ASSERT_EQ(0, RegisterSnapApiCallBack(Record, &again));
  const int control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
  const int n = ::ioctl(control, LOOP_CTL_ADD, -1);
  struct stat st {};
  EXPECT_EQ(0, ::stat(("/dev/loop" + std::to_string(n)).c_str(), &st));
  EXPECT_TRUE(again.WaitFor(st.st_rdev)) << "added";
  EXPECT_EQ(0, ::ioctl(control, LOOP_CTL_REMOVE, n));
  ::close(control);
  EXPECT_TRUE(again.WaitFor(st.st_rdev)) << "removed";
  EXPECT_EQ(0, UnregisterSnapApiCallBack(Record));
  for (const Seen* seen : {&first, &leaver, &again}) EXPECT_FALSE(seen->malformed);
}

}  // namespace
