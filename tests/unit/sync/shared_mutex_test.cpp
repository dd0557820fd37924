#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <atomic>
#include <thread>

#include "../../support/child.h"
#include "../../support/descriptors.h"
#include "../common/sleeps_in.h"
#include "core/common/error.h"
#include "core/common/shared_mutex.h"
#include "core/common/unicode.h"
#include "../../support/lock_probe.h"

namespace {

using TestSupport::FileLockHeld;
using TestSupport::LockPath;

class SharedMutexTest : public ::testing::Test {
 protected:
  void TearDown() override { unlink(LockPath(name_).c_str()); }
  const std::string name_ = TestSupport::UniqueName("mutex");
};

// The lock file is private and outlives the object; recursion holds the file lock until
// the last Unlock; one Unlock too many is only reported.
TEST_F(SharedMutexTest, LockFileAndRecursion) {
  const int before = TestSupport::CountOwnFds();
  Common::SharedMutex::Create(name_.c_str()).reset();
  struct stat st {};
  ASSERT_EQ(stat(LockPath(name_).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  auto mutex = Common::SharedMutex::Create(name_.c_str());
  EXPECT_EQ(TestSupport::CountOwnFds(), before + 1);
  EXPECT_FALSE(FileLockHeld(name_));
  for (int i = 0; i < 2; ++i) mutex->Lock();
  mutex->Unlock();
  EXPECT_TRUE(FileLockHeld(name_));
  mutex->Unlock();
  EXPECT_FALSE(FileLockHeld(name_));
  mutex->Unlock();
  mutex->Lock();
  EXPECT_TRUE(FileLockHeld(name_));
  mutex->Unlock();
}

TEST_F(SharedMutexTest, AnotherObjectWaitsForTheHolder) {
  auto mutex = Common::SharedMutex::Create(name_.c_str());
  for (bool process : {false, true}) {
    SCOPED_TRACE(process ? "another process" : "another thread");
    int done[2];
    ASSERT_EQ(pipe(done), 0);
    auto lockOnce = [&] {
      auto other = Common::SharedMutex::Create(name_.c_str());
      other->Lock();
      const int wrote = write(done[1], "x", 1);
      other->Unlock();
      return wrote == 1 ? 0 : 1;
    };
    mutex->Lock();
    std::atomic<long> tid{0};
    std::thread thread;
    const pid_t child = process ? TestSupport::StartChild(lockOnce) : -1;
    if (!process) thread = std::thread([&] { tid = syscall(SYS_gettid); lockOnce(); });
    while (!process && tid == 0) std::this_thread::yield();
    const std::string task = process ? std::to_string(child) : "self/task/" + std::to_string(tid);
    pollfd got{done[0], POLLIN, 0};
    while (!UnitTest::SleepsIn(task, SYS_flock) && poll(&got, 1, 1) == 0) continue;
    EXPECT_EQ(poll(&got, 1, 0), 0) << "the other got the lock while it was held";
    mutex->Unlock();
    if (process) EXPECT_EQ(TestSupport::WaitChild(child), 0);
    else thread.join();
    char c = 0;
    EXPECT_EQ(read(done[0], &c, 1), 1);
    close(done[0]), close(done[1]);
  }
  EXPECT_FALSE(FileLockHeld(name_));
}

TEST(SharedMutexCreate, Failures) {
  const std::string longName(300, 'n');
  const struct { const char* name; int err; } cases[] = {
      {"zl/no/such/dir", ENOENT}, {nullptr, EINVAL}, {longName.c_str(), ENAMETOOLONG}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name ? c.name : "null");
    try {
      auto mutex = Common::SharedMutex::Create(c.name);
      ADD_FAILURE() << "created";
    } catch (const Common::Error& e) {
      EXPECT_TRUE(e.GetCode() == 6u && e.GetFieldNames() == std::string("token,$module") &&
                  e.GetStringField("token") == std::string(c.name ? c.name : "") &&
                  e.GetLocation().function == std::string("Create") && e.GetCause().GetCode() == Common::Error::kPosixCode);
      EXPECT_EQ(e.GetCause().GetNumericField("code"), c.err);
      EXPECT_NE(e.GetText().find(Common::FromUtf8(c.name ? c.name : "")), String::npos);  // in place of {0}
      EXPECT_EQ(e.GetText().find(Common::Str(u"{0}")), String::npos);
    }
  }
  // A lock directory that takes no file (read-only here; root only, else not tried).
  EXPECT_NE(1, TestSupport::RunInChild([] {
    if (unshare(CLONE_NEWNS) || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        mount("tmpfs", "/tmp", "tmpfs", MS_RDONLY, nullptr))
      return 2;
    try {
      Common::SharedMutex::Create("readonly");
    } catch (const Common::Error& e) {
      return e.GetCode() == 6u && e.GetCause().GetNumericField("code") == EROFS ? 0 : 1;
    }
    return 1;
  }));
}

}  // namespace
