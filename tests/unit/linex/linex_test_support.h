#pragma once
// Running a child and reading what it prints.
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

// The standard output of `args` (by default the probe of descriptors), empty when it failed.
inline std::string Output(ChildProcess& child, std::vector<std::string> args = {AS_CHILD_PROBE}) {
  child.Args = std::move(args);
  int out = -1;
  child.AddRedirection(1, &out, true);
  if (child.ForkExec() == -1) return "";
  const std::string text = ReadAll(out);
  return child.Wait() == 0 ? text : "";
}

// The probe's lines by descriptor.
inline std::map<int, std::string> Descriptors(const std::string& text) {
  std::map<int, std::string> fds;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) fds[std::stoi(line)] = line.substr(line.find(' ') + 1);
  return fds;
}

}  // namespace LinexTest
