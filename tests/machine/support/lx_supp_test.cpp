// The notification stand-in against the host kernel's own uevents: attaching and
// detaching a loop device makes the kernel report "change" for its number.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "lx_supp.h"
#include "run_shell.h"

namespace {

using FakeMachineTesting::RunShell;
using namespace std::chrono_literals;

int CountEntries(const char* dir) {
  int count = 0;
  if (DIR* d = ::opendir(dir)) {
    while (dirent* e = ::readdir(d)) count += e->d_name[0] != '.';
    ::closedir(d);
  }
  return count;
}

int Threads() { return CountEntries("/proc/self/task"); }
int Descriptors() { return CountEntries("/proc/self/fd"); }

// What one registration saw; records are checked as they arrive.
struct Seen {
  std::mutex mutex;
  std::condition_variable changed;
  std::set<std::pair<uint32_t, uint32_t>> devices;
  int batches = 0;
  bool malformed = false;
  bool unregisterInside = false;

  int Batches() {
    std::lock_guard<std::mutex> lock(mutex);
    return batches;
  }
  bool WaitFor(uint32_t major, uint32_t minor) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, 20s, [&] { return devices.count({major, minor}) > 0; });
  }
};

void Record(const LinuxEx::snap_message* messages, void* context) {
  Seen& seen = *static_cast<Seen*>(context);
  {
    std::lock_guard<std::mutex> lock(seen.mutex);
    ++seen.batches;
    int i = 0;
    for (; messages[i].kind != LinuxEx::snap_end && i < 1000; ++i) {
      if (messages[i].kind != LinuxEx::snap_disk_updated) seen.malformed = true;
      seen.devices.insert({messages[i].major, messages[i].minor});
    }
    if (i == 0 || i == 1000) seen.malformed = true;
  }
  seen.changed.notify_all();
}

void RecordAndLeave(const LinuxEx::snap_message* messages, void* context) {
  Record(messages, context);
  EXPECT_EQ(0, LinuxEx::UnregisterSnapApiCallBack(RecordAndLeave));
}

void Other(const LinuxEx::snap_message* messages, void* context) { Record(messages, context); }

// Attaches a loop device to a small file and detaches it again, which makes the kernel
// report changes of its number; true with the device's numbers.
bool CycleLoopDevice(uint32_t& major, uint32_t& minor) {
  char file[] = "/tmp/lx_supp_testXXXXXX";
  const int fd = ::mkstemp(file);
  if (fd < 0) return false;
  bool ok = ::ftruncate(fd, 1 << 20) == 0;
  ::close(fd);
  std::string device = ok ? RunShell(std::string("losetup -f --show ") + file).out : "";
  while (!device.empty() && device.back() == '\n') device.pop_back();
  struct stat st;
  ok = !device.empty() && ::stat(device.c_str(), &st) == 0;
  if (ok) {
    major = major(st.st_rdev);
    minor = minor(st.st_rdev);
  }
  if (!device.empty()) RunShell("losetup -d " + device);
  ::unlink(file);
  return ok;
}

class LxSupp : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root to attach loop devices";
    if (RunShell("command -v losetup >/dev/null").status != 0) GTEST_SKIP() << "losetup is not installed";
    // Sanitizer runtimes start a helper thread with the first thread; counts start after it.
    std::thread([] {}).join();
  }
};

// One listener thread serves every registration; unregistering one keeps the other,
// and the last takes the thread and its socket away.
TEST_F(LxSupp, EveryRegistrationHearsTheKernelUntilItLeaves) {
  const int threads = Threads(), descriptors = Descriptors();
  Seen first, second;
  ASSERT_EQ(0, LinuxEx::RegisterSnapApiCallBack(Record, &first));
  ASSERT_EQ(0, LinuxEx::RegisterSnapApiCallBack(Other, &second));
  EXPECT_EQ(threads + 1, Threads()) << "one listener for all";
  uint32_t major = 0, minor = 0;
  ASSERT_TRUE(CycleLoopDevice(major, minor));
  EXPECT_TRUE(first.WaitFor(major, minor)) << "no uevent for " << major << ":" << minor;
  EXPECT_TRUE(second.WaitFor(major, minor));
  ASSERT_EQ(0, LinuxEx::UnregisterSnapApiCallBack(Record));
  const int batchesBefore = first.Batches();
  ASSERT_TRUE(CycleLoopDevice(major, minor));
  EXPECT_TRUE(second.WaitFor(major, minor));
  EXPECT_EQ(batchesBefore, first.Batches()) << "called after unregistration";
  ASSERT_EQ(0, LinuxEx::UnregisterSnapApiCallBack(Other));
  EXPECT_EQ(threads, Threads());
  EXPECT_EQ(descriptors, Descriptors());
  EXPECT_FALSE(first.malformed || second.malformed);
}

TEST_F(LxSupp, UnregisteringFromInsideTheCallbackEndsTheListener) {
  int threads = Threads(), descriptors = Descriptors();
  Seen seen;
  ASSERT_EQ(0, LinuxEx::RegisterSnapApiCallBack(RecordAndLeave, &seen));
  uint32_t major = 0, minor = 0;
  ASSERT_TRUE(CycleLoopDevice(major, minor));
  {
    std::unique_lock<std::mutex> lock(seen.mutex);
    ASSERT_TRUE(seen.changed.wait_for(lock, 20s, [&] { return seen.batches > 0; }));
  }
  // The listener frees itself once the callback has returned.
  for (int i = 0; i < 200 && (Threads() != threads || Descriptors() != descriptors); ++i) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(threads, Threads());
  EXPECT_EQ(descriptors, Descriptors());
  EXPECT_EQ(ENOENT, LinuxEx::UnregisterSnapApiCallBack(RecordAndLeave));
  Seen again;
  ASSERT_EQ(0, LinuxEx::RegisterSnapApiCallBack(Record, &again));
  ASSERT_TRUE(CycleLoopDevice(major, minor));
  EXPECT_TRUE(again.WaitFor(major, minor));
  EXPECT_EQ(0, LinuxEx::UnregisterSnapApiCallBack(Record));
}

TEST(LxSuppArguments, NullAndUnknownCallbacks) {
  EXPECT_EQ(EINVAL, LinuxEx::RegisterSnapApiCallBack(nullptr, nullptr));
  EXPECT_EQ(ENOENT, LinuxEx::UnregisterSnapApiCallBack(Record));
  EXPECT_EQ(ENOENT, LinuxEx::UnregisterSnapApiCallBack(nullptr));
}

}  // namespace
