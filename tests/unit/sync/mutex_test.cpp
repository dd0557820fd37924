#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "core/common/mutex.h"
#include "core/common/shared_mutex.h"
#include "lock_probe.h"

namespace {

TEST(RecursiveMutex, OwnerRelocksOthersWait) {
  Common::RecursiveMutex mutex;
  mutex.Lock();
  EXPECT_TRUE(mutex.TryLock());
  bool otherGotIt = true;
  std::thread([&] { otherGotIt = mutex.TryLock(); }).join();
  EXPECT_FALSE(otherGotIt);
  mutex.Unlock();
  mutex.Unlock();
  std::thread([&] {
    std::lock_guard<Common::RecursiveMutex> guard(mutex);
    otherGotIt = true;
  }).join();
  EXPECT_TRUE(otherGotIt);
}

// Threads of one process share one object: the file lock is taken by the first Lock
// of the holding thread and released by its last Unlock.
TEST(SharedMutexThreads, ThreadsSerialise) {
  const std::string name = SyncTest::UniqueName("threads");
  auto mutex = Common::SharedMutex::Create(name.c_str());
  int counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        mutex->Lock();
        mutex->Lock();
        ++counter;
        mutex->Unlock();
        mutex->Unlock();
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 800);
  EXPECT_FALSE(SyncTest::FileLockHeld(name));
  unlink(SyncTest::LockPath(name).c_str());
}

}  // namespace
