#include "core/common/error.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>

#include "core/common/module.h"
#include "core/common/module_internal.h"
#include "core/common/unicode.h"

namespace Common {
namespace Detail {

struct ErrorKind;

// One node of an error chain. Immutable once shared: only `refs` changes, and
// `cause` is replaced only while the node has a single owner.
struct ErrorImpl {
  std::atomic<uint64_t> refs;
  uint32_t code;
  ErrorImpl* cause;
  const ErrorKind* kind;
  uint64_t tag;
  const char* file;
  const char* function;
  int32_t line;
  uint32_t size;   // bytes of the whole node; the errno in the POSIX kind
  uintptr_t text;  // below `size`: offset of the inline text; else a message-table pointer
};

// The operations of a node kind, in their fixed order.
struct ErrorKind {
  void (*destroy)(ErrorImpl* node);
  ErrorImpl* (*clone)(const ErrorImpl* node);
  String (*text)(const ErrorImpl* node);
  int64_t (*numericField)(const ErrorImpl* node, const char* name);
  const char* (*stringField)(const ErrorImpl* node, const char* name);
  const void* (*query)(const ErrorImpl* node);
  const char* (*fieldNames)(const ErrorImpl* node);
};

}  // namespace Detail

namespace {

using Detail::ErrorImpl;
using Detail::ErrorKind;

static_assert(sizeof(ErrorImpl) % alignof(std::max_align_t) == 0 || sizeof(ErrorImpl) % 8 == 0,
              "inline data after the node must stay aligned");

const char kModuleField[] = "$module";

// ---- storage -----------------------------------------------------------------------

ErrorImpl* Allocate(size_t bytes) noexcept {
  return static_cast<ErrorImpl*>(::operator new(bytes, std::nothrow));
}

void Free(ErrorImpl* node) noexcept { ::operator delete(node); }

size_t NodeBytes(const ErrorImpl* node);

ErrorImpl* CloneBytes(const ErrorImpl* node) {
  const size_t bytes = NodeBytes(node);
  ErrorImpl* copy = Allocate(bytes);
  if (copy == nullptr) return nullptr;
  // Everything but the count, which other threads may be changing right now.
  constexpr size_t kSkip = sizeof(std::atomic<uint64_t>);
  static_assert(offsetof(ErrorImpl, code) == kSkip, "the count comes first");
  std::memcpy(reinterpret_cast<char*>(copy) + kSkip, reinterpret_cast<const char*>(node) + kSkip, bytes - kSkip);
  new (&copy->refs) std::atomic<uint64_t>(1);
  copy->cause = nullptr;
  return copy;
}

const void* TextAddress(const ErrorImpl* node) {
  if (node->text == 0) return nullptr;
  if (node->text < node->size) return reinterpret_cast<const char*>(node) + node->text;
  return reinterpret_cast<const void*>(node->text);
}

// ---- operations shared by the kinds ---------------------------------------------------

String NoText(const ErrorImpl*) { return String(); }

String NarrowText(const ErrorImpl* node) {
  const char* text = static_cast<const char*>(TextAddress(node));
  return text ? Widen(text) : String();
}

String WideText(const ErrorImpl* node) {
  const auto* text = static_cast<const unsigned short*>(TextAddress(node));
  return text ? String(text, Length(text)) : String();
}

String PosixText(const ErrorImpl* node) {
  char buffer[256];
  // GNU strerror_r returns the text, which may or may not be in `buffer`.
  const char* text = strerror_r(static_cast<int>(node->size), buffer, sizeof buffer);
  return Widen(text ? text : "");
}

int64_t NoNumericField(const ErrorImpl*, const char*) { return 0; }

int64_t PosixNumericField(const ErrorImpl* node, const char* name) {
  return name && std::strcmp(name, "code") == 0 ? static_cast<int32_t>(node->size) : 0;
}

const char* ModuleField(const ErrorImpl*, const char* name) {
  return name && std::strcmp(name, kModuleField) == 0 ? _ErrorModuleName : nullptr;
}

const void* NoQuery(const ErrorImpl*) { return nullptr; }
const char* ModuleFieldNames(const ErrorImpl*) { return kModuleField; }
const char* PosixFieldNames(const ErrorImpl*) { return "code,$module"; }

// ---- fielded kind: named fields stored inline after the node ---------------------------

struct FieldRecord {
  const char* name;
  int64_t number;
  uint32_t valueOffset;  // from the node's start; 0 for numeric fields
  uint32_t numeric;
};

struct FieldTable {
  uint32_t count;
  uint32_t namesOffset;  // the comma-separated field list, from the node's start
  FieldRecord records[1];
};

const FieldTable* Fields(const ErrorImpl* node) {
  return reinterpret_cast<const FieldTable*>(reinterpret_cast<const char*>(node) + sizeof(ErrorImpl));
}

const FieldRecord* FindField(const ErrorImpl* node, const char* name) {
  if (name == nullptr) return nullptr;
  const FieldTable* table = Fields(node);
  for (uint32_t i = 0; i < table->count; ++i)
    if (std::strcmp(table->records[i].name, name) == 0) return &table->records[i];
  return nullptr;
}

int64_t FieldedNumericField(const ErrorImpl* node, const char* name) {
  const FieldRecord* field = FindField(node, name);
  return field && field->numeric ? field->number : 0;
}

const char* FieldedStringField(const ErrorImpl* node, const char* name) {
  const FieldRecord* field = FindField(node, name);
  if (field == nullptr) return ModuleField(node, name);
  return field->numeric ? nullptr : reinterpret_cast<const char*>(node) + field->valueOffset;
}

const char* FieldedFieldNames(const ErrorImpl* node) {
  return reinterpret_cast<const char*>(node) + Fields(node)->namesOffset;
}

// ---- the kinds ------------------------------------------------------------------------

ErrorImpl* Clone(const ErrorImpl* node) { return CloneBytes(node); }

constexpr ErrorKind kPlain{Free, Clone, NoText, NoNumericField, ModuleField, NoQuery, ModuleFieldNames};
constexpr ErrorKind kNarrow{Free, Clone, NarrowText, NoNumericField, ModuleField, NoQuery, ModuleFieldNames};
constexpr ErrorKind kWide{Free, Clone, WideText, NoNumericField, ModuleField, NoQuery, ModuleFieldNames};
constexpr ErrorKind kPosix{Free, Clone, PosixText, PosixNumericField, ModuleField, NoQuery, PosixFieldNames};
constexpr ErrorKind kFielded{Free, Clone, WideText, FieldedNumericField, FieldedStringField, NoQuery,
                             FieldedFieldNames};

size_t NodeBytes(const ErrorImpl* node) { return node->kind == &kPosix ? sizeof(ErrorImpl) : node->size; }

// Used when memory runs out. It holds a reference of its own, so it is never freed.
ErrorImpl gOutOfMemory{{1},      0xFFF1, nullptr, &kPosix, LocationTag("core/common/error", 0),
                       "core/common/error", "OutOfMemory", 0, ENOMEM, 0};

ErrorImpl* OutOfMemory() noexcept {
  gOutOfMemory.refs.fetch_add(1, std::memory_order_relaxed);
  return &gOutOfMemory;
}

void Init(ErrorImpl* node, uint32_t code, const ErrorKind* kind, const ErrorLocation& where,
          uint32_t size) {
  new (&node->refs) std::atomic<uint64_t>(1);
  node->code = code;
  node->cause = nullptr;
  node->kind = kind;
  node->tag = where.tag;
  node->file = where.file;
  node->function = where.function;
  node->line = where.line;
  node->size = size;
  node->text = 0;
}

// A node whose text is shared when it lies in the message table, else copied inline.
ErrorImpl* MakeTexted(uint32_t code, const void* text, size_t unit, const ErrorKind* kind,
                      const ErrorLocation& where) noexcept {
  if (text != nullptr && Common::Detail::IsInCurrentMessageTable(text, 1)) {
    ErrorImpl* node = Allocate(sizeof(ErrorImpl));
    if (node == nullptr) return OutOfMemory();
    Init(node, code, kind, where, sizeof(ErrorImpl));
    node->text = reinterpret_cast<uintptr_t>(text);
    return node;
  }
  size_t bytes = 0;
  if (text != nullptr)
    bytes = unit == 1 ? std::strlen(static_cast<const char*>(text)) + 1
                      : (Length(static_cast<const unsigned short*>(text)) + 1) * 2;
  ErrorImpl* node = Allocate(sizeof(ErrorImpl) + bytes);
  if (node == nullptr) return OutOfMemory();
  Init(node, code, kind, where, static_cast<uint32_t>(sizeof(ErrorImpl) + bytes));
  if (text != nullptr) {
    std::memcpy(reinterpret_cast<char*>(node) + sizeof(ErrorImpl), text, bytes);
    node->text = sizeof(ErrorImpl);
  }
  return node;
}

ErrorImpl* MakePosix(int err, const ErrorLocation& where) noexcept {
  ErrorImpl* node = Allocate(sizeof(ErrorImpl));
  if (node == nullptr) return OutOfMemory();
  Init(node, Error::kPosixCode, &kPosix, where, static_cast<uint32_t>(err));
  return node;
}

ErrorImpl* MakeFielded(uint32_t code, const String& text, const ErrorLocation& where,
                       std::initializer_list<ErrorField> fields) noexcept {
  const size_t count = fields.size();
  size_t bytes = offsetof(FieldTable, records) + sizeof(FieldRecord) * (count ? count : 1);
  const size_t textOffset = sizeof(ErrorImpl) + bytes;
  bytes += (text.size() + 1) * 2;
  const size_t namesOffset = sizeof(ErrorImpl) + bytes;
  for (const ErrorField& f : fields) bytes += std::strlen(f.name) + 1;
  bytes += sizeof kModuleField;
  for (const ErrorField& f : fields) bytes += f.numeric ? 0 : f.text.size() + 1;

  ErrorImpl* node = Allocate(sizeof(ErrorImpl) + bytes);
  if (node == nullptr) return OutOfMemory();
  Init(node, code, &kFielded, where, static_cast<uint32_t>(sizeof(ErrorImpl) + bytes));
  char* base = reinterpret_cast<char*>(node);
  auto* table = reinterpret_cast<FieldTable*>(base + sizeof(ErrorImpl));
  table->count = static_cast<uint32_t>(count);
  table->namesOffset = static_cast<uint32_t>(namesOffset);
  std::memcpy(base + textOffset, text.c_str(), (text.size() + 1) * 2);
  node->text = textOffset;

  char* names = base + namesOffset;
  for (const ErrorField& f : fields) {
    const size_t n = std::strlen(f.name);
    std::memcpy(names, f.name, n);
    names[n] = ',';
    names += n + 1;
  }
  std::memcpy(names, kModuleField, sizeof kModuleField);
  char* values = names + sizeof kModuleField;

  uint32_t i = 0;
  for (const ErrorField& f : fields) {
    FieldRecord& r = table->records[i++];
    r.name = f.name;
    r.number = f.number;
    r.numeric = f.numeric;
    r.valueOffset = 0;
    if (!f.numeric) {
      r.valueOffset = static_cast<uint32_t>(values - base);
      std::memcpy(values, f.text.data(), f.text.size());
      values[f.text.size()] = '\0';
      values += f.text.size() + 1;
    }
  }
  return node;
}

void AddRef(ErrorImpl* node) noexcept {
  if (node) node->refs.fetch_add(1, std::memory_order_relaxed);
}

// Iterative, so that a chain of any length is released without deep recursion.
void Release(ErrorImpl* node) noexcept {
  while (node != nullptr) {
    if (node->refs.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    ErrorImpl* cause = node->cause;
    node->kind->destroy(node);
    node = cause;
  }
}

}  // namespace

Error::Error(uint32_t code, const ErrorLocation& where) noexcept {
  if (code == 0) return;
  impl_ = MakeTexted(code, nullptr, 1, &kPlain, where);
}

Error::Error(uint32_t code, const char* text, const ErrorLocation& where) noexcept {
  if (code == 0) return;
  impl_ = MakeTexted(code, text, 1, &kNarrow, where);
}

Error::Error(uint32_t code, const unsigned short* text, const ErrorLocation& where) noexcept {
  if (code == 0) return;
  impl_ = MakeTexted(code, text, 2, &kWide, where);
}

Error::Error(uint32_t code, const String& text, const ErrorLocation& where) noexcept
    : Error(code, text.c_str(), where) {}

Error::Error(uint32_t code, const String& text, const ErrorLocation& where,
             std::initializer_list<ErrorField> fields) noexcept {
  if (code == 0) return;
  impl_ = MakeFielded(code, text, where, fields);
}

Error::Error(const Error& other) noexcept : impl_(other.impl_) { AddRef(impl_); }

Error::Error(Error&& other) noexcept : impl_(other.impl_) { other.impl_ = nullptr; }

Error& Error::operator=(const Error& other) noexcept {
  if (this != &other) {
    AddRef(other.impl_);
    Release(impl_);
    impl_ = other.impl_;
  }
  return *this;
}

Error& Error::operator=(Error&& other) noexcept {
  if (this != &other) {
    Release(impl_);
    impl_ = other.impl_;
    other.impl_ = nullptr;
  }
  return *this;
}

Error::~Error() { Release(impl_); }

void Error::DummyVirtualMethod() {}

namespace Detail {

struct ErrorAccess {
  static Error Adopt(ErrorImpl* node) noexcept {
    Error e;
    e.impl_ = node;
    return e;
  }

  // Makes `cause` (one reference of which the caller hands over) the cause of `e`'s
  // head: in place when `e` owns the head alone, else on a copy of the head.
  static void Attach(Error& e, ErrorImpl* cause) noexcept {
    ErrorImpl* head = e.impl_;
    if (head->refs.load(std::memory_order_acquire) == 1) {
      ErrorImpl* old = head->cause;
      head->cause = cause;
      Release(old);
      return;
    }
    ErrorImpl* copy = head->kind->clone(head);
    if (copy == nullptr) {
      Release(cause);
      return;
    }
    copy->cause = cause;
    Release(head);
    e.impl_ = copy;
  }
};

}  // namespace Detail

Error& Error::AddPosixError(int err, const ErrorLocation& where) noexcept {
  ErrorImpl* posix = MakePosix(err, where);
  if (impl_ == nullptr)
    impl_ = posix;
  else
    Detail::ErrorAccess::Attach(*this, posix);
  return *this;
}

Error& Error::SetCause(const Error& cause) noexcept {
  AddRef(cause.impl_);
  if (impl_ == nullptr)
    impl_ = cause.impl_;
  else
    Detail::ErrorAccess::Attach(*this, cause.impl_);
  return *this;
}

Error Error::WithCause(const Error& cause) && noexcept {
  SetCause(cause);
  return std::move(*this);
}

Error Error::WithCause(const Error& cause) const& noexcept {
  Error copy(*this);
  copy.SetCause(cause);
  return copy;
}

uint32_t Error::GetCode() const noexcept { return impl_ ? impl_->code : 0; }

String Error::GetText() const { return impl_ ? impl_->kind->text(impl_) : String(); }

int64_t Error::GetNumericField(const char* name) const noexcept {
  return impl_ ? impl_->kind->numericField(impl_, name) : 0;
}

const char* Error::GetStringField(const char* name) const noexcept {
  return impl_ ? impl_->kind->stringField(impl_, name) : nullptr;
}

const char* Error::GetFieldNames() const noexcept { return impl_ ? impl_->kind->fieldNames(impl_) : ""; }

Error Error::GetCause() const noexcept {
  if (impl_ == nullptr || impl_->cause == nullptr) return Error();
  AddRef(impl_->cause);
  return Detail::ErrorAccess::Adopt(impl_->cause);
}

ErrorLocation Error::GetLocation() const noexcept {
  if (impl_ == nullptr) return ErrorLocation{};
  return ErrorLocation{impl_->tag, impl_->file, impl_->function, impl_->line};
}

const void* Error::GetTextAddress() const noexcept { return impl_ ? TextAddress(impl_) : nullptr; }

}  // namespace Common
