#pragma once
// What the storage classes share: the place their errors name, trace codes, the
// label prefix, and the helpers for tools and sysfs.
#include <cstdint>
#include <string>

#include "core/common/error.h"
#include "core/common/ustring.h"

// Every error of the storage classes names this file, whichever source raised it.
#define AS_STORAGE_AT(function, line) \
  AS_LOCATION_AT("virtualization/common/storage/storage_manager", function, line)

namespace Virtualization {
namespace Appliance {
namespace Detail {

// Trace event codes: the manager, devices and partitions; unmount and labels.
constexpr int32_t kTraceStorage = 215;
constexpr int32_t kTraceLabels = 189;

// Every label the library writes starts with it.
extern const String kLabelPrefix;
bool HasLabelPrefix(const String& label);

// kErrorExternalCall for `command` that exited with `status`.
Common::Error ExternalCallError(const std::string& command, int status, const Common::ErrorLocation& where);

// "/dev/" and the device name, as one shell word.
std::string DevicePath(const String& name);

// The whole content of a sysfs file; throws the file layer's error.
std::string ReadSysfsFile(const std::string& path);
// The unsigned decimal before the first line feed; 0 (and an assertion) if none.
uint64_t ReadSysfsNumber(const std::string& content);

// Not empty, not "." or "..", no "/" and no NUL: a name that stays below its root.
bool IsSingleComponent(const String& name);

}  // namespace Detail
}  // namespace Appliance
}  // namespace Virtualization
