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

#include "../../support/temp_dir.h"
#include "core/linex/child_env_internal.h"
#include "core/linex/create_process.h"
#include "linex_test_support.h"

namespace {

using LinexTest::Probe;

TEST(Launcher, ChildSeesOnlyStandardAndRedirectedDescriptors) {
  std::vector<int> parent;  // a hundred descriptors of the parent, half of them inheritable
  for (int i = 0; i < 100; ++i) parent.push_back(memfd_create("parent", i % 2 ? MFD_CLOEXEC : 0));
  const struct {
    const char* name;
    bool keepStdFds;
    int extraInput;  // a redirected descriptor beyond the standard three, or -1
  } cases[] = {{"default", false, -1}, {"keep std", true, -1}, {"input on 7", false, 7}, {"input on 0", false, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ChildProcess child;
    child.KeepStdFds = c.keepStdFds;
    int in = -1;
    if (c.extraInput != -1) child.AddRedirection(c.extraInput, &in, false);
    const auto result = Probe(child, "fds");
    if (in != -1) close(in);
    ASSERT_EQ(result.status, 0);
    auto fds = LinexTest::Descriptors(result.out);
    size_t expected = c.extraInput > 2 ? 4 : 3;
    for (int fd : {0, 1, 2, c.extraInput}) {
      if (fd == -1) continue;
      ASSERT_EQ(fds.count(fd), 1u) << fd;
      const bool piped = fd == 1 || fd == c.extraInput;
      if (piped || !c.keepStdFds) {
        EXPECT_EQ(piped ? "pipe:" : "/dev/null", fds[fd].substr(0, piped ? 5 : 9)) << fd;
      }
    }
    // The "/dev/null" descriptor that served 0 and 2 stays open on purpose; nothing else may.
    if (!c.keepStdFds) {
      for (const auto& fd : fds)
        EXPECT_TRUE(fd.first <= 2 || fd.first == c.extraInput || fd.second == "/dev/null") << fd.first;
      ++expected;
    }
    EXPECT_EQ(fds.size(), expected) << result.out;
  }
  for (int fd : parent) close(fd);
}

TEST(Launcher, FirstRedirectionWinsAndStderrFollowsStdoutInTheWorkDir) {
  ChildProcess child;
  int first = 5, second = 5;
  child.AddRedirection(1, &first, true);
  child.AddRedirection(1, &second, false);
  child.CmdLine = "pwd; echo err >&2";
  child.StderrToStdout = true;
  child.WorkDir = "/usr";
  ASSERT_NE(child.ForkExec(), -1);
  EXPECT_EQ(second, 5);
  EXPECT_EQ(LinexTest::ReadAll(first), "/usr\nerr\n");
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
  const struct {
    const char* name;
    std::vector<std::string> args;
    std::string workDir;
    int32_t target;  // a redirected descriptor, or -1
    int status;
  } cases[] = {
      {"missing program", {"no-such-program-zl"}, "", -1, 127},
      {"missing path", {"/no/such/program"}, "", -1, 127},
      {"empty program", {""}, "", -1, 127},
      {"long name", {longName}, "", -1, 127},
      {"long path", {"/bin/" + longName}, "", -1, 127},
      {"directory", {"/tmp"}, "", -1, 127},
      {"missing work dir", {"true"}, "/no/such/dir", -1, 127},
      {"descriptor beyond any limit", {"true"}, "", INT32_MAX, 127},
      {"found on PATH", {"sh", "-c", "exit 7"}, "", -1, 7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ChildProcess child;
    child.Args = c.args;
    child.WorkDir = c.workDir;
    int parentEnd = -1;
    if (c.target != -1) child.AddRedirection(c.target, &parentEnd, true);
    ASSERT_NE(child.ForkExec(), -1);
    if (parentEnd != -1) close(parentEnd);
    EXPECT_EQ(child.Wait(), c.status);
  }
}

TEST(Launcher, RefusesBadDescriptionsASecondStartAndReapsWhenDestroyed) {
  ChildProcess neither;
  EXPECT_EQ(neither.ForkExec(), -1);
  EXPECT_EQ(neither.Pid, -1);
  EXPECT_EQ(neither.Wait(), -1);
  ChildProcess both;
  both.CmdLine = "true";
  both.Args = {"true"};
  int out = 9;
  both.AddRedirection(1, &out, true);
  both.AddRedirection(-1, &out, true);
  both.AddRedirection(2, nullptr, true);
  EXPECT_EQ(both.Redirections.size(), 1u);
  EXPECT_EQ(both.ForkExec(), -1);
  EXPECT_EQ(out, 9);  // no pipe was made

  ChildProcess twice;
  twice.CmdLine = "exit 3";
  const int pid = twice.ForkExec();
  ASSERT_NE(pid, -1);
  EXPECT_EQ(twice.ForkExec(), pid);
  EXPECT_EQ(twice.Wait(), 3);
  EXPECT_EQ(twice.Wait(), -1);
  {
    ChildProcess unwaited;
    unwaited.CmdLine = "exit 0";
    ASSERT_NE(unwaited.ForkExec(), -1);
  }  // the destructor reaps it
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
  EXPECT_EQ(ChildProcess::WaitProcess(-1), -1);
  EXPECT_EQ(ChildProcess::WaitProcess(0), -1);
}

TEST(Launcher, EnvironmentAndReportFileReachTheChild) {
  setenv("LD_PRELOAD", "", 1);
  setenv("ZL_KEEP", "kept", 1);
  setenv("ZL_GONE", "x", 1);
  setenv("ZEMLORA_ERROR_REPORT_FILE", "/tmp/parent-report", 1);
  std::string path;
  for (bool report : {false, true}) {
    SCOPED_TRACE(report ? "own report file" : "no report file");
    ChildProcess child;
    child.SetEnv("LD_PRELOAD");
    child.SetEnv("ZL_GONE");
    child.SetEnv("ZL_NEW=1");
    child.SetEnv("ZL_NEW=2");
    child.CreateReportFile = report;
    const std::string out = "\n" + Probe(child, "env").out;
    EXPECT_EQ(out.find("\nLD_PRELOAD="), std::string::npos);
    EXPECT_EQ(out.find("\nZL_GONE="), std::string::npos);
    EXPECT_NE(out.find("\nZL_KEEP=kept\n"), std::string::npos);
    EXPECT_EQ(out.find("ZL_NEW=1"), std::string::npos);
    EXPECT_EQ(out.find("/tmp/parent-report"), std::string::npos);
    path = child.ReportPath;
    if (!report) {
      EXPECT_EQ(out.find("ZEMLORA_ERROR_REPORT_FILE"), std::string::npos);
      EXPECT_EQ(out.substr(out.size() - 9), "ZL_NEW=2\n");
      continue;
    }
    EXPECT_EQ(path.rfind("/tmp/.zemlora_report.", 0), 0u) << path;
    EXPECT_NE(out.find("\nZEMLORA_ERROR_REPORT_FILE=" + path + "\n"), std::string::npos);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0);  // gone with the object
  for (const char* name : {"LD_PRELOAD", "ZL_KEEP", "ZL_GONE", "ZEMLORA_ERROR_REPORT_FILE"}) unsetenv(name);
}

TEST(Launcher, ChildEnvironmentRules) {
  using Strings = std::vector<std::string>;
  struct {
    const char* name;
    Strings parent;
    bool inherit;
    Strings overrides;
    Strings expected;
  } cases[] = {
      {"inherited as is", {"A=1", "B=2"}, true, {}, {"A=1", "B=2"}},
      {"replaced in place", {"A=1", "B=2", "C=3"}, true, {"B=x"}, {"A=1", "B=x", "C=3"}},
      {"removed", {"LD_PRELOAD=/x.so", "B=2"}, true, {"LD_PRELOAD"}, {"B=2"}},
      {"appended", {"A=1"}, true, {"Z=9"}, {"A=1", "Z=9"}},
      {"unmatched removal dropped", {"A=1"}, true, {"NOPE"}, {"A=1"}},
      {"entry without = dropped", {"A=1", "BROKEN", "C=3"}, true, {}, {"A=1", "C=3"}},
      {"last match decides", {"A=1"}, true, {"A=2", "A"}, {}},
      {"last match decides, set", {"A=1"}, true, {"A", "A=3"}, {"A=3"}},
      {"first inherited of a name only", {"A=1", "A=2"}, true, {"A=x"}, {"A=x", "A=2"}},
      {"prefix is not a match", {"AB=1"}, true, {"A=2"}, {"AB=1", "A=2"}},
      {"empty and = overrides never appended", {"A=1"}, true, {"", "=x", "=", "A=5"}, {"A=5"}},
      {"nameless entry replaced", {"=odd", "A=1"}, true, {"=x", "A=5"}, {"=x", "A=5"}},
      {"nameless entry removed", {"=odd", "A=1"}, true, {"=x", ""}, {"A=1"}},
      {"empty value", {"A=1"}, true, {"A="}, {"A="}},
      {"not inherited", {"A=1", "B=2"}, false, {"B=3", "C", "D=4"}, {"B=3", "D=4"}},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<char*> env;
    for (std::string& e : c.parent) env.push_back(&e[0]);
    env.push_back(nullptr);
    EXPECT_EQ(LinuxEx::Detail::BuildChildEnvironment(env.data(), c.inherit, c.overrides), c.expected);
  }
  EXPECT_EQ(LinuxEx::Detail::BuildChildEnvironment(nullptr, true, {"A=1"}), Strings{"A=1"});
}

TEST(ExecSearchPath, FailuresReturnWithErrno) {
  const TestSupport::TempDir dir;
  close(open((dir / "plain").c_str(), O_CREAT | O_WRONLY, 0644));  // not executable
  const std::string savedPath = getenv("PATH") ? getenv("PATH") : "";
  char* argv[] = {const_cast<char*>("x"), nullptr};
  const struct {
    const char* name;
    std::string path;
    std::string file;
    int err;
  } cases[] = {
      {"empty name", "/bin", "", ENOENT},
      {"not found", "/no/such:/also/missing", "zl-missing", ENOENT},
      {"not executable, then missing", dir.path() + ":/no/such", "plain", EACCES},
      {"long name", "/bin", std::string(5000, 'y'), ENAMETOOLONG},
      {"long element", std::string(4095, 'd') + ":/bin", "true", ENAMETOOLONG},
      {"slash", "/bin", "/no/such/prog", ENOENT},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    setenv("PATH", c.path.c_str(), 1);
    errno = 0;
    EXPECT_EQ(ChildProcess::ExecSearchPath(c.file.c_str(), argv, environ), -1);
    EXPECT_EQ(errno, c.err);
  }
  setenv("PATH", savedPath.c_str(), 1);
}

}  // namespace
