#pragma once
// An error and its causes as people read them, one line each, causes indented:
//
//   error 0x720023: Failed to initialize ... (virtualization/..., CreateBackupPartition, line 452)
//     cause 0x72004C: ...
//
// The first word is the caller's ("storagectl: error"). Inline, so that tools and
// bindings share it without a new export.
#include <cinttypes>
#include <cstdio>
#include <string>

#include "core/common/error.h"
#include "core/common/unicode.h"

namespace Common {

inline std::string ErrorChainText(const Error& error, const char* first = "error") {
  std::string text, indent;
  for (Error e = error; e; e = e.GetCause(), indent += "  ") {
    const ErrorLocation where = e.GetLocation();
    char code[16];
    std::snprintf(code, sizeof code, " 0x%06" PRIX32 ": ", e.GetCode());
    text += (text.empty() ? "" : "\n") + indent + (indent.empty() ? first : "cause") + code + ToUtf8(e.GetText()) +
            " (" + (where.file ? where.file : "?") + ", " + (where.function ? where.function : "?") + ", line " +
            std::to_string(where.line) + ")";
  }
  return text;
}

}  // namespace Common
