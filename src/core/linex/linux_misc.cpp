#include "core/linex/linux_misc.h"

#include <fcntl.h>

#include <map>
#include <mutex>

#include "core/linex/assert_line_internal.h"
#include "core/linex/create_process.h"

namespace {

// Streams of POpen and the children writing into them.
struct StreamRegistry {
  std::mutex mutex;
  std::map<FILE*, int> children;
};

StreamRegistry& Registry() {
  static StreamRegistry registry;
  return registry;
}

}  // namespace

int StartProcess(const char* cmdLine, bool stripLoaderVars, int* stdinFd, int* stdoutFd, const char* const* env) {
  ChildProcess child;
  child.WaitRequired = false;
  if (cmdLine != nullptr) child.CmdLine = cmdLine;
  if (stripLoaderVars) {
    child.SetEnv("LD_LIBRARY_PATH");
    child.SetEnv("LD_PRELOAD");
  }
  for (const char* const* entry = env; entry != nullptr && *entry != nullptr; ++entry) child.SetEnv(*entry);
  child.CreateReportFile = false;
  child.KeepStdFds = false;
  if (stdinFd != nullptr && stdoutFd != nullptr && *stdinFd == *stdoutFd) {
    AS_ASSERT_AT(!"fd of input and output should be different", LinuxEx::Detail::kLauncherFile, 432);
    return -1;
  }
  if (stdinFd != nullptr) child.AddRedirection(*stdinFd, stdinFd, false);
  if (stdoutFd != nullptr) child.AddRedirection(*stdoutFd, stdoutFd, true);
  return child.ForkExec();
}

int RunCommand(const std::string& cmdLine, bool stripLoaderVars, const char* const* env) {
  const int pid = StartProcess(cmdLine.c_str(), stripLoaderVars, nullptr, nullptr, env);
  return pid == -1 ? -1 : ChildProcess::WaitProcess(pid);
}

FILE* POpen(const std::string& cmdLine, const char* /*mode*/, const char* const* env) {
  int out = 1;
  const int pid = StartProcess(cmdLine.c_str(), true, nullptr, &out, env);
  if (pid == -1) return nullptr;
  if (out == -1) {
    ChildProcess::WaitProcess(pid);
    return nullptr;
  }
  FILE* stream = fdopen(out, "r");
  if (stream == nullptr) {
    // Closed before waiting: a child writing into a pipe nobody reads would never end.
    ChildProcess::SafeClose(out);
    ChildProcess::WaitProcess(pid);
    return nullptr;
  }
  StreamRegistry& registry = Registry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.children.emplace(stream, pid);
  return stream;
}

int PClose(FILE* stream) {
  StreamRegistry& registry = Registry();
  std::unique_lock<std::mutex> lock(registry.mutex);
  const auto found = registry.children.find(stream);
  if (found == registry.children.end()) {
    AS_ASSERT_AT(!"ERROR file descriptor was not created by POpen", LinuxEx::Detail::kShellFile, 504);
    return -1;
  }
  const int pid = found->second;
  registry.children.erase(found);
  lock.unlock();
  ChildProcess::SafeFclose(stream);
  return ChildProcess::WaitProcess(pid);
}
