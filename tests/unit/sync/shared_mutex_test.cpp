#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "core/common/error.h"
#include "core/common/shared_mutex.h"
#include "lock_probe.h"

namespace {

using SyncTest::FileLockHeld;
using SyncTest::LockPath;
using SyncTest::UniqueName;

class SharedMutexTest : public ::testing::Test {
 protected:
  void TearDown() override { unlink(LockPath(name_).c_str()); }
  const std::string name_ = UniqueName("mutex");
};

TEST_F(SharedMutexTest, LockFileIsPrivateAndOutlivesTheObject) {
  const int before = SyncTest::CountOwnFds();
  {
    auto mutex = Common::SharedMutex::Create(name_.c_str());
    EXPECT_EQ(SyncTest::CountOwnFds(), before + 1);
  }
  EXPECT_EQ(SyncTest::CountOwnFds(), before);
  struct stat st {};
  ASSERT_EQ(stat(LockPath(name_).c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
}

// A lock file left by an earlier process is taken over; recursion holds the file lock
// until the last Unlock, and one Unlock too many is only reported.
TEST_F(SharedMutexTest, ExistingFileAndRecursion) {
  close(open(LockPath(name_).c_str(), O_CREAT | O_WRONLY, 0644));
  auto mutex = Common::SharedMutex::Create(name_.c_str());
  EXPECT_FALSE(FileLockHeld(name_));
  mutex->Lock();
  mutex->Lock();
  mutex->Unlock();
  EXPECT_TRUE(FileLockHeld(name_));
  mutex->Unlock();
  EXPECT_FALSE(FileLockHeld(name_));
  mutex->Unlock();
  mutex->Lock();
  EXPECT_TRUE(FileLockHeld(name_));
  mutex->Unlock();
}

TEST_F(SharedMutexTest, TwoObjectsOfOneNameAreTwoLocks) {
  auto first = Common::SharedMutex::Create(name_.c_str());
  auto second = Common::SharedMutex::Create(name_.c_str());
  // Each object locks its own open file, so each Lock takes the file lock itself.
  first->Lock();
  EXPECT_TRUE(FileLockHeld(name_));
  std::atomic<bool> secondHeld{false};
  std::thread other([&] {
    second->Lock();
    secondHeld = true;
    second->Unlock();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(secondHeld.load()) << "the second object got the lock while the first held it";
  first->Unlock();
  other.join();
  EXPECT_TRUE(secondHeld.load());
  EXPECT_FALSE(FileLockHeld(name_));
}

TEST_F(SharedMutexTest, SecondProcessWaitsForTheFirst) {
  auto mutex = Common::SharedMutex::Create(name_.c_str());
  mutex->Lock();
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    auto other = Common::SharedMutex::Create(name_.c_str());
    other->Lock();
    other->Unlock();
    _exit(0);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, WNOHANG), 0) << "the child got the lock while it was held";
  mutex->Unlock();
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(SharedMutexCreate, Failures) {
  struct Case {
    const char* name;
    int err;
  } cases[] = {{"zl/no/such/dir", ENOENT}, {nullptr, EINVAL}, {"zl_long_name_padding_x", 0}};
  std::string longName(300, 'n');
  cases[2].name = longName.c_str();
  cases[2].err = ENAMETOOLONG;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name ? c.name : "null");
    try {
      auto mutex = Common::SharedMutex::Create(c.name);
      ADD_FAILURE() << "created";
    } catch (const Common::Error& e) {
      EXPECT_EQ(e.GetCode(), 6u);
      EXPECT_STREQ(e.GetFieldNames(), "token,$module");
      EXPECT_STREQ(e.GetStringField("token"), c.name ? c.name : "");
      EXPECT_STREQ(e.GetLocation().function, "Create");
      EXPECT_EQ(e.GetCause().GetCode(), Common::Error::kPosixCode);
      EXPECT_EQ(e.GetCause().GetNumericField("code"), c.err);
      EXPECT_FALSE(e.GetText().empty());
    }
  }
}

}  // namespace
