#pragma once
// Running the probe child and reading what it reports.
#include <unistd.h>

#include <map>
#include <sstream>
#include <string>

#include "core/linex/create_process.h"

namespace LinexTest {

inline std::string ReadAll(int fd) {
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<size_t>(n));
  close(fd);
  return text;
}

struct Result {
  int status = -2;
  std::string out;
};

// Runs the probe in `mode` (or the child as described) with its output on a pipe.
inline Result Probe(ChildProcess& child, const char* mode = nullptr) {
  if (mode) child.Args = {AS_CHILD_PROBE, mode};
  int out = -1;
  child.AddRedirection(1, &out, true);
  Result result;
  if (child.ForkExec() == -1) return result;
  result.out = ReadAll(out);
  result.status = child.Wait();
  return result;
}

// "<fd> <target>" lines of the probe's "fds" mode.
inline std::map<int, std::string> Descriptors(const std::string& text) {
  std::map<int, std::string> fds;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) fds[std::stoi(line)] = line.substr(line.find(' ') + 1);
  return fds;
}

}  // namespace LinexTest
