#pragma once
#include <cstdint>

namespace Common {
namespace Detail {

enum AssertModeBits : uint32_t {
  kAssertBreak = 1,
  kAssertDebug = 2,
  kAssertLog = 4,
  kAssertEvent = 8,
  kAssertMsgBox = 16,
  kAssertAbort = 32,
  kAssertStack = 64,
  kAssertOff = 0xFFFFFFFFu,
};

// The mode that a value of ZEMLORA_SAFE_ASSERT selects.
uint32_t ParseAssertMode(const char* value) noexcept;

}  // namespace Detail
}  // namespace Common
