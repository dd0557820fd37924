#pragma once
// The registry's errors, with the field that names their subject and a text from the
// message catalogue in which "{0}" is that subject.
#include <cstdint>
#include <string>

#include "core/common/error.h"
#include "core/common/message_text.h"

namespace Registry {
namespace Detail {

Common::Error FileError(uint32_t code, TextFromMessageFile message, const std::string& path,
                        const Common::ErrorLocation& where);
Common::Error KeyError(uint32_t code, TextFromMessageFile message, const String& keyPath,
                       const Common::ErrorLocation& where);
Common::Error ValueError(uint32_t code, TextFromMessageFile message, const String& valueName,
                         const Common::ErrorLocation& where);

}  // namespace Detail
}  // namespace Registry
