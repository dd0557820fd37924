// Misuse of the launcher and the shell services goes to the assertion handler with a
// fixed file and line, which support tooling matches on; a bad close follows the
// policy of $ZEMLORA_SAFE_CLOSE. Both are read once per process, so every case runs
// in a freshly started copy of this program.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "core/common/assert.h"
#include "core/linex/create_process.h"
#include "core/linex/linux_misc.h"

namespace {

std::string gReports;

// Exits 0 when `misuse` reports a failed check at `place` ("<file>, line <n>").
[[noreturn]] void CheckPlace(const std::function<void()>& misuse, const std::string& place) {
  setenv("ZEMLORA_SAFE_ASSERT", "event", 1);
  Common::SetAssertEventCallback([](int, int, int, const char* text) { gReports += std::string(text) + "\n"; });
  misuse();
  std::exit(gReports.find(", file core/linex/" + place + "\n") == std::string::npos);
}

TEST(LauncherMisuse, ReportsItsPlace) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  int fd = -1;
  const struct {
    const char* place;
    std::function<void()> misuse;
  } cases[] = {
      {"create_process, line 273", [&] { ChildProcess().AddRedirection(1, nullptr, true); }},
      {"create_process, line 274", [&] { ChildProcess().AddRedirection(-1, &fd, true); }},
      {"create_process, line 587", [&] { ChildProcess().ForkExec(); }},
      {"create_process, line 325", [&] {
         ChildProcess child;
         child.CmdLine = "true";
         child.Redirections[1].Fd = 1;
         child.Redirections[1].NewFd = &fd;
         child.Redirections[1].Status = FORK_STATUS_PARENT;
         child.ForkExec();
       }},
      {"create_process, line 326", [&] {
         ChildProcess child;
         child.CmdLine = "true";
         child.Redirections[1].Fd = 1;
         child.Redirections[1].NewFd = &fd;
         child.Redirections[1].Pipe[1] = 99;
         child.ForkExec();
       }},
      {"create_process, line 581", [&] {
         ChildProcess child;
         child.CmdLine = "true";
         child.ForkExec();
         child.ForkExec();
         child.Wait();
       }},
      {"create_process, line 509", [&] {
         ChildProcess child;
         child.CmdLine = "true";
         child.ForkExec();
       }},
      {"create_process, line 432", [&] {
         int in = 0, out = 0;
         StartProcess("true", false, &in, &out, nullptr);
       }},
      {"linux_misc, line 504", [&] {
         FILE* foreign = std::fopen("/dev/null", "r");
         PClose(foreign);
         std::fclose(foreign);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.place);
    EXPECT_EXIT(CheckPlace(c.misuse, c.place), testing::ExitedWithCode(0), "");
  }
}

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
    else unsetenv("ZEMLORA_SAFE_CLOSE");
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
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(ChildProcess::SafeClose(fds[0]), 0);
  FILE* stream = fdopen(fds[1], "w");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ChildProcess::SafeFclose(stream), 0);
}

}  // namespace
