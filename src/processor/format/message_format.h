#pragma once
// Processor::MessageFormat: the engine behind Core::FormatString for UTF-16 patterns.
//
// A pattern holds numbered placeholders, "{0}", optionally typed and styled:
// "{0,number,hex}", "{1,choice,0#none|1#one|1<{1} files}", "{2,error,code}". The
// quotation mark is U+F800; quoted text is taken as it is ("{" and "," included).
// Malformed patterns never fail: unknown argument numbers are echoed, unknown
// keywords render nothing.
//
// The engine is process-wide and thread-safe; it is torn down at library unload.
#include <cstdint>

#include "core/common/export.h"
#include "processor/format/pattern_grammar.h"
#include "processor/utils/variant.h"

namespace Processor {

class AS_EXPORT MessageFormat {
 public:
  virtual ~MessageFormat();

  // Renders `pattern` (`length` units; a negative length means NUL-terminated) with
  // `args`, copies as much of the result as fits into `buffer` (`size` units),
  // terminating it when there is room, and returns the full length of the result,
  // so that a caller can retry with a larger buffer.
  virtual int32_t Format(unsigned short* buffer, int32_t size, const unsigned short* pattern,
                         int32_t length, const Variant* args, int32_t count) const = 0;

  // The process-wide engine.
  static const MessageFormat& Instance();
};

}  // namespace Processor
