#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <atomic>
#include <thread>

#include "../../support/lock_probe.h"
#include "../../support/sleeps_in.h"
#include "core/common/error.h"
#include "core/common/event.h"
#include "core/common/mutex.h"
#include "core/common/shared_mutex.h"

namespace {

// A recursive mutex: the owner relocks, others wait. Threads of one process share one shared mutex object.
TEST(MutexThreads, OwnerRelocksOthersWaitAndSerialise) {
  Common::RecursiveMutex recursive;
  recursive.Lock();
  EXPECT_TRUE(recursive.TryLock());
  bool otherGotIt = true;
  std::thread([&] { otherGotIt = recursive.TryLock(); }).join();
  EXPECT_FALSE(otherGotIt);
  recursive.Unlock(), recursive.Unlock();
  std::thread([&] { if ((otherGotIt = recursive.TryLock())) recursive.Unlock(); }).join();
  EXPECT_TRUE(otherGotIt);
  const std::string name = TestSupport::UniqueName("threads");
  auto mutex = Common::SharedMutex::Create(name.c_str());
  int counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 200; ++i) {
        mutex->Lock(), mutex->Lock(), ++counter;
        mutex->Unlock(), mutex->Unlock();
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 800);
  EXPECT_FALSE(TestSupport::FileLockHeld(name));
  unlink(TestSupport::LockPath(name).c_str());
}

TEST(Event, SignalStateAndWaiters) {
  // Without waiters, per row: Wait(0), Wait(1), Set, Wait(0), Wait(0), Reset, Wait(0); 1: it returned true.
  const struct { bool manual, initially; const char* waits; } cases[] = {
      {false, true, "10-10-0"}, {false, false, "00-10-0"}, {true, true, "11-11-0"}, {true, false, "00-11-0"}};
  for (const auto& c : cases) {
    Common::Event event(c.manual, c.initially);
    std::string waits;
    for (const char* op = "01S00R0"; *op; ++op)
      waits += *op == 'S' ? (event.Set(), '-') : *op == 'R' ? (event.Reset(), '-')
                                                            : event.Wait(*op - '0') ? '1' : '0';
    EXPECT_EQ(c.waits, waits) << c.manual << c.initially;
  }
  // With waiters: auto-reset wakes one per Set, even when Sets come faster than the woken leave,
  // and the signal is spent; manual-reset wakes all and stays signalled.
  for (bool manual : {false, true}) {
    SCOPED_TRACE(manual ? "manual" : "auto");
    Common::Event event(manual, false);
    std::atomic<int> woken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      std::atomic<long> tid{0};
      threads.emplace_back([&] { tid = syscall(SYS_gettid), woken += event.Wait(); });
      // One at a time, so that a sleeping waiter sleeps in the event's wait.
      while (tid == 0 || !TestSupport::SleepsIn("self/task/" + std::to_string(tid), SYS_futex))
        std::this_thread::yield();
    }
    event.Set();
    EXPECT_EQ(manual, event.Wait(0));
    if (!manual) event.Set(), event.Set();
    for (auto& t : threads) t.join();
    EXPECT_EQ(woken, 3);
    EXPECT_EQ(manual, event.Wait(0));
  }
}

// Handles to one chain copied, wrapped and dropped on many threads: exact counts (no leak, no double free).
TEST(ErrorThreads, ConcurrentCopiesOfOneChain) {
  Common::Error shared(0x530040, "shared head", AS_HERE);
  shared.AddPosixError(EIO, AS_HERE);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 20000; ++i) {
        Common::Error copy = shared;
        Common::Error wrapped = Common::Error(0x720000 + t, "wrap", AS_HERE).WithCause(copy);
        if (i % 3 == 0) copy.AddPosixError(EAGAIN, AS_HERE);  // copy-on-write, never in place
        ASSERT_EQ(EIO, wrapped.GetCause().GetCause().GetNumericField("code"));
      }
    });
  for (auto& th : threads) th.join();
  EXPECT_EQ(EIO, shared.GetCause().GetNumericField("code"));
  EXPECT_FALSE(shared.GetCause().GetCause());
}

}  // namespace
