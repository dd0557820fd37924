#include "registry/impl/errors.h"

#include "core/common/unicode.h"

namespace Registry {
namespace Detail {
namespace {

String Fill(TextFromMessageFile message, const String& subject) {
  const unsigned short* pattern = GetTextFromMessageFile(message);
  String text = pattern ? String(pattern) : String();
  const String marker = Common::Str(u"{0}");
  for (size_t at = text.find(marker); at != String::npos; at = text.find(marker, at + subject.size()))
    text.replace(at, marker.size(), subject);
  return text;
}

}  // namespace

Common::Error FileError(uint32_t code, TextFromMessageFile message, const std::string& path,
                        const Common::ErrorLocation& where) {
  return Common::Error(code, Fill(message, Common::FromUtf8(path)), where, {{"path", path}});
}

Common::Error KeyError(uint32_t code, TextFromMessageFile message, const String& keyPath,
                       const Common::ErrorLocation& where) {
  return Common::Error(code, Fill(message, keyPath), where, {{"Key", Common::ToUtf8(keyPath)}});
}

Common::Error ValueError(uint32_t code, TextFromMessageFile message, const String& valueName,
                         const Common::ErrorLocation& where) {
  return Common::Error(code, Fill(message, valueName), where, {{"Value", Common::ToUtf8(valueName)}});
}

}  // namespace Detail
}  // namespace Registry
