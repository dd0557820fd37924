#pragma once
// Assertions of the launcher and the shell services name a fixed file and line, so
// that a report reads the same whichever file holds the check.
#include "core/common/assert.h"

namespace LinuxEx::Detail {
constexpr const char* kLauncherFile = "core/linex/create_process";
constexpr const char* kShellFile = "core/linex/linux_misc";
}  // namespace LinuxEx::Detail
