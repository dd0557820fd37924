// The assertion handler reads its settings once per process, so every case that
// needs other settings runs in a forked child. The parent never asserts.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <algorithm>
#include <functional>
#include <sstream>
#include <string>

#include "core/common/assert.h"
#include "core/common/assert_internal.h"

namespace {

using namespace Common::Detail;

TEST(AssertMode, ParsedFromHexAndWords) {
  struct Case {
    const char* value;
    uint32_t mode;
  } cases[] = {
      {nullptr, 0},
      {"", 0},
      {"0x24", kAssertLog | kAssertAbort},
      {"0X24", kAssertLog | kAssertAbort},
      {"24", kAssertLog | kAssertAbort},
      {"0x0", kAssertOff},  // zero is no mode, and "0x0" is no word either
      {"log stack", kAssertLog | kAssertStack},
      {"  log\tdebug  ", kAssertLog | kAssertDebug},
      {"break debug log event msgbox abort stack", 127},
      {"log loud", kAssertOff},
      {"LOG", kAssertOff},
      {"0x", kAssertOff},
      {"0x24z", kAssertOff},
      {"-1", kAssertOff},
      {"0x1FFFFFFFF", kAssertOff},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value ? c.value : "(unset)");
    EXPECT_EQ(c.mode, ParseAssertMode(c.value));
  }
  // Only the first 127 characters are read: a bad word beyond them is never seen.
  const std::string longValue = std::string(126, ' ') + "log" + " nonsense";
  EXPECT_EQ(kAssertOff, ParseAssertMode(("x" + longValue).c_str()));
  EXPECT_EQ(0u, ParseAssertMode(std::string(200, ' ').c_str()));
  EXPECT_EQ(kAssertLog, ParseAssertMode((std::string(124, ' ') + "log").c_str()));
  EXPECT_EQ(kAssertOff, ParseAssertMode((std::string(125, ' ') + "log").c_str()));  // cut to "lo"
}

// Runs `body` in a child with the given assertion settings; returns its wait status.
int InChild(const char* mode, const std::string& logfile, const std::function<int()>& body) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (mode) setenv("ZEMLORA_SAFE_ASSERT", mode, 1);
    if (!logfile.empty()) setenv("ZEMLORA_SAFE_ASSERT_LOGFILE", logfile.c_str(), 1);
    _exit(body());
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

class AssertHandler : public ::testing::Test {
 protected:
  void SetUp() override {
    char path[] = "/tmp/as_assertXXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    log_ = path;
  }
  void TearDown() override { unlink(log_.c_str()); }
  std::string log_;
};

const int kFailingLine = __LINE__ + 1;
__attribute__((noinline)) void FailingCheck() { AS_ASSERT(1 + 1 == 3); asm volatile("" ::: "memory"); }

TEST_F(AssertHandler, LogModeAppendsOneLinePerAssertion) {
  const int status = InChild("log", log_, [] {
    FailingCheck();
    return Common::AssertionHandler("second") == 1 ? 0 : 1;
  });
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ("Assertion failed: 1 + 1 == 3, file tests/unit/common/assert_test, line " +
                std::to_string(kFailingLine) + "\nsecond\n",
            ReadAll(log_));
}

TEST_F(AssertHandler, StackLinesFollowWithBit64) {
  const int status = InChild("log stack", log_, [] {
    FailingCheck();
    return 0;
  });
  ASSERT_TRUE(WIFEXITED(status));
  const std::string text = ReadAll(log_);
  EXPECT_NE(std::string::npos, text.find("Assertion failed: 1 + 1 == 3"));
  // The executable's own, non-exported function is named through /proc/self/exe.
  EXPECT_NE(std::string::npos, text.find("FailingCheck")) << text;
  EXPECT_NE(std::string::npos, text.find(" + 0x")) << text;
  EXPECT_GT(std::count(text.begin(), text.end(), '\n'), 3);
}

TEST_F(AssertHandler, DebugBufferAndEventCallback) {
  const int status = InChild("debug event stack", "", [] {
    static std::string events;
    static int calls = 0;
    Common::SetAssertEventCallback([](int a, int b, int c, const char* text) {
      if (a == 5 && b == 0 && c == 27) events += std::string(text) + "|";
      ++calls;
    });
    FailingCheck();
    const std::string buffer = Common::GetAssertDebugBuffer();
    const bool ok = calls == 2 && events.rfind("Assertion failed: 1 + 1 == 3", 0) == 0 &&
                    events.find("FailingCheck") != std::string::npos && !buffer.empty();
    return ok ? 0 : 1;
  });
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST_F(AssertHandler, OffWithoutSettingsOrAfterAnUnknownWord) {
  EXPECT_EQ(1, InChild(nullptr, "", [] { return Common::AssertionHandler("x"); }) >> 8);
  EXPECT_EQ(1, InChild("log", "", [] { return Common::AssertionHandler("x"); }) >> 8);  // on, no log
  EXPECT_EQ(0, InChild("log abort bogus", log_, [] { return Common::AssertionHandler("x"); }) >> 8);
  EXPECT_EQ("", ReadAll(log_));
}

TEST_F(AssertHandler, AbortMode) {
  const int status = InChild("0x24", log_, [] {
    FailingCheck();
    return 0;
  });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
  EXPECT_NE(std::string::npos, ReadAll(log_).find("1 + 1 == 3"));
}

TEST_F(AssertHandler, LongExpressionsAreCutNotOverrun) {
  const int status = InChild("log", log_, [] {
    const std::string huge(5000, 'e');
    Common::AssertionFailed(huge.c_str(), "file", 1);
    return 0;
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(540u, ReadAll(log_).size());  // 539 characters and the line feed
}

}  // namespace
