// The message format engine: parses a UTF-16 pattern one unit at a time and renders
// each placeholder through the subformat that its type keyword names.
#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "core/common/assert.h"
#include "core/common/unicode.h"
#include "processor/format/impl/formatters.h"
#include "processor/format/impl/message_format_impl.h"

namespace Processor {

namespace {

// One open placeholder. Its segments (from the argument number on) lie one after
// another in the shared arena; the last one runs to the arena's end.
struct Frame {
  int segment;
  size_t start[SEGMENT_COUNT];
};

// A stack of frames with room for ordinary nesting inside itself.
class FrameStack {
 public:
  bool empty() const noexcept { return size_ == 0; }
  size_t size() const noexcept { return size_; }
  Frame& back() noexcept { return data()[size_ - 1]; }
  Frame& operator[](size_t i) noexcept { return data()[i]; }
  void push(size_t start) {
    const Frame f{1, {0, start, 0, 0, 0}};
    if (spill_.empty() && size_ < kInline) {
      inline_[size_++] = f;
      return;
    }
    if (spill_.empty()) spill_.assign(inline_, inline_ + size_);
    spill_.push_back(f);
    ++size_;
  }
  void pop() noexcept {
    --size_;
    if (spill_.empty()) return;
    spill_.pop_back();
    if (size_ < kInline) {
      std::copy(spill_.begin(), spill_.end(), inline_);
      spill_.clear();
    }
  }

 private:
  static constexpr size_t kInline = 8;
  Frame* data() noexcept { return spill_.empty() ? inline_ : spill_.data(); }
  Frame inline_[kInline];
  std::vector<Frame> spill_;
  size_t size_ = 0;
};

Segments SegmentsOf(const Frame& f, const TextBuffer& arena) {
  Segments s;
  s.count = f.segment + 1;
  for (int k = SEGMENT_ARGUMENT; k <= f.segment; ++k)
    s.part[k] = arena.view(f.start[k], k < f.segment ? f.start[k + 1] : arena.size());
  return s;
}

}  // namespace

// ---- helpers shared by the subformats ---------------------------------------------------

TextView Trim(TextView text) noexcept {
  size_t b = 0, e = text.size;
  while (b < e && (text[b] == ' ' || text[b] == '\t')) ++b;
  while (e > b && (text[e - 1] == ' ' || text[e - 1] == '\t')) --e;
  return {text.data + b, e - b};
}

TextView Segments::Style() const noexcept { return count > SEGMENT_STYLE ? Trim(part[SEGMENT_STYLE]) : TextView{}; }

TextView Segments::Extra() const noexcept { return count > SEGMENT_EXTRA ? Trim(part[SEGMENT_EXTRA]) : TextView{}; }

bool Equals(TextView text, std::u16string_view literal) noexcept {
  return text.size == literal.size() &&
         std::equal(literal.begin(), literal.end(), text.data,
                    [](char16_t a, unsigned short b) { return static_cast<unsigned short>(a) == b; });
}

bool ParseUnsigned(TextView text, uint64_t& value) noexcept {
  size_t i = 0;
  while (i < text.size && (text[i] == ' ' || text[i] == '\t')) ++i;
  const size_t first = i;
  uint64_t v = 0;
  for (; i < text.size && text[i] >= '0' && text[i] <= '9'; ++i) {
    const unsigned digit = text[i] - '0';
    v = v > (std::numeric_limits<uint64_t>::max() - digit) / 10 ? std::numeric_limits<uint64_t>::max()
                                                                  : v * 10 + digit;
  }
  if (i == first) return false;
  value = v;
  return true;
}

// ---- the engine ---------------------------------------------------------------------------

MessageFormat::~MessageFormat() = default;

const MessageFormat& MessageFormat::Instance() { return FormatersHolder::Get().Engine(); }

MessageFormatImpl::MessageFormatImpl(const FormatersHolder& holder)
    : simple_(holder),
      number_(holder),
      date_(holder, SubformatDate::kDate),
      time_(holder, SubformatDate::kTime),
      dateTime_(holder, SubformatDate::kDateTime),
      choice_(holder),
      concord_(holder),
      error_(holder),
      size_(holder),
      ellipsis_(holder),
      pathEllipsis_(holder),
      timeSpan_(holder),
      keyed_{{u"number", 6, &number_},       {u"date", 4, &date_},
             {u"time", 4, &time_},           {u"date_time", 9, &dateTime_},
             {u"choice", 6, &choice_},       {u"concord", 7, &concord_},
             {u"error", 5, &error_},         {u"size", 4, &size_},
             {u"ellipsis", 8, &ellipsis_},   {u"path_ellipsis", 13, &pathEllipsis_},
             {u"time_span", 9, &timeSpan_}} {}

const SubformatBase* MessageFormatImpl::Find(TextView keyword) const noexcept {
  for (const Keyed& k : keyed_)
    if (Equals(keyword, std::u16string_view(k.keyword, k.length))) return k.subformat;
  return nullptr;
}

int32_t MessageFormatImpl::Format(unsigned short* buffer, int32_t size, const unsigned short* pattern,
                                  int32_t length, const Variant* args, int32_t count) const {
  TextBuffer out;
  size_t n = 0;
  if (pattern != nullptr) n = length < 0 ? Common::Length(pattern) : static_cast<size_t>(length);
  FormatTo(out, {pattern, n}, args, args != nullptr && count > 0 ? static_cast<size_t>(count) : 0);
  if (buffer != nullptr && size > 0) {
    const size_t room = static_cast<size_t>(size);
    std::memcpy(buffer, out.data(), std::min(out.size(), room) * sizeof(unsigned short));
    if (out.size() < room) buffer[out.size()] = 0;
  }
  return out.size() > static_cast<size_t>(std::numeric_limits<int32_t>::max())
             ? std::numeric_limits<int32_t>::max()
             : static_cast<int32_t>(out.size());
}

// Nested placeholders are kept on an explicit stack rather than the call stack, so
// that nesting of any depth costs heap, not stack.
void MessageFormatImpl::FormatTo(TextBuffer& out, TextView pattern, const Variant* args, size_t count) const {
  struct Renderer {
    const MessageFormatImpl& engine;
    TextBuffer& out;
    TextView pattern;
    const Variant* args;
    size_t count;
    TextBuffer arena;    // segments 1..4 of every open placeholder
    TextBuffer scratch;  // the rendering of a nested placeholder
    FrameStack frames;
    size_t textStart;  // where segment 0 of the current placeholder begins

    void Text(size_t begin, size_t end, size_t depth) {
      (depth > 0 ? arena : out).append(pattern.data + begin, end - begin);
    }
    // Outside placeholders the mark is dropped; inside, the subformat sees it.
    void Quote(size_t depth) {
      if (depth > 0) arena.push_back(kQuotationMark);
    }
    void Open(size_t) { frames.push(arena.size()); }
    void Comma(size_t) {
      Frame& f = frames.back();
      if (f.segment < SEGMENT_EXTRA) f.start[++f.segment] = arena.size();
    }
    void Close(size_t) {
      const Frame& f = frames.back();
      if (frames.size() == 1) {
        engine.Render(SegmentsOf(f, arena), args, count, out);
        arena.clear();
        frames.pop();
        textStart = out.size();
        return;
      }
      scratch.clear();
      engine.Render(SegmentsOf(f, arena), args, count, scratch);
      arena.resize(f.start[SEGMENT_ARGUMENT]);
      frames.pop();
      arena.append(scratch.view());  // onto the enclosing placeholder's segment
    }
  } r{*this, out, pattern, args, count, {}, {}, {}, out.size()};
  ScanPattern(pattern.data, pattern.size, r);

  FrameStack& frames = r.frames;
  TextBuffer& arena = r.arena;
  if (frames.empty()) return;
  // The pattern ended inside placeholders: each unfinished one gives its current
  // segment to the one around it, and the outermost its current segment to the
  // output in place of the literal text before it.
  Common::AssertionFailed("part==0", AS_SOURCE_NAME, __LINE__);
  for (size_t level = frames.size() - 1; level > 0; --level) {
    const Frame& inner = frames[level];
    const size_t from = inner.start[inner.segment];
    const size_t to = inner.start[SEGMENT_ARGUMENT];
    std::memmove(arena.data() + to, arena.data() + from, (arena.size() - from) * sizeof(unsigned short));
    arena.resize(to + arena.size() - from);
  }
  const Frame& outer = frames[0];
  out.resize(r.textStart);
  out.append(arena.view(outer.start[outer.segment], arena.size()));
}

void MessageFormatImpl::Render(const Segments& segments, const Variant* args, size_t count,
                               TextBuffer& out) const {
  const TextView argument = segments[SEGMENT_ARGUMENT];
  if (argument.empty()) Common::AssertionFailed("!segments[SEGMENT_ARGUMENT].empty()", AS_SOURCE_NAME, __LINE__);
  uint64_t number = 0;
  if (!ParseUnsigned(argument, number) || number >= count) {
    out.push_back('{');
    out.append(argument);
    out.push_back('}');
    return;
  }
  const Variant& value = args[number];
  if (segments.count <= SEGMENT_TYPE) {
    simple_.Format(value, out, segments);
    return;
  }
  const SubformatBase* subformat = Find(Trim(segments[SEGMENT_TYPE]));
  if (subformat == nullptr) {
    Common::AssertionFailed("false", AS_SOURCE_NAME, __LINE__);
    return;
  }
  subformat->Format(value, out, segments);
}

}  // namespace Processor
