#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "../../support/child.h"
#include "../../support/descriptors.h"
#include "../../support/temp_dir.h"
#include "core/common/assert.h"
#include "core/linex/child_env_internal.h"
#include "core/linex/create_process.h"
#include "core/linex/linux_misc.h"
#include "core/linex/run_tool.h"

namespace {

using Strings = std::vector<std::string>;
using namespace std::string_literals;

std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
  close(fd);
  return text;
}

// The probe's sorted "<fd> <target>" with 100 descriptors open here, half inheritable ("?": above 2, not `input`).
Strings ChildDescriptors(bool keepStdFds, int input = -1) {
  std::vector<int> fds;
  for (int i = 0; i < 100; ++i) fds.push_back(memfd_create("parent", i % 2 ? MFD_CLOEXEC : 0));
  ChildProcess child;
  child.Args = {AS_CHILD_PROBE}, child.KeepStdFds = keepStdFds;
  int in = -1, out = -1;
  if (input != -1) child.AddRedirection(input, &in, false);
  child.AddRedirection(1, &out, true);
  const std::string text = child.ForkExec() != -1 ? ReadAll(out) : "";
  for (int fd : fds) close(fd);
  if (in != -1) close(in);
  if (child.Wait() != 0) return {"failed"};
  std::istringstream lines(text);
  Strings seen;
  for (std::string line; std::getline(lines, line);) {
    const int fd = std::stoi(line);
    const std::string target = line.substr(line.find(' ') + 1);
    seen.push_back((fd > 2 && fd != input ? "?" : std::to_string(fd)) + " " +
                   (keepStdFds && fd != 1 ? "kept" : target.rfind("pipe:", 0) == 0 ? "pipe" : target));
  }
  std::sort(seen.begin(), seen.end());
  return seen;
}

// close_range() refused, as by an older kernel.
bool RefuseCloseRange() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog program{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

bool SetLimit(decltype(RLIMIT_AS) resource, rlim_t value) {
  rlimit limit{};
  getrlimit(resource, &limit);
  limit.rlim_cur = value;
  return setrlimit(resource, &limit) == 0;
}

// Starts "true" with output on `target` (from the lowest free number) with `spare` descriptors
// left (0: no room for a child's stack): 0 failed leaving nothing behind, 1 ran.
int StartUnder(int spare, int target) {
  const int lowest = dup(0);
  close(lowest);
  ChildProcess child;
  child.CmdLine = "true";
  int out = 5;
  child.AddRedirection(lowest + target, &out, true);
  const int before = TestSupport::CountOwnFds();
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  spare ? SetLimit(RLIMIT_NOFILE, lowest + spare) : SetLimit(RLIMIT_AS, rlim_t(pages) * 4096 + 64 * 1024);
  if (child.ForkExec() != -1) return child.Wait() == 0 && close(out) == 0 ? 1 : -1;
  return out == -1 && TestSupport::CountOwnFds() == before ? 0 : -1;
}

// The child sees 0, 1, 2 and its redirections only, also where close_range is refused. The
// rows run in forked copies; exit code 2: the kernel or our rights do not allow the setting.
TEST(Launcher, ChildDescriptorsFallbacksAndLimits) {
  // The "/dev/null" that served 0 and 2 stays open.
  EXPECT_EQ(ChildDescriptors(true), (Strings{"0 kept", "1 pipe", "2 kept"}));
  EXPECT_EQ(ChildDescriptors(false, 7), (Strings{"0 /dev/null", "1 pipe", "2 /dev/null", "7 pipe", "? /dev/null"}));
  EXPECT_EQ(ChildDescriptors(false, 0), (Strings{"0 pipe", "1 pipe", "2 /dev/null", "? /dev/null"}));
  const auto onlyStdFds = [] { return ChildDescriptors(true).size() == 3; };
  const struct { const char* name; std::function<bool()> check, setUp = nullptr; } cases[] = {
      // An inheritable descriptor above a lowered limit: a loop up to the limit misses it.
      {"/proc/self/fd", onlyStdFds, [] {
         return RefuseCloseRange() && dup2(open("/dev/null", O_RDONLY), 900) == 900 &&
                SetLimit(RLIMIT_NOFILE, 512);
       }},
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // a sanitized probe needs /proc
      {"loop", onlyStdFds, [] {  // /proc hidden in a private mount namespace (root only)
         return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount("tmpfs", "/proc", "tmpfs", 0, nullptr) == 0 && RefuseCloseRange();
       }},
      // Sanitizers reserve the address space.
      {"no room for the child's stack", [] { return StartUnder(0, -1) == 0; }},
#endif
      {"no room for a pipe", [] { return StartUnder(1, -1) == 0; }},
      {"pipe fits on the lowest numbers", [] { return StartUnder(2, -1) == 1; }},
      {"no room above the target", [] { return StartUnder(3, 2) == 0; }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const int outcome = TestSupport::RunInChild([&] { return c.setUp && !c.setUp() ? 2 : c.check() ? 0 : 1; });
    if (outcome == 2) std::printf("%s: not tried, needs seccomp or root\n", c.name);
    EXPECT_TRUE(outcome == 0 || outcome == 2) << "exit " << outcome;  // a signal gives 128 + N
  }
}

// Set here: all signals blocked, SIGPIPE ignored, LD_PRELOAD, a report file, a "true" not executable first in PATH.
TEST(Launcher, ChildRunsAsAskedOrExits127) {
  const TestSupport::TempDir dir;
  close(open((dir / "true").c_str(), O_CREAT | O_WRONLY, 0644));
  const std::string savedPath = getenv("PATH") ? getenv("PATH") : "";
  setenv("PATH", (dir.path() + ":/bin:/usr/bin").c_str(), 1);
  setenv("LD_PRELOAD", "", 1), setenv("ZEMLORA_ERROR_REPORT_FILE", "/tmp/parent", 1);
  sigset_t all, previous;
  sigfillset(&all);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &all, &previous), 0);
  const auto oldPipe = signal(SIGPIPE, SIG_IGN);
  const Strings environment = {"grep", "-z", "^LD_PRELOAD=\\|^ZL_\\|^ZEMLORA", "/proc/self/environ"};
  // `report`: a fresh report file for the child, whose path `out` then ends with.
  const struct { Strings args; std::string out; int status = 0; std::string workDir = ""; int extra = -1;
                 Strings env = {}; bool report = false; } cases[] = {
      {{"sh", "-c", "pwd; echo err >&2"}, "/usr\nerr\n", 0, "/usr"},
      {{"grep", "^Sig[BI]", "/proc/self/status"}, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n"},
      {environment, "ZL_NEW=2\0"s, 0, "", -1, {"LD_PRELOAD", "ZL_NEW=1", "ZL_NEW=2"}},
      {environment, "ZEMLORA_ERROR_REPORT_FILE=\0"s, 0, "", -1, {"LD_PRELOAD"}, true},
      {{"true"}, ""},  // the denied entry does not end the search
      {{"no-such-program-zl"}, "", 127}, {{"/tmp"}, "", 127}, {{"true"}, "", 127, "/no/such/dir"},
      {{"true"}, "", 127, "", INT32_MAX},
  };
  std::string report;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.back().substr(0, 20) + " in [" + c.workDir + "] " + std::to_string(c.extra));
    ChildProcess child;
    child.Args = c.args, child.WorkDir = c.workDir, child.StderrToStdout = true, child.CreateReportFile = c.report;
    for (const std::string& entry : c.env) child.SetEnv(entry);
    int out = 5, second = 5, extra = -1;
    child.AddRedirection(1, &out, true);
    child.AddRedirection(1, &second, false);  // the first one wins
    if (c.extra != -1) child.AddRedirection(c.extra, &extra, true);
    ASSERT_NE(child.ForkExec(), -1);
    if (extra != -1) close(extra);
    std::string expected = c.out;
    if (c.report) expected.insert(expected.size() - 1, report = child.ReportPath);
    EXPECT_EQ(expected, ReadAll(out));
    EXPECT_EQ(child.Wait(), c.status);
    EXPECT_EQ(c.report, access(child.ReportPath.c_str(), F_OK) == 0);
  }
  EXPECT_NE(access(report.c_str(), F_OK), 0);  // gone with its object
  signal(SIGPIPE, oldPipe);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  setenv("PATH", savedPath.c_str(), 1);
  unsetenv("LD_PRELOAD"), unsetenv("ZEMLORA_ERROR_REPORT_FILE");
}

TEST(Launcher, ChildEnvironmentRules) {
  struct { Strings parent; bool inherit; Strings overrides, expected; } cases[] = {
      {{"A=1", "B=2", "C=3"}, true, {"B=x"}, {"A=1", "B=x", "C=3"}}, {{"A=1"}, true, {"Z=9", "NOPE"}, {"A=1", "Z=9"}},
      {{"A=1", "BROKEN", "C=3"}, true, {}, {"A=1", "C=3"}}, {{"A=1"}, true, {"A=2", "A"}, {}},
      {{"A=1"}, true, {"A", "A=3"}, {"A=3"}}, {{"A=1", "A=2"}, true, {"A=x"}, {"A=x", "A=2"}},
      {{"AB=1"}, true, {"A=2"}, {"AB=1", "A=2"}}, {{"A=1"}, true, {"", "=x", "=", "A="}, {"A="}},
      {{"=odd", "A=1"}, true, {"=x", "A=5"}, {"=x", "A=5"}}, {{"=odd", "A=1"}, true, {"=x", ""}, {"A=1"}},
      {{"A=1", "B=2"}, false, {"B=3", "C", "D=4"}, {"B=3", "D=4"}},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.overrides));
    std::vector<char*> env;
    for (std::string& e : c.parent) env.push_back(&e[0]);
    env.push_back(nullptr);
    EXPECT_EQ(LinuxEx::Detail::BuildChildEnvironment(env.data(), c.inherit, c.overrides), c.expected);
  }
  EXPECT_EQ(LinuxEx::Detail::BuildChildEnvironment(nullptr, true, {"A=1"}), Strings{"A=1"});
}

// The PATH walk of exec and of FindProgram: a failure is -1 with errno, and no program found.
TEST(Launcher, PathSearchFailures) {
  const TestSupport::TempDir dir;
  close(open((dir / "plain").c_str(), O_CREAT | O_WRONLY, 0644));  // not executable
  ASSERT_EQ(0, symlink("loop", (dir / "loop").c_str()));
  const std::string savedPath = getenv("PATH") ? getenv("PATH") : "";
  char* argv[] = {const_cast<char*>("x"), nullptr};
  const struct { std::string path, file; int err; } cases[] = {
      {"/bin", "", ENOENT}, {"/no/such:/also/missing", "zl-missing", ENOENT}, {"/bin", "/no/such/prog", ENOENT},
      {dir.path() + ":/no/such", "plain", EACCES}, {dir.path() + ":/no/such", "loop", ELOOP},  // the search stops
      {"/bin", std::string(5000, 'y'), ENAMETOOLONG}, {std::string(4095, 'd') + ":/bin", "true", ENAMETOOLONG},
      {"/bin", "/", EACCES},  // a directory is no program
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path.substr(0, 20) + " " + c.file.substr(0, 20));
    setenv("PATH", c.path.c_str(), 1);
    errno = 0;
    EXPECT_EQ(ChildProcess::ExecSearchPath(c.file.c_str(), argv, environ), -1);
    EXPECT_EQ(errno, c.err);
    EXPECT_EQ("", ChildProcess::FindProgram(c.file));
  }
  setenv("PATH", savedPath.c_str(), 1);
  EXPECT_EQ("/bin/true", ChildProcess::FindProgram("/bin/true"));
  EXPECT_EQ(LinuxEx::RunTool({"sh", "-c", "command -v ls"}).output, ChildProcess::FindProgram("ls") + "\n");
}

bool NoChildren() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// Shell services and tools: statuses, loader variables (POpen strips them), pipes; no descriptor or child leaks.
TEST(Shell, StatusesLoaderVariablesPipesAndTools) {
  const int before = TestSupport::CountOwnFds();
  setenv("LD_LIBRARY_PATH", "/zl-libs", 1), setenv("ZEMLORA_ERROR_REPORT_FILE", "/tmp/parent", 1);
  const char* const mine[] = {"LD_LIBRARY_PATH=/mine", "ZL_EXTRA=1", nullptr};
  const struct { const char* command; int status; bool strip = false; const char* const* env = {}; } cases[] = {
      {"exit 255", 255}, {"", -1}, {"test \"$LD_LIBRARY_PATH\" = /zl-libs", 0},
      {"test -z \"${LD_LIBRARY_PATH+set}\"", 0, true}, {"test \"$LD_LIBRARY_PATH$ZL_EXTRA\" = /mine1", 0, true, mine},
      {"test -z \"${ZEMLORA_ERROR_REPORT_FILE+set}\"", 0},  // a shell command writes no report
  };
  for (const auto& c : cases) EXPECT_EQ(RunCommand(c.command, c.strip, c.env), c.status) << c.command;
  unsetenv("ZEMLORA_ERROR_REPORT_FILE");
  FILE* stream = POpen("echo x; echo \"[$LD_LIBRARY_PATH]\"", "rt");
  unsetenv("LD_LIBRARY_PATH");
  char text[16] = {};
  EXPECT_STREQ((std::fread(text, 1, sizeof text - 1, stream), text), "x\n[]\n");
  EXPECT_EQ(PClose(stream), 0);
  stream = POpen("exec yes", "r");  // the reader goes away early: SIGPIPE ends the writer
  EXPECT_EQ(std::fgetc(stream), 'y');
  EXPECT_EQ(PClose(stream), -1);
  int in = 0, out = 1;
  const int pid = StartProcess("read line; echo \"got $line\"", false, &in, &out, nullptr);
  ASSERT_NE(pid, -1);
  EXPECT_EQ(fcntl(in, F_GETFD) & fcntl(out, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ASSERT_EQ(write(in, "hello\n", 6), 6);
  close(in);
  EXPECT_EQ(ReadAll(out), "got hello\n");
  EXPECT_EQ(ChildProcess::WaitProcess(pid), 0);
  // A tool by argument vector: input, output, status; the command text quotes so a shell gives back the words.
  const std::string big(1 << 20, 'x');  // more than a pipe holds, for a tool that never reads
  const struct { Strings argv; std::string input; int status; std::string output; } tools[] = {
      {{"sh", "-c", "cat; exit 3"}, "n\n1\n", 3, "n\n1\n"}, {{"true"}, big, 0, ""},
      {{"sh", "-c", "echo half; kill -9 $$"}, "", -1, "half\n"},
  };
  for (const auto& c : tools) {
    SCOPED_TRACE(c.argv.back());
    const LinuxEx::ToolRun run = LinuxEx::RunTool(c.argv, c.input);
    EXPECT_TRUE(run.started && run.status == c.status && run.output == c.output) << run.status << " " << run.output;
  }
  const Strings words = {"tune2fs", "-L", "ZLM$(id) 'x'`y`\\z\n%", "/dev/sdb1"};
  EXPECT_EQ("tune2fs -L 'ZLM$(id) '\\''x'\\''`y`\\z\n%' /dev/sdb1", LinuxEx::CommandText(words));
  EXPECT_EQ("printf 'n\\n1\\n%%\\\\' | gdisk /dev/sdb", LinuxEx::CommandText({"gdisk", "/dev/sdb"}, "n\n1\n%\\"));
  const auto echoed = LinuxEx::RunTool({"sh", "-c", "printf '%s|' " + LinuxEx::CommandText(words)});
  EXPECT_EQ("tune2fs|-L|ZLM$(id) 'x'`y`\\z\n%|/dev/sdb1|", echoed.output);
  EXPECT_EQ(TestSupport::CountOwnFds(), before);
  EXPECT_TRUE(NoChildren());
}

std::string gPlaces;

// In a fresh copy of this program (the handler reads its mode once): exit 0 when every misuse
// is refused and reported at its place, which support tooling matches on.
[[noreturn]] void Misuses() {
  setenv("ZEMLORA_SAFE_ASSERT", "event", 1);
  Common::SetAssertEventCallback([](int, int, int, const char* text) {
    const char* place = std::strstr(text, ", file core/linex/");
    gPlaces += std::string(place ? place + 18 : text) + "\n";
  });
  bool refused = true;  // a check that fails names itself in the output the death test matches
#define AS_REFUSED(check) if (!(check)) refused = false, std::fprintf(stderr, "not refused: %s\n", #check)
  {
    ChildProcess c;
    int fd = 9;
    c.AddRedirection(1, nullptr, true);
    c.AddRedirection(-1, &fd, true);
    AS_REFUSED(c.Redirections.empty());
    c.AddRedirection(1, &fd, true);
    AS_REFUSED(c.ForkExec() == -1 && fd == 9 && c.Wait() == -1 && ChildProcess::WaitProcess(0) == -1);
    c.CmdLine = "exit 3", c.Args = {"true"};
    AS_REFUSED(c.ForkExec() == -1);
    c.Args.clear();
    const int pid = c.ForkExec();
    close(fd);
    AS_REFUSED(pid != -1 && c.ForkExec() == pid && c.Wait() == 3 && c.Wait() == -1);
  }
  for (const auto& [status, end] : {std::pair{FORK_STATUS_PARENT, -1}, std::pair{FORK_STATUS_BEFORE, 99}}) {
    ChildProcess c;
    c.CmdLine = "true";
    int fd = -1;
    c.Redirections[1] = FdRedirection{1, &fd, false, {-1, end}, status};  // as if it had served an earlier start
    AS_REFUSED(c.ForkExec() != -1 && c.Wait() == 0);
  }
  {
    ChildProcess c;
    c.CmdLine = "true";
    c.ForkExec();
  }
  AS_REFUSED(NoChildren());  // reaped all the same
  int in = 0, out = 0;
  AS_REFUSED(StartProcess("true", false, &in, &out, nullptr) == -1);
  FILE* foreign = std::fopen("/dev/null", "r");  // refused and left open
  AS_REFUSED(PClose(foreign) == -1 && std::fgetc(foreign) == EOF && !std::ferror(foreign) && PClose(nullptr) == -1);
  std::fprintf(stderr, "%s", gPlaces.c_str());
  std::exit(refused ? 0 : 1);
#undef AS_REFUSED
}

TEST(Launcher, MisuseIsRefusedAndReportsItsPlace) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const char* places =
      "create_process, line 273\ncreate_process, line 274\ncreate_process, line 587\ncreate_process, line 587\n"
      "create_process, line 581\ncreate_process, line 325\ncreate_process, line 326\ncreate_process, line 509\n"
      "create_process, line 432\nlinux_misc, line 504\nlinux_misc, line 504\n$";
  EXPECT_EXIT(Misuses(), testing::ExitedWithCode(0), std::string("^") + places);
}

TEST(SafeClose, PolicyDecidesWhatABadCloseDoes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the policy is read once at load
  // Policy (nullptr: unset), SafeFclose(nullptr) or else SafeClose(-1), the signal (0: only reported).
  const struct { const char* policy; bool file; int signal; } cases[] = {
      {nullptr, false, SIGABRT}, {"please-abort", false, SIGABRT}, {"abort,break", true, SIGTRAP},
      {"0", false, 0}, {"0", true, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.policy ? c.policy : "unset");
    c.policy ? setenv("ZEMLORA_SAFE_CLOSE", c.policy, 1) : unsetenv("ZEMLORA_SAFE_CLOSE");
    auto badClose = [&] {
      errno = 0;
      std::exit(c.file ? ChildProcess::SafeFclose(nullptr) != EOF
                       : ChildProcess::SafeClose(-1) != -1 || errno != EBADF);
    };
    if (c.signal != 0) EXPECT_EXIT(badClose(), testing::KilledBySignal(c.signal), "");
    else EXPECT_EXIT(badClose(), testing::ExitedWithCode(0), "");
  }
  unsetenv("ZEMLORA_SAFE_CLOSE");
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  EXPECT_TRUE(ChildProcess::SafeClose(fds[0]) == 0 && ChildProcess::SafeFclose(fdopen(fds[1], "w")) == 0);
}

}  // namespace
