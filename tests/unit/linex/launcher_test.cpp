#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/linex/create_process.h"
#include "linex_test_support.h"

namespace {

using LinexTest::Descriptors;
using LinexTest::Probe;

TEST(Launcher, ChildSeesOnlyStandardAndRedirectedDescriptors) {
  std::vector<int> parent;  // a hundred descriptors of the parent, half of them inheritable
  for (int i = 0; i < 100; ++i) parent.push_back(memfd_create("parent", i % 2 ? MFD_CLOEXEC : 0));
  struct Case {
    const char* name;
    bool keepStdFds;
    bool extraInput;  // a redirected descriptor beyond the standard three
  } cases[] = {{"default", false, false}, {"keep std", true, false}, {"input on 7", false, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ChildProcess child;
    child.KeepStdFds = c.keepStdFds;
    int in = -1;
    if (c.extraInput) child.AddRedirection(7, &in, false);
    const auto result = Probe(child, "fds");
    if (in != -1) close(in);
    ASSERT_EQ(result.status, 0);
    auto fds = Descriptors(result.out);
    for (int fd : {0, 1, 2}) EXPECT_EQ(fds.count(fd), 1u) << fd;
    EXPECT_EQ(fds[1].rfind("pipe:", 0), 0u) << fds[1];
    if (c.extraInput) {
      EXPECT_EQ(fds[7].rfind("pipe:", 0), 0u) << fds[7];
    }
    // The "/dev/null" descriptor that served 0 and 2 stays open on purpose; nothing else may.
    size_t expected = c.extraInput ? 4 : 3;
    if (!c.keepStdFds) {
      EXPECT_EQ(fds[0], "/dev/null");
      EXPECT_EQ(fds[2], "/dev/null");
      for (const auto& fd : fds)
        if (fd.first > 2 && fd.first != 7) {
          EXPECT_EQ(fd.second, "/dev/null") << fd.first;
        }
      ++expected;
    }
    EXPECT_EQ(fds.size(), expected) << result.out;
  }
  for (int fd : parent) close(fd);
}

TEST(Launcher, StderrFollowsStdoutInTheWorkDir) {
  ChildProcess child;
  child.CmdLine = "pwd; echo err >&2";
  child.StderrToStdout = true;
  child.WorkDir = "/usr";
  const auto result = LinexTest::Run(child);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "/usr\nerr\n");
}

TEST(Launcher, FirstRedirectionOfADescriptorWins) {
  ChildProcess child;
  int first = 5, second = 5;
  child.AddRedirection(1, &first, true);
  child.AddRedirection(1, &second, false);
  child.CmdLine = "echo one";
  ASSERT_NE(child.ForkExec(), -1);
  EXPECT_EQ(second, 5);
  EXPECT_EQ(LinexTest::ReadAll(first), "one\n");
  EXPECT_EQ(child.Wait(), 0);
}

TEST(Launcher, ChildStartsWithNoBlockedSignalAndDefaultDispositions) {
  sigset_t block, previous;
  sigemptyset(&block);
  for (int sig : {SIGPIPE, SIGTERM, SIGUSR1, SIGCHLD, SIGINT}) sigaddset(&block, sig);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &block, &previous), 0);
  struct sigaction ignore {}, handler {}, oldPipe {}, oldUsr2 {};
  ignore.sa_handler = SIG_IGN;
  handler.sa_handler = [](int) {};
  sigaction(SIGPIPE, &ignore, &oldPipe);
  sigaction(SIGUSR2, &handler, &oldUsr2);

  ChildProcess child;
  const auto result = Probe(child, "signals");

  sigaction(SIGPIPE, &oldPipe, nullptr);
  sigaction(SIGUSR2, &oldUsr2, nullptr);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "blocked 0\n" + std::to_string(SIGPIPE) + " dfl\n" + std::to_string(SIGUSR2) + " dfl\n" +
                            std::to_string(SIGCHLD) + " dfl\n");
}

TEST(Launcher, SetUpAndExecFailuresExit127) {
  const std::string longName(5000, 'x');
  const struct Case {
    const char* name;
    std::vector<std::string> args;
    std::string workDir;
    int32_t target;  // a redirected descriptor, or -1
  } cases[] = {
      {"missing program", {"no-such-program-zl"}, "", -1},
      {"missing path", {"/no/such/program"}, "", -1},
      {"empty program", {""}, "", -1},
      {"long name", {longName}, "", -1},
      {"long path", {"/bin/" + longName}, "", -1},
      {"directory", {"/tmp"}, "", -1},
      {"missing work dir", {"true"}, "/no/such/dir", -1},
      {"descriptor beyond any limit", {"true"}, "", INT32_MAX},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ChildProcess child;
    child.Args = c.args;
    child.WorkDir = c.workDir;
    int parentEnd = -1;
    if (c.target != -1) child.AddRedirection(c.target, &parentEnd, true);
    ASSERT_NE(child.ForkExec(), -1);
    if (parentEnd != -1) close(parentEnd);
    EXPECT_EQ(child.Wait(), 127);
  }
  ChildProcess found;  // the same form finds a program on PATH
  found.Args = {"sh", "-c", "exit 7"};
  ASSERT_NE(found.ForkExec(), -1);
  EXPECT_EQ(found.Wait(), 7);
}

TEST(Launcher, RefusesBadDescriptionsAndASecondStart) {
  ChildProcess neither;
  EXPECT_EQ(neither.ForkExec(), -1);
  EXPECT_EQ(neither.Pid, -1);
  ChildProcess both;
  both.CmdLine = "true";
  both.Args = {"true"};
  int out = 9;
  both.AddRedirection(1, &out, true);
  EXPECT_EQ(both.ForkExec(), -1);
  EXPECT_EQ(out, 9);  // no pipe was made
  ChildProcess badRedirections;
  badRedirections.AddRedirection(-1, &out, true);
  badRedirections.AddRedirection(1, nullptr, true);
  EXPECT_TRUE(badRedirections.Redirections.empty());

  ChildProcess child;
  child.CmdLine = "true";
  const int pid = child.ForkExec();
  ASSERT_NE(pid, -1);
  EXPECT_EQ(child.ForkExec(), pid);
  EXPECT_EQ(child.Wait(), 0);
  EXPECT_EQ(child.Wait(), -1);
  EXPECT_EQ(ChildProcess::WaitProcess(-1), -1);
  EXPECT_EQ(ChildProcess::WaitProcess(0), -1);
}

TEST(Launcher, DestructorReapsAnUnwaitedChild) {
  pid_t pid;
  {
    ChildProcess child;
    child.CmdLine = "exit 0";
    pid = child.ForkExec();
    ASSERT_NE(pid, -1);
  }
  EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(Launcher, ReportFile) {
  setenv("ZEMLORA_ERROR_REPORT_FILE", "/tmp/parent-report", 1);
  {
    ChildProcess child;
    const auto result = Probe(child, "env");
    EXPECT_EQ(result.out.find("ZEMLORA_ERROR_REPORT_FILE"), std::string::npos);
  }
  std::string path;
  {
    ChildProcess child;
    child.CreateReportFile = true;
    const auto result = Probe(child, "env");
    path = child.ReportPath;
    EXPECT_EQ(path.rfind("/tmp/.zemlora_report.", 0), 0u) << path;
    EXPECT_NE(result.out.find("ZEMLORA_ERROR_REPORT_FILE=" + path + "\n"), std::string::npos);
    EXPECT_EQ(result.out.find("/tmp/parent-report"), std::string::npos);
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0);
  }
  unsetenv("ZEMLORA_ERROR_REPORT_FILE");
  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(ExecSearchPath, FailuresReturnWithErrno) {
  char dir[] = "/tmp/zl_search_XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string plain = std::string(dir) + "/plain";
  close(open(plain.c_str(), O_CREAT | O_WRONLY, 0644));  // not executable
  const std::string savedPath = getenv("PATH") ? getenv("PATH") : "";
  char* argv[] = {const_cast<char*>("x"), nullptr};
  struct Case {
    const char* name;
    std::string path;
    std::string file;
    int err;
  } cases[] = {
      {"empty name", "/bin", "", ENOENT},
      {"not found", "/no/such:/also/missing", "zl-missing", ENOENT},
      {"not executable, then missing", std::string(dir) + ":/no/such", "plain", EACCES},
      {"long name", "/bin", std::string(5000, 'y'), ENAMETOOLONG},
      {"long element", std::string(4095, 'd') + ":/bin", "true", ENAMETOOLONG},
      {"slash", "/bin", "/no/such/prog", ENOENT},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    setenv("PATH", c.path.c_str(), 1);
    errno = 0;
    EXPECT_EQ(ChildProcess::ExecSearchPath(c.file.c_str(), argv, environ), -1);
    EXPECT_EQ(errno, c.err);
  }
  setenv("PATH", savedPath.c_str(), 1);
  unlink(plain.c_str());
  rmdir(dir);
}

}  // namespace
