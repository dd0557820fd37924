#include "registry/impl/errors.h"

#include "core/common/unicode.h"
#include "processor/format/format_message.h"

namespace Registry {
namespace Detail {

Common::Error FileError(uint32_t code, TextFromMessageFile message, const std::string& path,
                        const Common::ErrorLocation& where) {
  return Common::Error(code, Core::FormatMessage(message, path), where, {{"path", path}});
}

Common::Error KeyError(uint32_t code, TextFromMessageFile message, const String& keyPath,
                       const Common::ErrorLocation& where) {
  return Common::Error(code, Core::FormatMessage(message, keyPath), where, {{"Key", Common::ToUtf8(keyPath)}});
}

Common::Error ValueError(uint32_t code, TextFromMessageFile message, const String& valueName,
                         const Common::ErrorLocation& where) {
  return Common::Error(code, Core::FormatMessage(message, valueName), where,
                       {{"Value", Common::ToUtf8(valueName)}});
}

}  // namespace Detail
}  // namespace Registry
