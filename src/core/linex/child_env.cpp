#include "core/linex/child_env_internal.h"

namespace LinuxEx::Detail {

std::string_view EnvName(std::string_view entry) { return entry.substr(0, entry.find('=')); }

std::vector<std::string> BuildChildEnvironment(char* const* parent, bool inherit,
                                               const std::vector<std::string>& overrides) {
  std::vector<bool> used(overrides.size(), false);
  std::vector<std::string> result;
  for (char* const* entry = inherit ? parent : nullptr; entry != nullptr && *entry != nullptr; ++entry) {
    const std::string_view text(*entry);
    const size_t eq = text.find('=');
    if (eq == std::string_view::npos) continue;
    const std::string_view name = text.substr(0, eq);
    const std::string* decided = nullptr;
    for (size_t i = 0; i < overrides.size(); ++i) {
      if (used[i] || EnvName(overrides[i]) != name) continue;
      used[i] = true;
      decided = &overrides[i];
    }
    if (decided == nullptr)
      result.emplace_back(text);
    else if (decided->find('=') != std::string::npos)
      result.push_back(*decided);
  }
  for (size_t i = 0; i < overrides.size(); ++i) {
    const std::string& o = overrides[i];
    if (!used[i] && !o.empty() && o[0] != '=' && o.find('=') != std::string::npos) result.push_back(o);
  }
  return result;
}

}  // namespace LinuxEx::Detail
