#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "core/linex/create_process.h"
#include "core/linex/linux_misc.h"
#include "linex_test_support.h"

namespace {

// Many threads spawn at once; each child must see only its own pipe, never one that
// another thread holds open at that moment.
TEST(LauncherThreads, ConcurrentSpawnsKeepTheirDescriptors) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 25;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        switch ((t + i) % 3) {
          case 0: {
            ChildProcess child;
            const auto result = LinexTest::Probe(child, "fds");
            const auto fds = LinexTest::Descriptors(result.out);
            if (result.status != 0 || fds.size() != 4) failures++;
            break;
          }
          case 1:
            if (RunCommand("exit 5") != 5) failures++;
            break;
          default: {
            FILE* stream = POpen("echo " + std::to_string(t), "r");
            char line[32] = "";
            if (stream == nullptr || fgets(line, sizeof line, stream) == nullptr ||
                std::string(line) != std::to_string(t) + "\n" || PClose(stream) != 0)
              failures++;
          }
        }
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
