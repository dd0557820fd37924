#include "processor/utils/variant.h"

#include <utility>

namespace Processor {

namespace {
const char* const kTypeNames[Variant::kTypeCount] = {
    "TDate",   "TDouble",    "TLong",     "TULong", "TString",  "TLong64", "TULong64",
    "TInterface", "TBinary", "TIdentifier", "TBool", "TVariant", "TError",  "TEmpty"};
}  // namespace

ObjectInterface::~ObjectInterface() = default;

const char* Variant::GetTypeName(int32_t type) noexcept {
  return type >= 0 && type < kTypeCount ? kTypeNames[type] : "<unknown>";
}

bool Variant::GetTypeByName(std::string_view name, Type& type) noexcept {
  for (int32_t i = 0; i < kTypeCount; ++i)
    if (name == kTypeNames[i]) {
      type = static_cast<Type>(i);
      return true;
    }
  return false;
}

Variant::Variant(String value) noexcept : type_(TString), owned_(std::move(value)) {}

Variant::Variant(std::shared_ptr<const ObjectInterface> value) noexcept
    : type_(TInterface), object_(std::move(value)) {}

Variant Variant::MakeStringView(const unsigned short* text, size_t length) noexcept {
  Variant v;
  v.type_ = TString;
  v.borrowed_ = true;
  v.view_ = text;
  v.viewLength_ = text ? length : 0;
  return v;
}

Variant Variant::MakeIdentifier(std::string value) {
  Variant v;
  v.type_ = TIdentifier;
  v.identifier_ = std::move(value);
  return v;
}

Variant Variant::MakeBinary(std::vector<uint8_t> value) {
  Variant v;
  v.type_ = TBinary;
  v.binary_ = std::move(value);
  return v;
}

Variant Variant::MakeNested() noexcept {
  Variant v;
  v.type_ = TVariant;
  return v;
}

Variant::Variant(const Variant& other) = default;
Variant::Variant(Variant&& other) noexcept = default;
Variant& Variant::operator=(const Variant& other) = default;
Variant& Variant::operator=(Variant&& other) noexcept = default;
Variant::~Variant() = default;

}  // namespace Processor
