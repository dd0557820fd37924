#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include "../../support/child.h"
#include "../../support/descriptors.h"
#include "../../support/lock_probe.h"
#include "../common/sleeps_in.h"
#include "core/common/error.h"
#include "core/common/shared_mutex.h"
#include "core/common/unicode.h"

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
  mutex->Lock(), mutex->Lock(), mutex->Unlock();
  EXPECT_TRUE(FileLockHeld(name_));
  mutex->Unlock();
  EXPECT_FALSE(FileLockHeld(name_));
  mutex->Unlock(), mutex->Lock();
  EXPECT_TRUE(FileLockHeld(name_));
  mutex->Unlock();
}

// Another object waits for the holder; for the file lock, another object in this
// process is as foreign as one in another process.
TEST_F(SharedMutexTest, AnotherProcessWaitsForTheHolder) {
  auto mutex = Common::SharedMutex::Create(name_.c_str());
  int done[2];
  ASSERT_EQ(pipe(done), 0);
  mutex->Lock();
  const pid_t child = TestSupport::StartChild([&] {
    auto other = Common::SharedMutex::Create(name_.c_str());
    other->Lock();
    const bool wrote = write(done[1], "x", 1) == 1;
    other->Unlock();
    return wrote ? 0 : 1;
  });
  pollfd got{done[0], POLLIN, 0};
  while (!UnitTest::SleepsIn(std::to_string(child), SYS_flock) && poll(&got, 1, 1) == 0) continue;
  EXPECT_EQ(poll(&got, 1, 0), 0) << "the other got the lock while it was held";
  mutex->Unlock();
  EXPECT_EQ(TestSupport::WaitChild(child), 0);
  char c = 0;
  EXPECT_EQ(read(done[0], &c, 1), 1);
  close(done[0]), close(done[1]);
  EXPECT_FALSE(FileLockHeld(name_));
}

TEST(SharedMutexCreate, FailuresNameTheMutexAndErrno) {
  const std::string longName(300, 'n');
  const struct { const char* name; int err; } cases[] = {
      {"zl/no/such/dir", ENOENT}, {nullptr, EINVAL}, {longName.c_str(), ENAMETOOLONG}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name ? c.name : "null");
    const std::string name = c.name ? c.name : "";
    try {
      Common::SharedMutex::Create(c.name);
      ADD_FAILURE() << "created";
    } catch (const Common::Error& e) {
      EXPECT_TRUE(e.GetCode() == 6u && e.GetStringField("token") == name);
      EXPECT_EQ(e.GetCause().GetNumericField("code"), c.err);
      EXPECT_NE(e.GetText().find(Common::FromUtf8(name)), String::npos);  // in place of {0}
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
