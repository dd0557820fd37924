#include "registry/impl/key_path.h"

#include "core/common/unicode.h"
#include "registry/roots.h"

namespace Registry {
namespace Detail {

String RootName(uint32_t handle) {
  switch (handle) {
    case HKEY_CLASSES_ROOT: return Common::Str(u"HKEY_CLASSES_ROOT");
    case HKEY_CURRENT_USER: return Common::Str(u"HKEY_CURRENT_USER");
    case HKEY_LOCAL_MACHINE: return Common::Str(u"HKEY_LOCAL_MACHINE");
    case HKEY_USERS: return Common::Str(u"HKEY_USERS");
    case HKEY_CURRENT_CONFIG: return Common::Str(u"HKEY_CURRENT_CONFIG");
    default: return String();
  }
}

bool SplitKeyPath(const String& path, std::vector<String>& names) {
  names.clear();
  if (path.empty()) return true;
  size_t start = 0;
  for (;;) {
    const size_t end = path.find('\\', start);
    const size_t stop = end == String::npos ? path.size() : end;
    if (stop == start) return false;
    names.push_back(path.substr(start, stop - start));
    if (end == String::npos) return true;
    start = end + 1;
  }
}

String JoinKeyPath(String base, const std::vector<String>& names) {
  for (const String& name : names) {
    base.push_back('\\');
    base += name;
  }
  return base;
}

}  // namespace Detail
}  // namespace Registry
