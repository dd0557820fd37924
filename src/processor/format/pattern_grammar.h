#pragma once
// The grammar of message patterns, in one place for the format engine and for the
// catalogue compiler, which checks that a translation keeps the English placeholders:
//  - U+F800 is the quotation mark: it toggles quoting, and quoted units are literal;
//  - outside placeholders only "{" is special: it opens one;
//  - inside one, "{" opens a nested placeholder, "," starts the next segment
//    (argument, type, style, ...) and "}" closes the innermost.
//
// ScanPattern walks a pattern of UTF-16 units and tells `sink`, in order, of
//   Text(begin, end, depth)  a run of literal units; depth 0 is outside placeholders
//   Quote(depth)             a quotation mark
//   Open(at), Comma(at), Close(at)
// where positions are indexes into the pattern. It returns how the pattern ended.
#include <cstddef>

namespace Processor {

constexpr unsigned short kQuotationMark = 0xF800;

struct PatternEnd {
  size_t depth;  // placeholders left open
  bool quoted;   // a quotation left open
};

template <class Unit, class Sink>
PatternEnd ScanPattern(const Unit* pattern, size_t size, Sink& sink) {
  size_t depth = 0;
  bool quoted = false;
  const auto special = [&](Unit c) {
    if (static_cast<unsigned short>(c) == kQuotationMark) return true;
    return !quoted && (c == '{' || (depth > 0 && (c == '}' || c == ',')));
  };
  for (size_t i = 0; i < size; ++i) {
    const Unit c = pattern[i];
    if (!special(c)) {
      size_t end = i + 1;
      while (end < size && !special(pattern[end])) ++end;
      sink.Text(i, end, depth);
      i = end - 1;
    } else if (static_cast<unsigned short>(c) == kQuotationMark) {
      quoted = !quoted;
      sink.Quote(depth);
    } else if (c == '{') {
      ++depth;
      sink.Open(i);
    } else if (c == ',') {
      sink.Comma(i);
    } else {
      --depth;
      sink.Close(i);
    }
  }
  return {depth, quoted};
}

}  // namespace Processor
