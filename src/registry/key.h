#pragma once
// Registry::Key: a handle to one key of the file-backed registry.
//
// The registry is a tree of keys below five predefined roots (registry/roots.h).
// A key has named child keys and named, typed values (registry/value.h); the value
// whose name is empty is the key's default value. Names are compared exactly (case
// matters) and may hold any UTF-16 text, except that a key name holds no "\" and is
// not empty: "\" separates the names of a key path ("Software\Zemlora\Quillenmark").
//
//   Registry::Key machine, devices;
//   if (Common::Error e = Registry::Key::OpenPredefined(Registry::HKEY_LOCAL_MACHINE, machine)) ...
//   if (Common::Error e = machine.CreateKeyRecursive(Common::Str(u"Software\\Zemlora"), devices)) ...
//   Registry::Value value;
//   if (!devices.QueryValue(String(), value)) ... std::get_if<Registry::MultiString>(&value)
//
// Storage: one XML file per root key in REG_LINUX_DIR ("/etc/Zemlora"), named after
// the root ("HKEY_LOCAL_MACHINE.xml"); registry/document.h shows the format. One file
// per root keeps every change a single atomic replacement of a single file, which the
// registry's few, small keys afford. Every call reads the file afresh, so a handle
// always sees what other processes wrote; every change is made under the file's lock
// and lands on disk before the call returns (registry/impl/registry_file.h).
//
// A handle is a root and a path: it does not keep the key alive. When another handle
// or process deletes the key, later calls fail with kErrorKeyNotFound.
//
// Every call returns a Common::Error (codes in registry/errors.h) and writes its
// output argument only on success. Handles are values: copy them freely; one handle
// may be used by several threads at once.
#include <cstdint>
#include <functional>
#include <vector>

#include "core/common/error.h"
#include "core/common/ustring.h"
#include "registry/roots.h"
#include "registry/value.h"

namespace Registry {

struct KeyNode;

class Key {
 public:
  // A handle to no key: its calls fail with kErrorInvalidKey.
  Key() = default;

  // One of the predefined roots; kErrorInvalidKey for any other handle value.
  [[nodiscard]] static Common::Error OpenPredefined(uint32_t handle, Key& key);

  // The existing key at `path` below this one; "" opens this key again.
  [[nodiscard]] Common::Error Open(const String& path, Key& key) const;
  // The existing child key called `name` (one name, no "\").
  [[nodiscard]] Common::Error OpenChild(const String& name, Key& key) const;
  // The key at `path` below this one, creating every missing key on the way.
  [[nodiscard]] Common::Error CreateKeyRecursive(const String& path, Key& key) const;

  // Names of the child keys, in ascending order of their 16-bit units.
  [[nodiscard]] Common::Error EnumerateChildren(std::vector<String>& names) const;
  // Deletes the child key called `name` with all its keys and values.
  [[nodiscard]] Common::Error DeleteChild(const String& name) const;

  // `name` empty: the default value.
  [[nodiscard]] Common::Error QueryValue(const String& name, Value& value) const;
  [[nodiscard]] Common::Error SetValue(const String& name, const Value& value) const;
  [[nodiscard]] Common::Error DeleteValue(const String& name) const;
  // Names of the values, in ascending order; the default value, if set, is "".
  [[nodiscard]] Common::Error EnumerateValues(std::vector<String>& names) const;

  // Calls `use` with this key as the file holds it now, its values and child keys all:
  // one read for a caller that looks at many keys. Returns what `use` returns.
  [[nodiscard]] Common::Error Inspect(const std::function<Common::Error(const KeyNode& key)>& use) const;

  bool IsValid() const noexcept { return root_ != 0; }
  // "HKEY_LOCAL_MACHINE\Software\Zemlora"; empty for a handle to no key.
  String GetPath() const;

 private:
  Key(uint32_t root, std::vector<String> names) : root_(root), names_(std::move(names)) {}
  Common::Error CheckValid() const;
  Common::Error Below(const String& path, std::vector<String>& names) const;
  // Reads this key from the current file; kErrorKeyNotFound when it is gone.
  Common::Error Read(const std::function<Common::Error(const KeyNode& root, const KeyNode& key)>& use) const;
  // Changes this key under the file's lock; `changed` says whether to write.
  Common::Error Change(const std::function<Common::Error(KeyNode& key, bool& changed)>& edit) const;

  uint32_t root_ = 0;
  std::vector<String> names_;
};

}  // namespace Registry
