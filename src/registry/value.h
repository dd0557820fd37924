#pragma once
// The typed values that registry keys hold.
#include <cstdint>
#include <variant>
#include <vector>

#include "core/common/ustring.h"

namespace Registry {

using MultiString = std::vector<String>;
using Binary = std::vector<uint8_t>;

// The alternatives' order is the order of ValueType.
using Value = std::variant<String, MultiString, uint32_t, uint64_t, Binary>;

enum class ValueType { kString, kMultiString, kDword, kQword, kBinary };

inline ValueType TypeOf(const Value& value) noexcept { return static_cast<ValueType>(value.index()); }

}  // namespace Registry
