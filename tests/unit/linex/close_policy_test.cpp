#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "core/linex/create_process.h"

namespace {

// The policy is read once at load, so each case runs in a freshly started copy of
// this program with the variable set.
TEST(SafeClose, PolicyDecidesWhatABadCloseDoes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct {
    const char* policy;  // nullptr: unset
    bool file;           // SafeFclose(nullptr), else SafeClose(-1)
    int signal;          // 0: only reported
  } cases[] = {{nullptr, false, SIGABRT}, {"please-abort", false, SIGABRT}, {"abort,break", true, SIGTRAP},
               {"0", false, 0}, {"0", true, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.policy ? c.policy : "unset");
    if (c.policy) setenv("ZEMLORA_SAFE_CLOSE", c.policy, 1);
    else
      unsetenv("ZEMLORA_SAFE_CLOSE");
    auto badClose = [&] {
      errno = 0;
      const bool reported = c.file ? ChildProcess::SafeFclose(nullptr) == EOF
                                   : ChildProcess::SafeClose(-1) == -1 && errno == EBADF;
      std::exit(reported ? 0 : 1);
    };
    if (c.signal != 0) {
      EXPECT_EXIT(badClose(), testing::KilledBySignal(c.signal), "");
    } else {
      EXPECT_EXIT(badClose(), testing::ExitedWithCode(0), "");
    }
  }
  unsetenv("ZEMLORA_SAFE_CLOSE");
}

TEST(SafeClose, ClosesGoodDescriptors) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(ChildProcess::SafeClose(fds[0]), 0);
  FILE* stream = fdopen(fds[1], "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ChildProcess::SafeFclose(stream), 0);
}

}  // namespace
