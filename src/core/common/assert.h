#pragma once
// Internal consistency checks of the library. A failed check formats
// "Assertion failed: <expression>, file <file>, line <line>" and hands it to the
// assertion handler, which does nothing unless $ZEMLORA_SAFE_ASSERT asks for it:
// a hex bit set ("0x24") or words: break 1, debug 2, log 4, event 8, msgbox 16,
// abort 32, stack 64. With "log", $ZEMLORA_SAFE_ASSERT_LOGFILE names the log
// ("stdout", "stderr" or a path). Settings are read once per process.
#include <string>

#include "core/common/error_location.h"
#include "core/common/export.h"

namespace Common {

// Receives assertion texts (and stack traces) when the mode has bit 8.
using AssertEventCallback = void (*)(int category, int flags, int id, const char* text);
AS_EXPORT void SetAssertEventCallback(AssertEventCallback callback) noexcept;

// The handler: returns 0 when assertions are switched off by an unknown word, else 1.
AS_EXPORT int AssertionHandler(const char* text) noexcept;
AS_EXPORT void AssertionFailed(const char* expression, const char* file, int line) noexcept;

// The last text kept by the "debug" mode.
AS_EXPORT std::string GetAssertDebugBuffer();

}  // namespace Common

#define AS_ASSERT(expr) \
  ((expr) ? static_cast<void>(0) : ::Common::AssertionFailed(#expr, AS_SOURCE_NAME, __LINE__))
// A check whose report names a fixed line of this file, so that the report stays the
// same when the code around it moves.
#define AS_ASSERT_AT(expr, file, line) AS_ASSERT_TEXT_AT((expr), #expr, file, line)
// The same with the reported text given apart from the checked expression.
#define AS_ASSERT_TEXT_AT(expr, text, file, line) \
  ((expr) ? static_cast<void>(0) : ::Common::AssertionFailed((text), (file), (line)))
