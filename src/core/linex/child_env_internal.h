#pragma once
// The environment handed to a child, built in the parent from its own environment and
// the overrides ("NAME=VALUE" sets, "NAME" removes).
#include <string>
#include <string_view>
#include <vector>

namespace LinuxEx::Detail {

// The name of an environment entry or override: the text before the first "=".
std::string_view EnvName(std::string_view entry);

// Inherited entries keep their order (entries without "=" are dropped); an override
// replaces or removes the first inherited entry of its name, the last such override
// deciding; unused overrides that set something are appended.
std::vector<std::string> BuildChildEnvironment(char* const* parent, bool inherit,
                                               const std::vector<std::string>& overrides);

}  // namespace LinuxEx::Detail
