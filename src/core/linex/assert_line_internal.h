#pragma once
// Assertions of the launcher and the shell services name a fixed file and line, so
// that a report reads the same whichever file holds the check.
#include "core/common/assert.h"

#define AS_ASSERT_AT(expr, file, line) AS_ASSERT_TEXT_AT((expr), #expr, file, line)
// The same with the reported text given apart from the checked expression.
#define AS_ASSERT_TEXT_AT(expr, text, file, line) \
  ((expr) ? static_cast<void>(0) : ::Common::AssertionFailed((text), (file), (line)))

namespace Linex {
constexpr const char* kLauncherFile = "core/linex/create_process";
constexpr const char* kShellFile = "core/linex/linux_misc";
}  // namespace Linex
