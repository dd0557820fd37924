#include <atomic>
#include <thread>

#include "core/linex/linux_misc.h"
#include "linex_test_support.h"

namespace {

// Each child must see only its own pipe, never one that another thread holds open.
TEST(LauncherThreads, ConcurrentSpawnsKeepTheirDescriptors) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        if ((t + i) % 3 == 0) {
          ChildProcess child;
          failures += LinexTest::Descriptors(LinexTest::Output(child)).size() != 4;
        } else if ((t + i) % 3 == 1) {
          failures += RunCommand("exit 5") != 5;
        } else {
          FILE* stream = POpen("echo " + std::to_string(t), "r");
          failures += LinexTest::ReadStream(stream) != std::to_string(t) + "\n" || PClose(stream) != 0;
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
