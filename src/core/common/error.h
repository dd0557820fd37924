#pragma once
// Common::Error: the one value type in which every failure of the library travels.
//
// A handle is either empty (no error, code 0) or refers to an immutable chain of
// reference-counted nodes: the head is the error itself, each node may hold a cause.
// Each layer that catches an error adds one fact (its code, its message, its place)
// and keeps the inner error as the cause; a POSIX errno sits at the bottom.
//
//   Common::Error e(0x530123, text, AS_HERE);
//   e.AddPosixError(errno, AS_HERE);            // e's cause is now the errno
//   throw Common::Error(0x530040, outer, AS_HERE).WithCause(e);
//   AS_THROW(0x720022, text);                   // the same, thrown, in one line
//
// Construction never throws and never fails: when memory is exhausted the handle
// refers to a shared, preallocated out-of-memory node. A texted error costs one
// allocation; a text taken from the message-text block (GetTextFromMessageFile) is
// shared, not copied; code 0 costs nothing.
//
// Threads: handles to the same chain may be copied and destroyed on any thread
// (atomic counts, nodes never written once shared). One handle is not thread-safe.
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "core/common/error_location.h"
#include "core/common/export.h"
#include "core/common/ustring.h"

namespace Common {

namespace Detail {
struct ErrorImpl;
struct ErrorAccess;
}

// A named field of an error beyond its code and text ("path", "token", "Key").
struct ErrorField {
  const char* name;          // static text
  std::string_view text;     // UTF-8 value; copied into the error
  int64_t number = 0;        // value of a numeric field
  bool numeric = false;

  ErrorField(const char* n, std::string_view t) : name(n), text(t) {}
  ErrorField(const char* n, int64_t v) : name(n), number(v), numeric(true) {}
};

class [[nodiscard, gnu::visibility("default")]] Error {
 public:
  static constexpr uint32_t kPosixCode = 0xFFF1;

  Error() noexcept = default;
  Error(uint32_t code, const ErrorLocation& where) noexcept;
  Error(uint32_t code, const char* text, const ErrorLocation& where) noexcept;
  Error(uint32_t code, const unsigned short* text, const ErrorLocation& where) noexcept;
  Error(uint32_t code, const String& text, const ErrorLocation& where) noexcept;
  // An error with named fields; its field list is the given names, then "$module".
  Error(uint32_t code, const String& text, const ErrorLocation& where,
        std::initializer_list<ErrorField> fields) noexcept;

  Error(const Error& other) noexcept;
  Error(Error&& other) noexcept;
  Error& operator=(const Error& other) noexcept;
  Error& operator=(Error&& other) noexcept;
  virtual ~Error();
  virtual void DummyVirtualMethod();

  // Makes a POSIX node (code 0xFFF1, field "code" = err) and makes it this error's
  // cause, replacing any earlier cause. An empty handle becomes the POSIX error
  // itself. A head shared with other handles is copied first; they see no change.
  Error& AddPosixError(int err, const ErrorLocation& where) noexcept;
  // Makes `cause` this error's cause with the same replace and copy rules.
  Error& SetCause(const Error& cause) noexcept;
  Error WithCause(const Error& cause) && noexcept;
  Error WithCause(const Error& cause) const& noexcept;

  bool IsError() const noexcept { return impl_ != nullptr; }
  explicit operator bool() const noexcept { return impl_ != nullptr; }

  uint32_t GetCode() const noexcept;                       // 0 for an empty handle
  String GetText() const;                                  // empty if none
  int64_t GetNumericField(const char* name) const noexcept;  // 0 if no such field
  const char* GetStringField(const char* name) const noexcept;  // null if none
  const char* GetFieldNames() const noexcept;              // "code,$module"; "" if empty
  Error GetCause() const noexcept;
  ErrorLocation GetLocation() const noexcept;

  // Where the head's text is kept: inside the node, or in the message-text block.
  const void* GetTextAddress() const noexcept;
  // The head node, to tell whether two handles share it.
  const void* GetNode() const noexcept { return impl_; }

 private:
  friend struct Detail::ErrorAccess;
  Detail::ErrorImpl* impl_ = nullptr;
};

}  // namespace Common

// Throws an error raised right here: AS_THROW(0x720022, text);
#define AS_THROW(code, text) throw ::Common::Error((code), (text), AS_HERE)
