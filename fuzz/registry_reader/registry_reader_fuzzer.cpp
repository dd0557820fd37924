// Arbitrary bytes as a registry file. Whatever parses must also survive being written
// back: the written document parses to the same tree and writes the same bytes.
#include <cstddef>
#include <cstdint>
#include <string>

#include "core/common/unicode.h"
#include "registry/document.h"

namespace {

bool SameTree(const Registry::KeyNode& a, const Registry::KeyNode& b) {
  if (a.values != b.values || a.children.size() != b.children.size()) return false;
  for (auto i = a.children.begin(), j = b.children.begin(); i != a.children.end(); ++i, ++j)
    if (i->first != j->first || !SameTree(*i->second, *j->second)) return false;
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Registry::KeyNode root;
  if (Registry::ParseRegistryDocument(reinterpret_cast<const char*>(data), size, "fuzz", root)) return 0;
  const String rootName = Common::Str(u"HKEY_LOCAL_MACHINE");
  const std::string written = Registry::SerializeRegistryDocument(root, rootName);
  Registry::KeyNode again;
  if (Registry::ParseRegistryDocument(written.data(), written.size(), "fuzz", again)) __builtin_trap();
  if (!SameTree(root, again) || Registry::SerializeRegistryDocument(again, rootName) != written) __builtin_trap();
  return 0;
}
