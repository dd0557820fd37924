#pragma once
// The place where an error or trace event arose. Every source file of the library is
// compiled with AS_SOURCE_NAME set to its path without extension
// ("core/linex/create_process"), so a reader of a trace finds the code at once.
#include <cstdint>
#include <type_traits>

#ifndef AS_SOURCE_NAME
#define AS_SOURCE_NAME "unknown"
#endif

namespace Common {

struct ErrorLocation {
  uint64_t tag = 0;              // stable identifier of the raising place
  const char* file = nullptr;    // static text
  const char* function = nullptr;  // static text
  int32_t line = 0;
};

// FNV-1a of the file name, mixed with the line: the same place gets the same tag in
// every build and on every machine.
constexpr uint64_t LocationTag(const char* file, int32_t line) {
  uint64_t h = 0xcbf29ce484222325ull;
  for (const char* p = file; *p; ++p) h = (h ^ static_cast<unsigned char>(*p)) * 0x100000001b3ull;
  h ^= static_cast<uint64_t>(static_cast<uint32_t>(line)) * 0x9E3779B97F4A7C15ull;
  return h ^ (h >> 29);
}

}  // namespace Common

// A place given explicitly: file, function and line are part of some errors' contract.
#define AS_LOCATION_AT(file, function, line)                                                   \
  ::Common::ErrorLocation {                                                                  \
    std::integral_constant<uint64_t, ::Common::LocationTag(file, line)>::value, file, function, \
        line                                                                                 \
  }
// This file, with the given function name and line.
#define AS_LOCATION(function, line) AS_LOCATION_AT(AS_SOURCE_NAME, function, line)
// Right here.
#define AS_HERE AS_LOCATION(__func__, __LINE__)
