#pragma once
// What the storage classes share: the place their errors name, trace codes, the
// label prefix, and the helpers for tools and sysfs.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "core/common/error.h"
#include "core/common/ustring.h"
#include "core/common/trace_codes.h"

// Every error of the storage classes names this file, whichever source raised it.
#define AS_STORAGE_AT(function, line) \
  AS_LOCATION_AT("virtualization/common/storage/storage_manager", function, line)

namespace Virtualization {
namespace Appliance {
namespace Detail {

// Trace event codes: the manager, devices and partitions; unmount and labels.
constexpr int32_t kTraceStorage = TraceCodes::kStorage;
constexpr int32_t kTraceLabels = TraceCodes::kLabels;

// Every label the library writes starts with it.
extern const String kLabelPrefix;
bool HasLabelPrefix(const String& label);

// Runs the tool `argv` with `input` on its standard input, no shell between. Returns
// kErrorExternalCall when it did not end with status 0: the command as an administrator
// would type it in the text, the exit status (-1 not started or killed, 127 not found)
// as the field "status".
Common::Error RunTool(const std::vector<std::string>& argv, const Common::ErrorLocation& where,
                      const std::string& input = std::string(),
                      const std::function<void(const std::string&)>& onOutput = nullptr);

// "/dev/" and the device name.
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
