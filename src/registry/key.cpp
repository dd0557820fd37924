#include "registry/key.h"

#include <cstdio>

#include "core/common/message_ids.h"
#include "core/common/unicode.h"
#include "registry/document.h"
#include "registry/errors.h"
#include "registry/impl/errors.h"
#include "registry/impl/key_path.h"
#include "registry/impl/registry_file.h"

namespace Registry {
namespace {

using Detail::KeyError;
using Detail::ValueError;

// The key at `names` below `root`; null when some key on the way is missing.
template <typename Node>
Node* Find(Node& root, const std::vector<String>& names) {
  Node* node = &root;
  for (const String& name : names) {
    auto child = node->children.find(name);
    if (child == node->children.end()) return nullptr;
    node = child->second.get();
  }
  return node;
}

// The names of a key's children or values, in their order.
template <typename Map>
std::vector<String> NamesOf(const Map& map) {
  std::vector<String> names;
  names.reserve(map.size());
  for (const auto& entry : map) names.push_back(entry.first);
  return names;
}

bool IsKeyName(const String& name) { return !name.empty() && name.find('\\') == String::npos; }

Detail::RegistryFile FileOf(uint32_t root) { return Detail::RegistryFile(Detail::RootName(root)); }

}  // namespace

Common::Error Key::OpenPredefined(uint32_t handle, Key& key) {
  if (Detail::RootName(handle).empty()) {
    char hex[16];
    snprintf(hex, sizeof hex, "0x%08X", handle);
    return KeyError(kErrorInvalidKey, Messages::RegistryInvalidKey, Common::Widen(hex), AS_HERE);
  }
  key = Key(handle, {});
  return Common::Error();
}

String Key::GetPath() const { return IsValid() ? Detail::JoinKeyPath(Detail::RootName(root_), names_) : String(); }

Common::Error Key::CheckValid() const {
  if (IsValid()) return Common::Error();
  return KeyError(kErrorInvalidKey, Messages::RegistryInvalidKey, String(), AS_HERE);
}

// This key's names followed by those of `path`.
Common::Error Key::Below(const String& path, std::vector<String>& names) const {
  std::vector<String> more;
  if (!Detail::SplitKeyPath(path, more) || names_.size() + more.size() > kMaxKeyDepth) {
    String full = GetPath();
    full.push_back('\\');
    return KeyError(kErrorInvalidKeyPath, Messages::RegistryInvalidKeyPath, full + path, AS_HERE);
  }
  names = names_;
  names.insert(names.end(), more.begin(), more.end());
  return Common::Error();
}

Common::Error Key::Read(const std::function<Common::Error(const KeyNode& root, const KeyNode& key)>& use) const {
  if (Common::Error error = CheckValid()) return error;
  KeyNode root;
  if (Common::Error error = FileOf(root_).Read(root)) return error;
  const KeyNode* node = Find(root, names_);
  if (node == nullptr) return KeyError(kErrorKeyNotFound, Messages::RegistryKeyNotFound, GetPath(), AS_HERE);
  return use(root, *node);
}

Common::Error Key::Change(const std::function<Common::Error(KeyNode& key, bool& changed)>& edit) const {
  if (Common::Error error = CheckValid()) return error;
  return FileOf(root_).Update([&](KeyNode& root, bool& changed) {
    KeyNode* node = Find(root, names_);
    if (node == nullptr) return KeyError(kErrorKeyNotFound, Messages::RegistryKeyNotFound, GetPath(), AS_HERE);
    return edit(*node, changed);
  });
}

Common::Error Key::Open(const String& path, Key& key) const {
  std::vector<String> names;
  if (Common::Error error = CheckValid()) return error;
  if (Common::Error error = Below(path, names)) return error;
  Common::Error error = Read([&](const KeyNode& root, const KeyNode&) {
    if (Find(root, names) != nullptr) return Common::Error();
    return KeyError(kErrorKeyNotFound, Messages::RegistryKeyNotFound, Detail::JoinKeyPath(Detail::RootName(root_), names),
                    AS_HERE);
  });
  if (error) return error;
  key = Key(root_, std::move(names));
  return Common::Error();
}

Common::Error Key::OpenChild(const String& name, Key& key) const {
  if (Common::Error error = CheckValid()) return error;
  if (!IsKeyName(name))
    return KeyError(kErrorInvalidKeyPath, Messages::RegistryInvalidKeyPath, Detail::JoinKeyPath(GetPath(), {name}),
                    AS_HERE);
  return Open(name, key);
}

Common::Error Key::CreateKeyRecursive(const String& path, Key& key) const {
  std::vector<String> names;
  if (Common::Error error = CheckValid()) return error;
  if (Common::Error error = Below(path, names)) return error;
  Common::Error error = Change([&](KeyNode& node, bool& changed) {
    KeyNode* at = &node;
    for (size_t i = names_.size(); i < names.size(); ++i) {
      std::unique_ptr<KeyNode>& child = at->children[names[i]];
      if (!child) {
        child = std::make_unique<KeyNode>();
        changed = true;
      }
      at = child.get();
    }
    return Common::Error();
  });
  if (error) return error;
  key = Key(root_, std::move(names));
  return Common::Error();
}

Common::Error Key::EnumerateChildren(std::vector<String>& names) const {
  return Read([&](const KeyNode&, const KeyNode& node) {
    names = NamesOf(node.children);
    return Common::Error();
  });
}

Common::Error Key::DeleteChild(const String& name) const {
  if (Common::Error error = CheckValid()) return error;
  const String childPath = Detail::JoinKeyPath(GetPath(), {name});
  if (!IsKeyName(name)) return KeyError(kErrorInvalidKeyPath, Messages::RegistryInvalidKeyPath, childPath, AS_HERE);
  return Change([&](KeyNode& node, bool& changed) {
    if (node.children.erase(name) == 0)
      return KeyError(kErrorKeyNotFound, Messages::RegistryKeyNotFound, childPath, AS_HERE);
    changed = true;
    return Common::Error();
  });
}

Common::Error Key::Inspect(const std::function<Common::Error(const KeyNode& key)>& use) const {
  return Read([&](const KeyNode&, const KeyNode& node) { return use(node); });
}

Common::Error Key::QueryValue(const String& name, Value& value) const {
  return Read([&](const KeyNode&, const KeyNode& node) {
    auto found = node.values.find(name);
    if (found == node.values.end())
      return ValueError(kErrorValueNotFound, Messages::RegistryValueNotFound, name, AS_HERE);
    value = found->second;
    return Common::Error();
  });
}

Common::Error Key::SetValue(const String& name, const Value& value) const {
  return Change([&](KeyNode& node, bool& changed) {
    auto [slot, inserted] = node.values.try_emplace(name, value);
    changed = inserted || !(slot->second == value);
    if (changed) slot->second = value;
    return Common::Error();
  });
}

Common::Error Key::DeleteValue(const String& name) const {
  return Change([&](KeyNode& node, bool& changed) {
    if (node.values.erase(name) == 0)
      return ValueError(kErrorValueNotFound, Messages::RegistryValueNotFound, name, AS_HERE);
    changed = true;
    return Common::Error();
  });
}

Common::Error Key::EnumerateValues(std::vector<String>& names) const {
  return Read([&](const KeyNode&, const KeyNode& node) {
    names = NamesOf(node.values);
    return Common::Error();
  });
}

}  // namespace Registry
