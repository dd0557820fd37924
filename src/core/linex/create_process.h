#pragma once
// ChildProcess: the library's one way to start an outside program.
//
// Describe what to run (a "/bin/sh -c" command line or an argument vector searched in
// PATH), which child descriptors are pipes back to the parent, and how the child's
// environment derives from the parent's; then ForkExec() and Wait().
//
//   ChildProcess p;
//   p.CmdLine = "blkid -o value -s UUID /dev/sdb1";
//   int out = -1;
//   p.AddRedirection(1, &out, true);    // out receives the parent's read end
//   if (p.ForkExec() != -1) { ...read out...; ChildProcess::SafeClose(out); p.Wait(); }
//
// The child sees descriptors 0, 1, 2 (on "/dev/null" unless redirected or KeepStdFds),
// its redirected descriptors, and nothing else; it starts with no blocked signal and
// default dispositions; any failure before the program runs ends it with status 127.
// Spawning is vfork-style: the child never copies the parent's page tables and closes
// descriptors with close_range, so its cost does not grow with the parent's memory or
// descriptor limit.
//
// Threads: any thread may start children at once; one object belongs to one thread.
// Pipe ends kept by the parent are close-on-exec, so they never leak into children
// that other threads start.
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "core/common/export.h"

enum ForkStatus : int32_t { FORK_STATUS_BEFORE = 0, FORK_STATUS_PARENT = 1, FORK_STATUS_CHILD = 2 };

// One redirected child descriptor.
struct FdRedirection {
  int32_t Fd = -1;              // number in the child
  int32_t* NewFd = nullptr;     // receives the parent's end of the pipe
  bool Output = false;          // true: the child writes, the parent reads
  int32_t Pipe[2] = {-1, -1};   // read end, write end
  ForkStatus Status = FORK_STATUS_BEFORE;
};

class AS_EXPORT ChildProcess {
 public:
  std::string CmdLine;                 // run by "/bin/sh -c"
  std::vector<std::string> Args;       // run directly; Args[0] is searched in PATH
  bool InheritEnv = true;
  std::vector<std::string> Env;        // "NAME=VALUE" sets, "NAME" removes
  std::map<int32_t, FdRedirection> Redirections;
  bool CreateReportFile = false;       // fresh $ZEMLORA_ERROR_REPORT_FILE for the child
  bool KeepStdFds = false;             // false: unredirected 0, 1, 2 go to "/dev/null"
  bool StderrToStdout = false;
  int32_t Pid = -1;
  bool WaitRequired = true;            // destroying an unwaited child is a programming error
  int32_t ReportFd = -1;
  std::string ReportPath;
  std::string WorkDir;

  ChildProcess();
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Adds an override; one with the same name (text before "=") is replaced in place.
  void SetEnv(const std::string& entry);
  // Connects child descriptor `fd` to a pipe whose parent end ForkExec() stores in
  // *newFd. A second redirection of the same descriptor is ignored.
  void AddRedirection(int32_t fd, int32_t* newFd, bool output);

  // Starts the child: its pid, or -1 (nothing started, every *NewFd set to -1).
  int32_t ForkExec();
  // Reaps the child: its exit code 0..255, or -1 (not started, killed by a signal).
  int32_t Wait();

  static int32_t WaitProcess(int32_t pid);
  // close() and fclose() of the C library itself, bypassing interposed versions. A bad
  // close is a programming error handled by $ZEMLORA_SAFE_CLOSE: unset or "abort"
  // aborts, "break" traps into a debugger, any other value only returns the failure.
  static int SafeClose(int fd);
  static int SafeFclose(FILE* stream);
  // execve() with a PATH search (PATH unset: the current directory, then the system
  // path). Returns -1 with errno set, and only on failure.
  static int ExecSearchPath(const char* file, char* const argv[], char* const envp[]);
  // The path that Args = {file} would run: found as ExecSearchPath looks; empty when none.
  static std::string FindProgram(const std::string& file);

 private:
  void CleanupRedirections();
  bool Reaped_ = false;
};
