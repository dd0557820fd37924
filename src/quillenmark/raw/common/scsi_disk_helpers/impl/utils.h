#pragma once
// Every sysfs read and every scan, rescan and delete command of the disk subsystem
// goes through these two helpers, so that a sysfs problem is reported in the same
// words wherever it happens.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/error.h"
#include "core/common/message_text.h"

namespace SCSI {
namespace Detail {

// Reads at most `limit` bytes of `path` in one read into `buffer` (grown to at least
// `limit`) and returns the count. Throws 0x530123 when the file cannot be opened and
// 0x530124 when the read fails.
size_t ReadFile(const std::string& path, std::vector<uint8_t>& buffer, size_t limit);

// Writes `command` into the sysfs file `path` in one write. Returns 0x5300C6 with
// the file layer's error as cause when that fails or writes short.
Common::Error WriteCommand(const std::string& path, const std::string& command);

// An unsigned decimal number that is the whole of `text`.
bool ParseUnsigned(std::string_view text, uint32_t& value);

// Text of a module message.
String MessageText(TextFromMessageFile id);

}  // namespace Detail
}  // namespace SCSI
