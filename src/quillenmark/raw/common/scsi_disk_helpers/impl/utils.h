#pragma once
// Every sysfs read and every scan, rescan and delete command of the disk subsystem
// goes through these two helpers, so that a sysfs problem is reported in the same
// words wherever it happens.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/common/error.h"

namespace SCSI {
namespace Detail {

// Up to `limit` bytes of `path`. Throws kErrorSysfsOpen when the file cannot be opened
// and kErrorSysfsRead when the read fails, with the file layer's error as cause.
std::string ReadFile(const std::string& path, size_t limit);

// Writes `command` into the sysfs file `path` in one write. Returns kErrorSysfsWrite
// with the file layer's error as cause when that fails or writes short.
Common::Error WriteCommand(const std::string& path, const std::string& command);

}  // namespace Detail
}  // namespace SCSI
