#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

#include "core/linex/create_process.h"

namespace {

// The policy is read once at load, so each case runs in a freshly started copy of
// this program with the variable set.
class ClosePolicy : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
  void TearDown() override { unsetenv("ZEMLORA_SAFE_CLOSE"); }
};

TEST_F(ClosePolicy, UnsetAborts) {
  unsetenv("ZEMLORA_SAFE_CLOSE");
  EXPECT_EXIT(ChildProcess::SafeClose(-1), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ClosePolicy, AbortWord) {
  setenv("ZEMLORA_SAFE_CLOSE", "please-abort", 1);
  EXPECT_EXIT(ChildProcess::SafeClose(12345), testing::KilledBySignal(SIGABRT), "");
}

TEST_F(ClosePolicy, BreakTraps) {
  setenv("ZEMLORA_SAFE_CLOSE", "abort,break", 1);
  EXPECT_EXIT(ChildProcess::SafeFclose(nullptr), testing::KilledBySignal(SIGTRAP), "");
}

TEST_F(ClosePolicy, OtherValuesOnlyReport) {
  setenv("ZEMLORA_SAFE_CLOSE", "0", 1);
  EXPECT_EXIT(
      {
        errno = 0;
        const bool reported = ChildProcess::SafeClose(-1) == -1 && errno == EBADF &&
                              ChildProcess::SafeFclose(nullptr) == EOF;
        std::exit(reported ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
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
