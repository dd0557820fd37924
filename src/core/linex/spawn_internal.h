#pragma once
// The vfork-style child. Everything it needs is prepared by the parent in a SpawnPlan;
// the child shares the parent's memory (the parent waits until it has executed or
// exited), so it only reads the plan and makes system calls.
#include <sys/types.h>

#include <cstddef>

namespace LinuxEx::Detail {

struct SpawnPlan {
  struct Dup {
    int from;  // child's end of a pipe
    int to;    // descriptor number in the child
  };
  const char* workDir = nullptr;           // chdir target, or null
  const Dup* dups = nullptr;               // redirections, ascending `to`
  size_t dupCount = 0;
  const int* parentEnds = nullptr;         // closed in the child
  size_t parentEndCount = 0;
  int* keep = nullptr;                     // room for dupCount + 1 descriptors
  bool keepStdFds = false;
  bool stderrToStdout = false;
  unsigned long openMax = 1024;            // last resort of the closing loop
  const char* path = nullptr;              // executed as is, or null for a PATH search
  const char* file = nullptr;              // searched for in `searchPath`
  const char* searchPath = nullptr;
  char* const* argv = nullptr;
  char* const* envp = nullptr;
};

// Starts the child: its pid, or -1 with errno. Any failure in the child before the
// program runs ends it with status 127.
pid_t SpawnChild(const SpawnPlan& plan);

// `attempt` on `file` in each element of `searchPath` (on `file` itself when it holds a
// "/"), as execvp looks: 0 at the first attempt that returns 0, else the errno that ends
// the search. Safe in the vfork-style child: no allocation, no locks, no library state.
int SearchPath(const char* file, const char* searchPath, int (*attempt)(const char* path, void* context),
               void* context);
// execve() of `file` as SearchPath finds it; returns the errno of the failure.
int ExecSearch(const char* file, const char* searchPath, char* const argv[], char* const envp[]);

}  // namespace LinuxEx::Detail
