#pragma once
// Running the probe child and reading what it reports.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

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

// The probe's report in `mode`, empty when it could not run or failed.
inline std::string Probe(ChildProcess& child, const char* mode) {
  child.Args = {AS_CHILD_PROBE, mode};
  int out = -1;
  child.AddRedirection(1, &out, true);
  if (child.ForkExec() == -1) return "";
  const std::string text = ReadAll(out);
  return child.Wait() == 0 ? text : "";
}

// "<fd> <target>" lines of the probe's "fds" mode.
inline std::map<int, std::string> Descriptors(const std::string& text) {
  std::map<int, std::string> fds;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) fds[std::stoi(line)] = line.substr(line.find(' ') + 1);
  return fds;
}

}  // namespace LinexTest
