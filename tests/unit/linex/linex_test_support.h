#pragma once
// Running the probe child and reading what it reports.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <map>
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

inline std::string ReadStream(FILE* stream) {
  std::string text;
  for (int c; stream != nullptr && (c = std::fgetc(stream)) != EOF;) text += static_cast<char>(c);
  return text;
}

struct Result {
  int status = -2;
  std::string out;
};

// Runs the probe in `mode` with its output on a pipe.
inline Result Probe(ChildProcess& child, const char* mode) {
  child.Args = {AS_CHILD_PROBE, mode};
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
  for (size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    const size_t space = text.find(' ', at);
    fds[std::stoi(text.substr(at, space - at))] = text.substr(space + 1, end - space - 1);
  }
  return fds;
}

}  // namespace LinexTest
