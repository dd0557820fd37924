// ChildProcess: the parent's side of starting a child. Pipes, the report file, the
// environment and the argument vector are all prepared here; the child itself only
// makes system calls (spawn.cpp).
#include "core/linex/create_process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "core/linex/assert_line_internal.h"
#include "core/linex/child_env_internal.h"
#include "core/linex/libc_entries_internal.h"
#include "core/linex/spawn_internal.h"

extern char** environ;

namespace {

constexpr const char* kReportVariable = "ZEMLORA_ERROR_REPORT_FILE";
constexpr const char* kShell = "/bin/sh";
constexpr size_t kPathMax = 4096;

// PATH as the child inherits it; unset: the current directory, then the system path.
// No allocation: ExecSearchPath may run in a forked child.
const char* SearchPath(char (&fallback)[kPathMax + 2]) {
  if (const char* path = std::getenv("PATH")) return path;
  fallback[0] = ':';
  if (confstr(_CS_PATH, fallback + 1, sizeof fallback - 1) == 0) fallback[1] = '\0';
  return fallback;
}

// A pipe whose ends are close-on-exec and numbered at least `lowest`, so that neither
// end can be a descriptor that a redirection targets.
bool MakePipe(int32_t (&ends)[2], int lowest) {
  int made[2];
  if (pipe2(made, O_CLOEXEC) != 0) return false;
  for (int i = 0; i < 2; ++i) {
    ends[i] = made[i];
    if (made[i] >= lowest) continue;
    ends[i] = fcntl(made[i], F_DUPFD_CLOEXEC, lowest);
    ChildProcess::SafeClose(made[i]);
  }
  if (ends[0] >= 0 && ends[1] >= 0) return true;
  for (int32_t& end : ends) {
    if (end >= 0) ChildProcess::SafeClose(end);
    end = -1;
  }
  return false;
}

unsigned long OpenMax() {
  const long limit = sysconf(_SC_OPEN_MAX);
  return limit > 0 ? static_cast<unsigned long>(limit) : 1024;
}

// Above every redirection target that a pipe end could take. A target at or beyond
// the limit can never be a pipe end; the child then fails to duplicate onto it.
int LowestPipeFd(const std::map<int32_t, FdRedirection>& redirections) {
  const unsigned long limit = OpenMax();
  for (auto it = redirections.rbegin(); it != redirections.rend(); ++it)
    if (static_cast<unsigned long>(it->first) < limit) return std::max(3, it->first + 1);
  return 3;
}

}  // namespace

ChildProcess::ChildProcess() = default;

ChildProcess::~ChildProcess() {
  if (WaitRequired && Pid != -1 && !Reaped_) {
    AS_ASSERT_AT(!"Wait() method is not called", LinuxEx::Detail::kLauncherFile, 509);
    WaitProcess(Pid);
    Pid = -1;
  }
  if (ReportFd != -1) {
    unlink(ReportPath.c_str());
    SafeClose(ReportFd);
  }
}

void ChildProcess::SetEnv(const std::string& entry) {
  const std::string_view name = LinuxEx::Detail::EnvName(entry);
  for (std::string& existing : Env) {
    if (LinuxEx::Detail::EnvName(existing) == name) {
      existing = entry;
      return;
    }
  }
  Env.push_back(entry);
}

void ChildProcess::AddRedirection(int32_t fd, int32_t* newFd, bool output) {
  AS_ASSERT_TEXT_AT(newFd, "NewFd", LinuxEx::Detail::kLauncherFile, 273);
  AS_ASSERT_TEXT_AT(fd >= 0, "Fd >= 0", LinuxEx::Detail::kLauncherFile, 274);
  if (newFd == nullptr || fd < 0) return;
  FdRedirection r;
  r.Fd = fd;
  r.NewFd = newFd;
  r.Output = output;
  Redirections.emplace(fd, r);
}

void ChildProcess::CleanupRedirections() {
  for (auto& entry : Redirections) {
    FdRedirection& r = entry.second;
    const int childEnd = r.Output ? 1 : 0;
    switch (r.Status) {
      case FORK_STATUS_BEFORE:
        for (int32_t& end : r.Pipe) {
          if (end != -1) SafeClose(end);
          end = -1;
        }
        *r.NewFd = -1;
        break;
      case FORK_STATUS_PARENT:
      case FORK_STATUS_CHILD: {
        int32_t& end = r.Pipe[r.Status == FORK_STATUS_PARENT ? childEnd : 1 - childEnd];
        if (end != -1) SafeClose(end);
        end = -1;
        break;
      }
      default:
        AS_ASSERT_AT(!"Unknown status", LinuxEx::Detail::kLauncherFile, 306);
    }
  }
}

int32_t ChildProcess::ForkExec() {
  if (Pid != -1) {
    AS_ASSERT_AT(!"process already running", LinuxEx::Detail::kLauncherFile, 581);
    return Pid;
  }
  if (CmdLine.empty() == Args.empty()) {
    AS_ASSERT_AT(!"both cmdline and args is set or empty", LinuxEx::Detail::kLauncherFile, 587);
    return -1;
  }
  LinuxEx::Detail::GetLibcEntries();

  const int lowestPipeFd = LowestPipeFd(Redirections);
  for (auto& entry : Redirections) {
    FdRedirection& r = entry.second;
    AS_ASSERT_TEXT_AT(r.Status == FORK_STATUS_BEFORE, "Status == FORK_STATUS_BEFORE", LinuxEx::Detail::kLauncherFile, 325);
    AS_ASSERT_TEXT_AT(r.Pipe[0] == -1 && r.Pipe[1] == -1, "Pipe[0] == -1 && Pipe[1] == -1", LinuxEx::Detail::kLauncherFile,
                      326);
    if (!MakePipe(r.Pipe, lowestPipeFd)) {
      CleanupRedirections();
      return -1;
    }
    *r.NewFd = r.Output ? r.Pipe[0] : r.Pipe[1];
  }

  std::vector<std::string> overrides = Env;
  if (!CreateReportFile) {
    if (std::getenv(kReportVariable) != nullptr) overrides.emplace_back(kReportVariable);
  } else {
    char path[] = "/tmp/.zemlora_report.XXXXXX";
    ReportFd = mkostemp(path, O_CLOEXEC);
    if (ReportFd == -1) {
      CleanupRedirections();
      return -1;
    }
    ReportPath = path;
    overrides.push_back(std::string(kReportVariable) + "=" + ReportPath);
  }
  std::vector<std::string> environment = LinuxEx::Detail::BuildChildEnvironment(environ, InheritEnv, overrides);
  std::vector<char*> envp;
  envp.reserve(environment.size() + 1);
  for (std::string& e : environment) envp.push_back(&e[0]);
  envp.push_back(nullptr);

  std::vector<char*> argv;
  LinuxEx::Detail::SpawnPlan plan;
  char searchPath[kPathMax + 2];
  if (!CmdLine.empty()) {
    argv = {const_cast<char*>(kShell), const_cast<char*>("-c"), &CmdLine[0], nullptr};
    plan.path = kShell;
  } else {
    for (std::string& a : Args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    plan.file = Args[0].c_str();
    plan.searchPath = SearchPath(searchPath);
  }

  std::vector<LinuxEx::Detail::SpawnPlan::Dup> dups;
  std::vector<int> parentEnds;
  for (const auto& entry : Redirections) {
    const FdRedirection& r = entry.second;
    dups.push_back({r.Output ? r.Pipe[1] : r.Pipe[0], r.Fd});
    parentEnds.push_back(r.Output ? r.Pipe[0] : r.Pipe[1]);
  }
  std::vector<int> keep(dups.size() + 1);
  plan.workDir = WorkDir.empty() ? nullptr : WorkDir.c_str();
  plan.dups = dups.data();
  plan.dupCount = dups.size();
  plan.parentEnds = parentEnds.data();
  plan.parentEndCount = parentEnds.size();
  plan.keep = keep.data();
  plan.keepStdFds = KeepStdFds;
  plan.stderrToStdout = StderrToStdout;
  plan.openMax = OpenMax();
  plan.argv = argv.data();
  plan.envp = envp.data();

  const pid_t pid = LinuxEx::Detail::SpawnChild(plan);
  if (pid == -1) {
    CleanupRedirections();
    return -1;
  }
  Pid = pid;
  for (auto& entry : Redirections) entry.second.Status = FORK_STATUS_PARENT;
  CleanupRedirections();
  return pid;
}

int32_t ChildProcess::Wait() {
  if (Pid == -1 || Reaped_) return -1;
  Reaped_ = true;
  return WaitProcess(Pid);
}

int32_t ChildProcess::WaitProcess(int32_t pid) {
  if (pid <= 0) return -1;
  int status = 0;
  const pid_t result = TEMP_FAILURE_RETRY(waitpid(pid, &status, 0));
  if (result != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

std::string ChildProcess::FindProgram(const std::string& file) {
  char fallback[kPathMax + 2];
  std::string found;
  const auto executable = [](const char* path, void* out) {
    struct stat st;
    if (::stat(path, &st) != 0 || access(path, X_OK) != 0) return errno;
    if (!S_ISREG(st.st_mode)) return EACCES;  // as execve finds a directory
    *static_cast<std::string*>(out) = path;
    return 0;
  };
  LinuxEx::Detail::SearchPath(file.c_str(), SearchPath(fallback), executable, &found);
  return found;
}

int ChildProcess::ExecSearchPath(const char* file, char* const argv[], char* const envp[]) {
  char fallback[kPathMax + 2];
  const int err = LinuxEx::Detail::ExecSearch(file, SearchPath(fallback), argv, envp);
  errno = err;
  return -1;
}
