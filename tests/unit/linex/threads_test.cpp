#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "core/linex/linux_misc.h"

namespace {

// Children started at once from many threads: each sees only its own pipe (the probe's lines:
// 0, 1, 2 and the "/dev/null" that served 0 and 2) and each stream is closed with its own child.
TEST(LauncherThreads, ConcurrentSpawnsKeepTheirDescriptors) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        if ((t + i) % 2 == 1) {
          failures += RunCommand("exit 5") != 5;
          continue;
        }
        FILE* stream = POpen(AS_CHILD_PROBE, "r");
        int lines = 0;
        for (int c; stream != nullptr && (c = std::fgetc(stream)) != EOF;) lines += c == '\n';
        failures += lines != 4 || PClose(stream) != 0;
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(failures.load(), 0);
}

}  // namespace
