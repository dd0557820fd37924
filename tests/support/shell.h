#pragma once
// A shell command's standard output, for tests that set a machine up or look at it with
// the system's tools. Through the library's launcher; the library itself runs no shell.
#include <string>

#include "core/linex/run_tool.h"

namespace TestSupport {

inline std::string Output(const std::string& command) { return LinuxEx::RunTool({"sh", "-c", command}).output; }

}  // namespace TestSupport
