// The "ellipsis" and "path_ellipsis" subformats: a text cut to the length given as
// the style, with "..." where text was left out.
#include <algorithm>

#include "processor/format/impl/formatters.h"

namespace Processor {

namespace {

constexpr char16_t kDots[] = u"...";
constexpr size_t kDotCount = 3;

bool IsLowSurrogate(unsigned short c) { return c >= 0xDC00 && c <= 0xDFFF; }
bool IsSeparator(unsigned short c) { return c == '/' || c == '\\'; }

// A cut before `at` that does not split a surrogate pair.
size_t CutBefore(TextView text, size_t at) {
  return at > 0 && at < text.size && IsLowSurrogate(text[at]) ? at - 1 : at;
}
// A cut after `from` (the start of a tail) that does not split a surrogate pair.
size_t CutAfter(TextView text, size_t from) {
  return from < text.size && IsLowSurrogate(text[from]) ? from + 1 : from;
}

// The limit of the style, or false when there is none.
bool Limit(const Segments& segments, size_t& limit) {
  uint64_t value = 0;
  if (segments.count <= SEGMENT_STYLE || !ParseUnsigned(segments[SEGMENT_STYLE], value)) return false;
  limit = static_cast<size_t>(std::min<uint64_t>(value, SIZE_MAX));
  return true;
}

void AppendMiddleCut(TextView text, size_t limit, TextBuffer& out) {
  if (limit <= kDotCount) return out.append(kDots, limit);
  const size_t keep = limit - kDotCount;
  const size_t head = CutBefore(text, (keep + 1) / 2);
  const size_t tail = CutAfter(text, text.size - keep / 2);
  out.append(text.data, head);
  out.append(kDots, kDotCount);
  out.append(text.data + tail, text.size - tail);
}

}  // namespace

void SubformatEllipsis::Format(const Variant& argument, TextBuffer& out, const Segments& segments) const {
  TextBuffer text;
  AppendSimple(holder_, argument, text);
  size_t limit = 0;
  if (!Limit(segments, limit) || text.size() <= limit) return out.append(text.view());
  if (limit <= kDotCount) return out.append(kDots, limit);
  out.append(text.data(), CutBefore(text.view(), limit - kDotCount));
  out.append(kDots, kDotCount);
}

// Keeps the first component and as many whole trailing components as fit:
// "/mnt/.../ZLM01/backups"; a path without such room is cut in the middle.
void SubformatPathEllipsis::Format(const Variant& argument, TextBuffer& out, const Segments& segments) const {
  TextBuffer buffer;
  AppendSimple(holder_, argument, buffer);
  const TextView path = buffer.view();
  size_t limit = 0;
  if (!Limit(segments, limit) || path.size <= limit) return out.append(path);

  size_t head = IsSeparator(path[0]) ? 1 : 0;
  while (head < path.size && !IsSeparator(path[head])) ++head;
  if (head < path.size) ++head;  // the head keeps its separator
  size_t tail = path.size;       // the best tail found so far starts here
  for (size_t at = path.size; at > head; --at) {
    if (!IsSeparator(path[at - 1])) continue;
    const size_t candidate = at - 1;
    if (head + kDotCount + (path.size - candidate) > limit) break;
    tail = candidate;
  }
  if (head >= path.size || tail == path.size || tail < head + 1) return AppendMiddleCut(path, limit, out);
  out.append(path.data, head);
  out.append(kDots, kDotCount);
  out.append(path.data + tail, path.size - tail);
}

}  // namespace Processor
