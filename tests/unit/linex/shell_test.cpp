#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>

#include "../../support/descriptors.h"
#include "core/common/assert.h"
#include "core/linex/linux_misc.h"
#include "linex_test_support.h"

namespace {

using LinexTest::ReadStream;

bool NoChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

TEST(Shell, RunCommandExitStatusAndLoaderVariables) {
  setenv("LD_LIBRARY_PATH", "/zl-libs", 1);
  const char* const mine[] = {"LD_LIBRARY_PATH=/mine", "ZL_EXTRA=1", nullptr};
  const struct { const char* command; bool strip; const char* const* env; int status; } cases[] = {
      {"true", false, nullptr, 0},       {"exit 3", false, nullptr, 3},   {"exit 255", false, nullptr, 255},
      {"kill -9 $$", false, nullptr, -1}, {"", false, nullptr, -1},       {"zl-no-such-command-xyz", false, nullptr, 127},
      {"echo hidden; echo hidden >&2", false, nullptr, 0}, {"test \"$LD_LIBRARY_PATH\" = /zl-libs", false, nullptr, 0},
      {"test -z \"${LD_LIBRARY_PATH+set}\"", true, nullptr, 0}, {"test \"$LD_LIBRARY_PATH$ZL_EXTRA\" = /mine1", true, mine, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    EXPECT_EQ(RunCommand(c.command, c.strip, c.env), c.status);
  }
  unsetenv("LD_LIBRARY_PATH");
  EXPECT_TRUE(NoChildren());
}

TEST(Shell, POpenAndStartProcessPipesLeakNothing) {
  const int before = TestSupport::CountOwnFds();
  setenv("LD_LIBRARY_PATH", "/zl-libs", 1);
  FILE* stream = POpen("echo x; echo \"[$LD_LIBRARY_PATH]\"", "rt");
  unsetenv("LD_LIBRARY_PATH");
  EXPECT_EQ(ReadStream(stream), "x\n[]\n");
  EXPECT_EQ(PClose(stream), 0);
  EXPECT_EQ(PClose(POpen("exit 4", "rt")), 4);
  stream = POpen("exec yes", "r");  // the reader goes away early: SIGPIPE ends the writer
  EXPECT_EQ(std::fgetc(stream), 'y');
  EXPECT_EQ(PClose(stream), -1);
  int in = 0, out = 1;
  const int pid = StartProcess("read line; echo \"got $line\"", false, &in, &out, nullptr);
  ASSERT_NE(pid, -1);
  EXPECT_EQ(fcntl(in, F_GETFD) & fcntl(out, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ASSERT_EQ(write(in, "hello\n", 6), 6);
  close(in);
  EXPECT_EQ(LinexTest::ReadAll(out), "got hello\n");
  EXPECT_EQ(ChildProcess::WaitProcess(pid), 0);
  EXPECT_EQ(StartProcess(nullptr, false, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(TestSupport::CountOwnFds(), before);
  EXPECT_TRUE(NoChildren());
}

// A redirection described by hand as if it had served an earlier start.
bool StartWithStale(ForkStatus status, int pipeEnd) {
  ChildProcess child;
  child.CmdLine = "true";
  int fd = -1;
  child.Redirections[1] = FdRedirection{1, &fd, false, {-1, pipeEnd}, status};
  return child.ForkExec() != -1 && child.Wait() == 0;
}

std::string gReports;

// Exits 0 when `misuse` is refused and reports a failed check at `place`.
[[noreturn]] void CheckMisuse(const std::function<bool()>& misuse, const std::string& place) {
  setenv("ZEMLORA_SAFE_ASSERT", "event", 1);
  Common::SetAssertEventCallback([](int, int, int, const char* text) { gReports += std::string(text) + "\n"; });
  const bool refused = misuse();
  std::exit(refused && gReports.find(", file core/linex/" + place + "\n") != std::string::npos ? 0 : 1);
}

// Support tooling matches on the reported file and line. The handler reads its mode
// once, so each case runs in a fresh copy of this program.
TEST(Launcher, MisuseIsRefusedAndReportsItsPlace) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const struct { const char* place; std::function<bool()> misuse; } cases[] = {
      {"create_process, line 273", [] { ChildProcess c; c.AddRedirection(1, nullptr, true); return c.Redirections.empty(); }},
      {"create_process, line 274", [] { ChildProcess c; int fd; c.AddRedirection(-1, &fd, true); return c.Redirections.empty(); }},
      {"create_process, line 587", [] {
         ChildProcess c;
         int out = 9;
         return c.AddRedirection(1, &out, true), c.ForkExec() == -1 && out == 9 && c.Wait() == -1 && ChildProcess::WaitProcess(0) == -1;
       }},
      {"create_process, line 587", [] { ChildProcess c; c.CmdLine = "true"; c.Args = {"true"}; return c.ForkExec() == -1; }},
      {"create_process, line 325", [] { return StartWithStale(FORK_STATUS_PARENT, -1); }},
      {"create_process, line 326", [] { return StartWithStale(FORK_STATUS_BEFORE, 99); }},
      {"create_process, line 581", [] {
         ChildProcess c;
         c.CmdLine = "exit 3";
         const int pid = c.ForkExec();
         return pid != -1 && c.ForkExec() == pid && c.Wait() == 3 && c.Wait() == -1;
       }},
      {"create_process, line 509", [] { { ChildProcess c; c.CmdLine = "true"; c.ForkExec(); } return NoChildren(); }},  // reaped all the same
      {"create_process, line 432", [] { int in = 0, out = 0; return StartProcess("true", false, &in, &out, nullptr) == -1; }},
      {"linux_misc, line 504", [] {
         FILE* foreign = std::fopen("/dev/null", "r");  // refused and left open
         return PClose(foreign) == -1 && std::fgetc(foreign) == EOF && !std::ferror(foreign) && PClose(nullptr) == -1;
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.place);
    EXPECT_EXIT(CheckMisuse(c.misuse, c.place), testing::ExitedWithCode(0), "");
  }
}

TEST(SafeClose, PolicyDecidesWhatABadCloseDoes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the policy is read once at load
  // Policy (nullptr: unset), SafeFclose(nullptr) or else SafeClose(-1), the signal (0: only reported).
  const struct { const char* policy; bool file; int signal; } cases[] = {
      {nullptr, false, SIGABRT}, {"please-abort", false, SIGABRT}, {"abort,break", true, SIGTRAP}, {"0", false, 0}, {"0", true, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.policy ? c.policy : "unset");
    c.policy ? setenv("ZEMLORA_SAFE_CLOSE", c.policy, 1) : unsetenv("ZEMLORA_SAFE_CLOSE");
    auto badClose = [&] {
      errno = 0;
      std::exit(c.file ? ChildProcess::SafeFclose(nullptr) != EOF : ChildProcess::SafeClose(-1) != -1 || errno != EBADF);
    };
    if (c.signal != 0) EXPECT_EXIT(badClose(), testing::KilledBySignal(c.signal), "");
    else EXPECT_EXIT(badClose(), testing::ExitedWithCode(0), "");
  }
  unsetenv("ZEMLORA_SAFE_CLOSE");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_EQ(ChildProcess::SafeClose(fds[0]), 0);
  EXPECT_EQ(ChildProcess::SafeFclose(fdopen(fds[1], "w")), 0);
}

}  // namespace
