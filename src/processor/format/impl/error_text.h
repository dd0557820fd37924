#pragma once
// Text forms of a Common::Error, shared by the "error" subformat, the simple
// subformat and the narrow engine.
#include "core/common/error.h"
#include "processor/format/impl/text_buffer.h"

namespace Processor {

enum class ErrorStyle { kFull, kCode, kTag, kMessage, kField };

// kFull: the error and each cause, each node as
//   "\n    0x<code>: <text>" "\n    <name> = <value>,..." "\n    <file> : <function>(<line>)"
// kField shows the field named `field`. "<unknown>" stands for what has no value.
void AppendErrorText(const Common::Error& error, ErrorStyle style, TextView field, TextBuffer& out);

}  // namespace Processor
