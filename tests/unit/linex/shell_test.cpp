#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "../../support/descriptors.h"
#include "core/linex/create_process.h"
#include "core/linex/linux_misc.h"
#include "linex_test_support.h"

namespace {

void ExpectNoChildren() {
  errno = 0;
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

std::string ReadStream(FILE* stream) {
  std::string text;
  for (int c; (c = std::fgetc(stream)) != EOF;) text += static_cast<char>(c);
  return text;
}

TEST(Shell, RunCommandExitStatusAndLoaderVariables) {
  setenv("LD_LIBRARY_PATH", "/zl-libs", 1);
  const char* const mine[] = {"LD_LIBRARY_PATH=/mine", "ZL_EXTRA=1", nullptr};
  const struct {
    const char* command;
    bool strip;
    const char* const* env;
    int status;
  } cases[] = {
      {"true", false, nullptr, 0},
      {"exit 3", false, nullptr, 3},
      {"exit 255", false, nullptr, 255},
      {"kill -9 $$", false, nullptr, -1},
      {"zl-no-such-command-xyz", false, nullptr, 127},
      {"echo hidden; echo hidden >&2", false, nullptr, 0},
      {"", false, nullptr, -1},
      {"test \"$LD_LIBRARY_PATH\" = /zl-libs", false, nullptr, 0},
      {"test -z \"${LD_LIBRARY_PATH+set}\"", true, nullptr, 0},
      {"test \"$LD_LIBRARY_PATH$ZL_EXTRA\" = /mine1", true, mine, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command);
    EXPECT_EQ(RunCommand(c.command, c.strip, c.env), c.status);
  }
  unsetenv("LD_LIBRARY_PATH");
  ExpectNoChildren();
}

TEST(Shell, POpenReadsOutputAndClosesOnlyItsOwnStreams) {
  setenv("LD_LIBRARY_PATH", "/zl-libs", 1);
  FILE* stream = POpen("echo x; echo \"[$LD_LIBRARY_PATH]\"", "rt");
  unsetenv("LD_LIBRARY_PATH");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(ReadStream(stream), "x\n[]\n");
  EXPECT_EQ(PClose(stream), 0);
  stream = POpen("exit 4", "rt");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(PClose(stream), 4);
  // The reader goes away early: the writer gets SIGPIPE (default in the child) and ends.
  stream = POpen("exec yes", "r");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(std::fgetc(stream), 'y');
  EXPECT_EQ(PClose(stream), -1);
  ExpectNoChildren();

  FILE* foreign = fopen("/dev/null", "r");
  ASSERT_NE(foreign, nullptr);
  EXPECT_EQ(PClose(foreign), -1);
  EXPECT_EQ(fgetc(foreign), EOF);
  EXPECT_FALSE(ferror(foreign));  // still a usable stream
  fclose(foreign);
  EXPECT_EQ(PClose(nullptr), -1);
}

TEST(Shell, StartProcessPipesOfTheParentCloseOnExec) {
  int in = 0, out = 1;
  const int pid = StartProcess("read line; echo \"got $line\"", false, &in, &out, nullptr);
  ASSERT_NE(pid, -1);
  EXPECT_EQ(fcntl(in, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(fcntl(out, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ASSERT_EQ(write(in, "hello\n", 6), 6);
  close(in);
  EXPECT_EQ(LinexTest::ReadAll(out), "got hello\n");
  EXPECT_EQ(ChildProcess::WaitProcess(pid), 0);
  in = out = 1;
  EXPECT_EQ(StartProcess("true", false, &in, &out, nullptr), -1);  // one descriptor for both
  EXPECT_EQ(StartProcess(nullptr, false, nullptr, nullptr, nullptr), -1);
  ExpectNoChildren();
}

TEST(Shell, NoDescriptorLeakOverAThousandCalls) {
  const int before = TestSupport::CountOwnFds();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(RunCommand("true"), 0);
    FILE* stream = POpen("echo x", "r");
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(ReadStream(stream), "x\n");
    ASSERT_EQ(PClose(stream), 0);
  }
  EXPECT_EQ(TestSupport::CountOwnFds(), before);
  ExpectNoChildren();
}

}  // namespace
