// Handles to one chain copied, wrapped and dropped on many threads: the counts must stay
// exact (no leak, no double free under the sanitizers).
#include <gtest/gtest.h>

#include <thread>

#include "core/common/error.h"

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
