#pragma once
// Shell commands: every outside tool the library runs goes through these, on top of
// ChildProcess. Command lines are UTF-8 and run by "/bin/sh -c"; quoting is the
// caller's business. Unredirected standard descriptors of the child are "/dev/null".
//
// Exit status: 0..255 is the child's exit code; -1 means not started, not waited for,
// or killed by a signal; 127 means the child could not set itself up or run the shell
// (or, from the shell, that the command was not found). Nothing here throws.
//
// Threads: any thread may run commands. POpen streams are kept in a process-wide
// registry so that PClose can find their child; a slow child never blocks other
// threads' POpen or PClose.
#include <cstdio>
#include <string>

#include "core/common/export.h"

// Starts `cmdLine`. `stdinFd` / `stdoutFd`, when given, hold the child's descriptor
// number to connect to a pipe (normally 0 and 1) and receive the parent's end. With
// `stripLoaderVars` the child does not inherit LD_LIBRARY_PATH and LD_PRELOAD; `env`
// (null-terminated, may be null) adds overrides. Returns the pid, or -1; the caller
// reaps the child with ChildProcess::WaitProcess.
AS_EXPORT int StartProcess(const char* cmdLine, bool stripLoaderVars, int* stdinFd, int* stdoutFd,
                           const char* const* env);

// Runs `cmdLine` to its end and returns its exit status.
AS_EXPORT int RunCommand(const std::string& cmdLine, bool stripLoaderVars = false,
                         const char* const* env = nullptr);

// The standard output of `cmdLine` as a stream opened for reading, or null. The mode is
// ignored. LD_LIBRARY_PATH and LD_PRELOAD are always removed from the child.
AS_EXPORT FILE* POpen(const std::string& cmdLine, const char* mode, const char* const* env = nullptr);

// Closes a stream from POpen and returns its child's exit status. Any other stream is
// a programming error: it stays open and the result is -1.
AS_EXPORT int PClose(FILE* stream);
