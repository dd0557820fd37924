#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/common/event.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

TEST(Event, SignalStateWithoutWaiters) {
  struct Case {
    const char* name;
    bool manual;
    bool initially;
    bool firstWait;
    bool secondWait;
  } cases[] = {
      {"auto, signalled", false, true, true, false},
      {"auto, not signalled", false, false, false, false},
      {"manual, signalled", true, true, true, true},
      {"manual, not signalled", true, false, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Common::Event event(c.manual, c.initially);
    EXPECT_EQ(event.Wait(0), c.firstWait);
    EXPECT_EQ(event.Wait(0), c.secondWait);
  }
  Common::Event manual(true, false);
  manual.Set();
  manual.Set();
  EXPECT_TRUE(manual.Wait());
  manual.Reset();
  EXPECT_FALSE(manual.Wait(0));
}

TEST(Event, TimedWaitEndsBySetOrTimeOut) {
  Common::Event event;
  const auto start = Clock::now();
  EXPECT_FALSE(event.Wait(60));
  EXPECT_GE(Clock::now() - start, milliseconds(55));
  std::thread setter([&] {
    std::this_thread::sleep_for(milliseconds(30));
    event.Set();
  });
  EXPECT_TRUE(event.Wait(10000));
  setter.join();
}

// Starts `count` threads waiting without limit; returns once all of them wait.
class Waiters {
 public:
  Waiters(Common::Event& event, int count) {
    for (int i = 0; i < count; ++i)
      threads_.emplace_back([this, &event] {
        ready_++;
        if (event.Wait()) woken_++;
      });
    while (ready_.load() < count) std::this_thread::yield();
    std::this_thread::sleep_for(milliseconds(50));  // let them reach the wait
  }
  ~Waiters() { Join(); }
  int Woken() const { return woken_.load(); }
  void Join() {
    for (auto& t : threads_)
      if (t.joinable()) t.join();
  }

 private:
  std::atomic<int> ready_{0};
  std::atomic<int> woken_{0};
  std::vector<std::thread> threads_;
};

TEST(Event, AutoResetWakesOneWaiterPerSet) {
  Common::Event event;
  Waiters waiters(event, 3);
  event.Set();
  std::this_thread::sleep_for(milliseconds(50));
  EXPECT_EQ(waiters.Woken(), 1);
  EXPECT_FALSE(event.Wait(0)) << "the signal was consumed";
  event.Set();
  std::this_thread::sleep_for(milliseconds(20));
  event.Set();
  waiters.Join();
  EXPECT_EQ(waiters.Woken(), 3);
}

TEST(Event, ManualResetWakesEveryWaiter) {
  Common::Event event(true, false);
  Waiters waiters(event, 3);
  event.Set();
  waiters.Join();
  EXPECT_EQ(waiters.Woken(), 3);
  EXPECT_TRUE(event.Wait(0));
}

TEST(Event, TimedOutWaiterIsSkippedBySet) {
  Common::Event event;
  std::thread late([&] { EXPECT_FALSE(event.Wait(20)); });
  late.join();
  event.Set();
  EXPECT_TRUE(event.Wait(0)) << "the signal went to a waiter that had given up";
}

}  // namespace
