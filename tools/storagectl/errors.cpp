// Errors as the administrator sees them: every node of the chain with its place.
#include <cinttypes>
#include <string>

#include "core/common/error_chain.h"
#include "core/common/unicode.h"
#include "storagectl.h"

namespace Storagectl {
namespace {

const char* Or(const char* text) { return text ? text : "?"; }

}  // namespace

void PrintError(const Common::Error& error, std::FILE* out) {
  std::fprintf(out, "%s\n", Common::ErrorChainText(error, "storagectl: error").c_str());
}

Json ErrorJson(const Common::Error& e) {
  char code[16];
  std::snprintf(code, sizeof code, "0x%06" PRIX32, e.GetCode());
  const Common::ErrorLocation where = e.GetLocation();
  Json json = {{"code", code},
               {"text", Common::ToUtf8(e.GetText())},
               {"file", Or(where.file)},
               {"function", Or(where.function)},
               {"line", where.line}};
  if (const Common::Error cause = e.GetCause()) json["cause"] = ErrorJson(cause);
  return json;
}

}  // namespace Storagectl
