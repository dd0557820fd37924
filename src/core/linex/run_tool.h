#pragma once
// An outside tool run by argument vector, with no shell between: its standard input fed
// from a text (a tool's answers, such as gdisk's), its standard output kept whole, and
// its exit status. Standard error goes to "/dev/null"; LD_LIBRARY_PATH and LD_PRELOAD
// are not passed on.
#include <functional>
#include <string>
#include <vector>

namespace LinuxEx {

struct ToolRun {
  bool started = false;  // false: no child at all (out of processes, descriptors or memory)
  int status = -1;       // 0..255; -1 killed by a signal; 127 the program could not be run
  std::string output;    // standard output, whole; empty when not started
};

// `argv[0]` is searched in PATH. The input is written whole before the output is read:
// it is meant for answers that fit a pipe (64 KiB). A tool that exits without reading it
// costs nothing more (no SIGPIPE reaches the process).
// `onOutput`, when given, gets the output as it comes, a read at a time.
ToolRun RunTool(const std::vector<std::string>& argv, const std::string& input = std::string(),
                const std::function<void(const std::string& chunk)>& onOutput = nullptr);

// The command as an administrator would type it: words quoted where the shell would read
// them otherwise, and the input, when given, as "printf '...' | " in front.
std::string CommandText(const std::vector<std::string>& argv, const std::string& input = std::string());

}  // namespace LinuxEx
