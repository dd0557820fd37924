#pragma once
// The predefined root keys, by their handle values.
#include <cstdint>

namespace Registry {

constexpr uint32_t HKEY_CLASSES_ROOT = 0x80000000;
constexpr uint32_t HKEY_CURRENT_USER = 0x80000001;
constexpr uint32_t HKEY_LOCAL_MACHINE = 0x80000002;
constexpr uint32_t HKEY_USERS = 0x80000003;
constexpr uint32_t HKEY_CURRENT_CONFIG = 0x80000005;

}  // namespace Registry
