#pragma once
// Key paths: names joined by "\", below one of the predefined roots.
#include <cstdint>
#include <vector>

#include "core/common/ustring.h"

namespace Registry {
namespace Detail {

// "HKEY_LOCAL_MACHINE" for 0x80000002 and so on; empty for any other handle.
String RootName(uint32_t handle);

// Splits "a\b\c" into its names; "" has none. False when a name would be empty (a
// leading, trailing or doubled "\").
bool SplitKeyPath(const String& path, std::vector<String>& names);

// `base` followed by "\" and each name.
String JoinKeyPath(String base, const std::vector<String>& names);

}  // namespace Detail
}  // namespace Registry
