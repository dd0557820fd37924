#include "core/linex/run_tool.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "core/linex/create_process.h"

namespace LinuxEx {
namespace {

// With SIGPIPE blocked in this thread, so that a reader that went away costs EPIPE only;
// a SIGPIPE that this write raised is taken back, one that was pending before is left.
void WriteAll(int fd, const std::string& data) {
  sigset_t pipe, old, pending;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, &old);
  sigpending(&pending);
  const bool wasPending = sigismember(&pending, SIGPIPE) == 1;
  bool broken = false;
  for (size_t done = 0; done < data.size();) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      broken = errno == EPIPE;
      break;
    }
    done += static_cast<size_t>(n);
  }
  if (broken && !wasPending) {
    const timespec now{};
    while (sigtimedwait(&pipe, nullptr, &now) == -1 && errno == EINTR) continue;
  }
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

std::string Word(const std::string& text) {
  static const char kPlain[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@%,=";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

}  // namespace

ToolRun RunTool(const std::vector<std::string>& argv, const std::string& input,
                const std::function<void(const std::string&)>& onOutput) {
  ToolRun run;
  ChildProcess child;
  child.Args = argv;
  child.SetEnv("LD_LIBRARY_PATH");
  child.SetEnv("LD_PRELOAD");
  int in = -1, out = -1;
  if (!input.empty()) child.AddRedirection(0, &in, false);
  child.AddRedirection(1, &out, true);
  if (child.ForkExec() == -1) return run;
  run.started = true;
  if (in >= 0) {
    WriteAll(in, input);
    ChildProcess::SafeClose(in);
  }
  char buffer[4096];
  for (ssize_t n; (n = ::read(out, buffer, sizeof buffer)) != 0;) {
    if (n > 0) {
      run.output.append(buffer, static_cast<size_t>(n));
      if (onOutput) onOutput(std::string(buffer, static_cast<size_t>(n)));
    } else if (errno != EINTR) {
      break;
    }
  }
  ChildProcess::SafeClose(out);
  run.status = child.Wait();
  return run;
}

std::string CommandText(const std::vector<std::string>& argv, const std::string& input) {
  std::string text;
  if (!input.empty()) {
    std::string format;
    for (const char c : input) format += c == '\n' ? "\\n" : c == '\\' ? "\\\\" : c == '%' ? "%%" : std::string(1, c);
    text = "printf " + Word(format) + " | ";
  }
  for (size_t i = 0; i < argv.size(); ++i) text += (i ? " " : "") + Word(argv[i]);
  return text;
}

}  // namespace LinuxEx
