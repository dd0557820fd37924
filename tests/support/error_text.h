#pragma once
// An error's text and its causes', a line each: the message of a failed check.
#include <string>

#include "core/common/error.h"
#include "core/common/unicode.h"

namespace TestSupport {

inline std::string ChainText(Common::Error e) {
  std::string text;
  for (; e; e = e.GetCause()) text += Common::ToUtf8(e.GetText()) + "\n";
  return text;
}

}  // namespace TestSupport
