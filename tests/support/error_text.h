#pragma once
// An error's text and its causes', a line each: the message of a failed check.
#include <sstream>
#include <string>

#include "core/common/error.h"
#include "core/common/unicode.h"

namespace TestSupport {

inline std::string ChainText(Common::Error e) {
  std::string text;
  for (; e; e = e.GetCause()) text += Common::ToUtf8(e.GetText()) + "\n";
  return text;
}

// "0x720023@370>0x720004(127)@371": the chain's codes, the storage code's lines, an outside
// call's exit status or an errno; "ok" for no error.
inline std::string ChainCodes(const Common::Error& e) {
  if (!e) return "ok";
  std::ostringstream out;
  out << "0x" << std::uppercase << std::hex << e.GetCode() << std::dec;
  if (e.GetCode() == 0x720004) out << "(" << e.GetNumericField("status") << ")";
  if (e.GetCode() == Common::Error::kPosixCode) out << "(" << e.GetNumericField("code") << ")";
  if (e.GetCode() >> 16 == 0x72) out << "@" << e.GetLocation().line;
  return e.GetCause() ? out.str() + ">" + ChainCodes(e.GetCause()) : out.str();
}

}  // namespace TestSupport
