#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

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
  char line[1024];
  while (fgets(line, sizeof line, stream) != nullptr) text += line;
  return text;
}

TEST(RunCommand, ExitStatus) {
  struct Case {
    const char* command;
    int status;
  } cases[] = {
      {"true", 0},
      {"exit 3", 3},
      {"exit 255", 255},
      {"kill -9 $$", -1},
      {"zl-no-such-command-xyz", 127},
      {"echo hidden; echo hidden >&2", 0},
      {"", -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    EXPECT_EQ(RunCommand(c.command), c.status);
  }
  ExpectNoChildren();
}

TEST(RunCommand, LoaderVariablesKeptUnlessStripped) {
  setenv("LD_LIBRARY_PATH", "/zl-libs", 1);
  EXPECT_EQ(RunCommand("test \"$LD_LIBRARY_PATH\" = /zl-libs"), 0);
  EXPECT_EQ(RunCommand("test -z \"${LD_LIBRARY_PATH+set}\"", true), 0);
  const char* const env[] = {"LD_LIBRARY_PATH=/mine", "ZL_EXTRA=1", nullptr};
  EXPECT_EQ(RunCommand("test \"$LD_LIBRARY_PATH$ZL_EXTRA\" = /mine1", true, env), 0);
  unsetenv("LD_LIBRARY_PATH");
}

TEST(POpen, ReadsOutputAndStripsLoaderVariables) {
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
  char line[8];
  ASSERT_NE(fgets(line, sizeof line, stream), nullptr);
  EXPECT_EQ(PClose(stream), -1);
  ExpectNoChildren();
}

TEST(POpen, ForeignStreamIsLeftOpen) {
  FILE* foreign = fopen("/dev/null", "r");
  ASSERT_NE(foreign, nullptr);
  EXPECT_EQ(PClose(foreign), -1);
  EXPECT_EQ(fgetc(foreign), EOF);
  EXPECT_FALSE(ferror(foreign));  // still a usable stream
  fclose(foreign);
  EXPECT_EQ(PClose(nullptr), -1);
}

TEST(StartProcess, PipesOfTheParentCloseOnExec) {
  int in = 0;
  int out = 1;
  const int pid = StartProcess("read line; echo \"got $line\"", false, &in, &out, nullptr);
  ASSERT_NE(pid, -1);
  EXPECT_EQ(fcntl(in, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(fcntl(out, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ASSERT_EQ(write(in, "hello\n", 6), 6);
  close(in);
  EXPECT_EQ(LinexTest::ReadAll(out), "got hello\n");
  EXPECT_EQ(ChildProcess::WaitProcess(pid), 0);
  in = 1;
  out = 1;
  EXPECT_EQ(StartProcess("true", false, &in, &out, nullptr), -1);  // one descriptor for both
  EXPECT_EQ(StartProcess(nullptr, false, nullptr, nullptr, nullptr), -1);
  ExpectNoChildren();
}

TEST(Shell, NoDescriptorLeakOverAThousandCalls) {
  const int before = LinexTest::CountOwnFds();
  for (int i = 0; i < 1000; ++i) {
    ASSERT_EQ(RunCommand("true"), 0);
    FILE* stream = POpen("echo x", "r");
    ASSERT_NE(stream, nullptr);
    ASSERT_EQ(ReadStream(stream), "x\n");
    ASSERT_EQ(PClose(stream), 0);
  }
  EXPECT_EQ(LinexTest::CountOwnFds(), before);
  ExpectNoChildren();
}

}  // namespace
