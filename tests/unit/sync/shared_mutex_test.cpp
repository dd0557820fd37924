#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <thread>

#include "../../support/child.h"
#include "../../support/descriptors.h"
#include "../../support/lock_probe.h"
#include "../../support/sleeps_in.h"
#include "core/common/error.h"
#include "core/common/shared_mutex.h"
#include "core/common/unicode.h"

namespace {

using TestSupport::FileLockHeld;

// The lock file is private and outlives the object; recursion holds it until the last Unlock;
// one Unlock too many is only reported; another object (in another process) waits for the holder.
// A file lock that cannot be released (its descriptor swapped for one flock refuses) leaves
// nothing held: Unlock reports it, another thread gets the mutex, the next Lock opens the file anew.
TEST(SharedMutex, LockFileRecursionHoldersAndFailedUnlock) {
  const std::string name = TestSupport::UniqueName("mutex"), path = TestSupport::LockPath(name);
  const int before = TestSupport::CountOwnFds(), lockFd = dup(0);  // the lowest free number: the mutex's
  close(lockFd);
  Common::SharedMutex::Create(name.c_str()).reset();
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0600u);
  auto mutex = Common::SharedMutex::Create(name.c_str());
  EXPECT_EQ(TestSupport::CountOwnFds(), before + 1);
  EXPECT_FALSE(FileLockHeld(name));
  mutex->Lock(), mutex->Lock(), mutex->Unlock();
  EXPECT_TRUE(FileLockHeld(name));
  mutex->Unlock();
  EXPECT_FALSE(FileLockHeld(name));
  mutex->Unlock(), mutex->Lock();
  EXPECT_TRUE(FileLockHeld(name));
  int done[2];
  ASSERT_EQ(pipe(done), 0);
  const pid_t child = TestSupport::StartChild([&] {
    auto other = Common::SharedMutex::Create(name.c_str());
    other->Lock();
    const bool wrote = write(done[1], "x", 1) == 1;
    other->Unlock();
    return wrote ? 0 : 1;
  });
  pollfd got{done[0], POLLIN, 0};
  while (!TestSupport::SleepsIn(std::to_string(child), SYS_flock) && poll(&got, 1, 1) == 0) continue;
  EXPECT_EQ(poll(&got, 1, 0), 0) << "the other got the lock while it was held";
  mutex->Unlock();
  EXPECT_EQ(TestSupport::WaitChild(child), 0);
  EXPECT_EQ(poll(&got, 1, 0), 1);
  close(done[0]), close(done[1]);
  EXPECT_FALSE(FileLockHeld(name));
  mutex->Lock();
  char target[256] = {};
  ASSERT_GT(readlink(("/proc/self/fd/" + std::to_string(lockFd)).c_str(), target, sizeof target - 1), 0);
  ASSERT_EQ(path, target);
  const int pathOnly = open(path.c_str(), O_PATH | O_CLOEXEC);
  ASSERT_EQ(dup3(pathOnly, lockFd, O_CLOEXEC), lockFd);
  close(pathOnly);
  try {
    mutex->Unlock();
    ADD_FAILURE() << "Unlock reported nothing";
  } catch (const Common::Error& e) {
    EXPECT_EQ(e.GetCode(), 8u);
    EXPECT_EQ(e.GetCause().GetNumericField("code"), EBADF);
  }
  std::thread([&] { mutex->Lock(), mutex->Unlock(); }).join();
  mutex->Lock();
  EXPECT_TRUE(FileLockHeld(name));
  mutex->Unlock();
  EXPECT_FALSE(FileLockHeld(name));
  unlink(path.c_str());
}

TEST(SharedMutex, CreateFailuresNameTheMutexAndErrno) {
  // The last case: a lock directory that takes no file (read-only; root only, else not tried).
  const struct { const char* name; int err; bool readOnly; } cases[] = {
      {"zl/no/such/dir", ENOENT, false}, {nullptr, EINVAL, false}, {"readonly", EROFS, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name ? c.name : "null");
    if (c.readOnly && geteuid() != 0) continue;
    EXPECT_EQ(0, TestSupport::RunInChild([&] {
      if (c.readOnly && (unshare(CLONE_NEWNS) || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
                         mount("tmpfs", "/tmp", "tmpfs", MS_RDONLY, nullptr)))
        return 2;
      const std::string name = c.name ? c.name : "";
      try {
        Common::SharedMutex::Create(c.name);
      } catch (const Common::Error& e) {
        const String text = e.GetText();
        const bool named = e.GetStringField("token") == name && text.find(Common::FromUtf8(name)) != String::npos &&
                           text.find(Common::Str(u"{0}")) == String::npos;  // the name in place of {0}
        return e.GetCode() == 6u && named && e.GetCause().GetNumericField("code") == c.err ? 0 : 1;
      }
      return 1;
    }));
  }
}

}  // namespace
