#pragma once
// An error chain in short, for comparisons; Common::ErrorChainText for a failed check's message.
#include <sstream>
#include <string>

#include "core/common/error.h"
#include "core/common/error_chain.h"

namespace TestSupport {

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
