#pragma once
// The library's UTF-16 string: names, labels, mount roots and paths of the exported
// interface are held in it.
#include <string>

namespace Common {
using String = std::basic_string<unsigned short>;
}  // namespace Common

// Shorter spelling used across the library's own code.
using String = Common::String;
