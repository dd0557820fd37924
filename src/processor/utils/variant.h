#pragma once
// Processor::Variant: one typed argument of the message format engine.
//
// A variant is made for each argument of Core::FormatString and read by the
// subformats. The type tags are numbered in their declaration order, and their names
// ("TDate" ... "TEmpty") are also how a type is written as text.
//
// Strings may be borrowed (MakeStringView) to spare a copy while a call formats;
// such a variant must not outlive the text. Everything else is owned.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/error.h"
#include "core/common/export.h"
#include "core/common/ustring.h"

namespace Processor {

// A point in time for the "date", "time" and "date_time" subformats: milliseconds
// since 1970-01-01 00:00 UTC, as ICU counts them.
struct Date {
  double milliseconds = 0;
};

// An object of the object model that a variant can refer to. The simple subformat
// shows its "Name" property.
class AS_EXPORT ObjectInterface {
 public:
  virtual ~ObjectInterface();
  // Fills `value` and returns true when the object has the property.
  virtual bool GetProperty(const char* name, String& value) const = 0;
};

class AS_EXPORT Variant {
 public:
  enum Type : int32_t {
    TDate,
    TDouble,
    TLong,
    TULong,
    TString,
    TLong64,
    TULong64,
    TInterface,
    TBinary,
    TIdentifier,
    TBool,
    TVariant,
    TError,
    TEmpty,
  };
  static constexpr int32_t kTypeCount = TEmpty + 1;

  // "TDate" ... "TEmpty"; "<unknown>" for a number outside the list.
  static const char* GetTypeName(int32_t type) noexcept;
  // The inverse of GetTypeName; false when `name` is none of the tags.
  static bool GetTypeByName(std::string_view name, Type& type) noexcept;

  Variant() noexcept = default;
  explicit Variant(Date value) noexcept : type_(TDate) { number_.d = value.milliseconds; }
  explicit Variant(double value) noexcept : type_(TDouble) { number_.d = value; }
  explicit Variant(int32_t value) noexcept : type_(TLong) { number_.l = value; }
  explicit Variant(uint32_t value) noexcept : type_(TULong) { number_.ul = value; }
  explicit Variant(int64_t value) noexcept : type_(TLong64) { number_.l64 = value; }
  explicit Variant(uint64_t value) noexcept : type_(TULong64) { number_.ul64 = value; }
  explicit Variant(bool value) noexcept : type_(TBool) { number_.b = value; }
  explicit Variant(String value) noexcept;
  explicit Variant(const Common::Error& value) noexcept : type_(TError), error_(value) {}
  explicit Variant(std::shared_ptr<const ObjectInterface> value) noexcept;

  static Variant MakeStringView(const unsigned short* text, size_t length) noexcept;
  static Variant MakeIdentifier(std::string value);
  static Variant MakeBinary(std::vector<uint8_t> value);
  // A variant of type TVariant; it has no value that the engine can show.
  static Variant MakeNested() noexcept;

  Variant(const Variant& other);
  Variant(Variant&& other) noexcept;
  Variant& operator=(const Variant& other);
  Variant& operator=(Variant&& other) noexcept;
  ~Variant();

  Type GetType() const noexcept { return type_; }

  double GetDouble() const noexcept { return number_.d; }  // TDate, TDouble
  int32_t GetLong() const noexcept { return number_.l; }
  uint32_t GetULong() const noexcept { return number_.ul; }
  int64_t GetLong64() const noexcept { return number_.l64; }
  uint64_t GetULong64() const noexcept { return number_.ul64; }
  bool GetBool() const noexcept { return number_.b; }
  const unsigned short* GetStringData() const noexcept { return borrowed_ ? view_ : owned_.data(); }
  size_t GetStringLength() const noexcept { return borrowed_ ? viewLength_ : owned_.size(); }
  const std::string& GetIdentifier() const noexcept { return identifier_; }
  const std::vector<uint8_t>& GetBinary() const noexcept { return binary_; }
  const Common::Error& GetError() const noexcept { return error_; }
  const ObjectInterface* GetInterface() const noexcept { return object_.get(); }

  bool IsInteger() const noexcept {
    return type_ == TLong || type_ == TULong || type_ == TLong64 || type_ == TULong64;
  }

 private:
  Type type_ = TEmpty;
  bool borrowed_ = false;
  union {
    double d;
    int32_t l;
    uint32_t ul;
    int64_t l64;
    uint64_t ul64;
    bool b;
  } number_{0.0};
  const unsigned short* view_ = nullptr;
  size_t viewLength_ = 0;
  String owned_;
  std::string identifier_;
  std::vector<uint8_t> binary_;
  Common::Error error_;
  std::shared_ptr<const ObjectInterface> object_;
};

}  // namespace Processor
