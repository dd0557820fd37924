#pragma once
// Levels of trace events. The library itself traces at 1 (debug information and
// entry/exit pairs), 2 (notices of partition operations) and 4 (errors).
#include <cstdint>

namespace Common {

enum EventLevel : int32_t {
  EventLevelDebug = 1,
  EventLevelNotice = 2,
  EventLevelWarning = 3,
  EventLevelError = 4,
  EventLevelCritical = 5,
  // The minimum level once the library starts to unload: nothing ordinary is traced.
  EventLevelShutdown = 6,
};

}  // namespace Common
