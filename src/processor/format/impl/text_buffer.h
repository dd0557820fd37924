#pragma once
// A growable UTF-16 text with room for a typical message inside the object itself,
// so that formatting an ordinary pattern touches the heap once at most (for the
// result that the caller keeps).
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "core/common/ustring.h"

namespace Processor {

// A piece of UTF-16 text that someone else owns.
struct TextView {
  const unsigned short* data = nullptr;
  size_t size = 0;

  bool empty() const noexcept { return size == 0; }
  unsigned short operator[](size_t i) const noexcept { return data[i]; }
  const unsigned short* begin() const noexcept { return data; }
  const unsigned short* end() const noexcept { return data + size; }
};

class TextBuffer {
 public:
  TextBuffer() noexcept = default;
  TextBuffer(const TextBuffer&) = delete;
  TextBuffer& operator=(const TextBuffer&) = delete;
  ~TextBuffer() {
    if (data_ != inline_) std::free(data_);
  }

  size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  const unsigned short* data() const noexcept { return data_; }
  unsigned short* data() noexcept { return data_; }
  TextView view() const noexcept { return {data_, size_}; }
  TextView view(size_t from, size_t to) const noexcept { return {data_ + from, to - from}; }
  String str() const { return String(data_, size_); }

  void clear() noexcept { size_ = 0; }
  void resize(size_t n) {  // shrinking only, or growing with unspecified units
    reserve(n);
    size_ = n;
  }

  void push_back(unsigned short unit) {
    if (size_ == capacity_) Grow(size_ + 1);
    data_[size_++] = unit;
  }
  void append(const unsigned short* text, size_t n) {
    if (n == 0) return;
    reserve(size_ + n);
    std::memcpy(data_ + size_, text, n * sizeof(unsigned short));
    size_ += n;
  }
  void append(TextView text) { append(text.data, text.size); }
  void append(const String& text) { append(text.data(), text.size()); }
  void append(const char16_t* text, size_t n) { append(reinterpret_cast<const unsigned short*>(text), n); }
  void append(std::u16string_view text) { append(text.data(), text.size()); }
  // ASCII (or Latin-1) text, one unit a byte.
  void appendAscii(std::string_view text) {
    reserve(size_ + text.size());
    for (char c : text) data_[size_++] = static_cast<unsigned char>(c);
  }

  void reserve(size_t n) {
    if (n > capacity_) Grow(n);
  }

 private:
  static constexpr size_t kInline = 240;

  void Grow(size_t needed) {
    size_t capacity = capacity_ * 2;
    if (capacity < needed) capacity = needed;
    void* fresh = data_ == inline_ ? std::malloc(capacity * sizeof(unsigned short))
                                   : std::realloc(data_, capacity * sizeof(unsigned short));
    if (fresh == nullptr) throw std::bad_alloc();
    if (data_ == inline_) std::memcpy(fresh, inline_, size_ * sizeof(unsigned short));
    data_ = static_cast<unsigned short*>(fresh);
    capacity_ = capacity;
  }

  unsigned short inline_[kInline];
  unsigned short* data_ = inline_;
  size_t size_ = 0;
  size_t capacity_ = kInline;
};

}  // namespace Processor
