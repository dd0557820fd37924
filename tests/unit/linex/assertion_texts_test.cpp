// Misuse of the launcher and the shell services is reported to the assertion handler
// with fixed texts, files and lines, which support tooling matches on.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/common/assert.h"
#include "core/linex/create_process.h"
#include "core/linex/linux_misc.h"

namespace {

std::vector<std::string> gTexts;

void Record(int, int, int, const char* text) { gTexts.emplace_back(text); }

std::string At(const std::string& expression, const char* file, int line) {
  return "Assertion failed: " + expression + ", file core/linex/" + file + ", line " + std::to_string(line);
}

// Runs in a fresh copy of the test program: the handler reads its mode once.
int TriggerMisuses() {
  setenv("ZEMLORA_SAFE_ASSERT", "event", 1);
  Common::SetAssertEventCallback(Record);
  int fd = -1;
  {
    ChildProcess child;
    child.AddRedirection(1, nullptr, true);
    child.AddRedirection(-1, &fd, true);
    child.ForkExec();  // neither command line nor arguments
    child.CmdLine = "true";
    child.Args = {"true"};
    child.ForkExec();
    child.Args.clear();
    FdRedirection stale;
    stale.Fd = 1;
    stale.NewFd = &fd;
    stale.Output = true;
    stale.Pipe[1] = 99;
    stale.Status = FORK_STATUS_PARENT;
    child.Redirections[1] = stale;
    child.ForkExec();
    child.ForkExec();
    child.Redirections.clear();
  }  // destroyed without Wait
  int in = 0, out = 0;
  StartProcess("true", false, &in, &out, nullptr);
  FILE* foreign = std::fopen("/dev/null", "r");
  PClose(foreign);
  std::fclose(foreign);

  const std::vector<std::string> expected = {
      At("NewFd", "create_process", 273),
      At("Fd >= 0", "create_process", 274),
      At("!\"both cmdline and args is set or empty\"", "create_process", 587),
      At("!\"both cmdline and args is set or empty\"", "create_process", 587),
      At("Status == FORK_STATUS_BEFORE", "create_process", 325),
      At("Pipe[0] == -1 && Pipe[1] == -1", "create_process", 326),
      At("!\"process already running\"", "create_process", 581),
      At("!\"Wait() method is not called\"", "create_process", 509),
      At("!\"fd of input and output should be different\"", "create_process", 432),
      At("!\"ERROR file descriptor was not created by POpen\"", "linux_misc", 504),
  };
  if (gTexts == expected) return 0;
  for (const std::string& text : gTexts) std::fprintf(stderr, "%s\n", text.c_str());
  return 1;
}

TEST(LauncherAssertions, TextsFilesAndLines) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(TriggerMisuses()), testing::ExitedWithCode(0), "");
}

}  // namespace
