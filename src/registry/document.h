#pragma once
// A registry file in memory, and its reader and writer.
//
// A file holds one root key and everything below it, human-readable:
//
//   <?xml version="1.0" encoding="UTF-8"?>
//   <registry root="HKEY_LOCAL_MACHINE" version="1">
//     <key name="Software">
//       <key name="Zemlora">
//         <value type="multistring">          (no name: the key's default value)
//           <string>Temporary</string>
//           <string>1</string>
//         </value>
//         <value name="Count" type="dword">42</value>
//         <value name="Big" type="qword">18446744073709551615</value>
//         <value name="Blob" type="binary">00ff10</value>
//         <value name="Path" type="string">a &amp; b\\c</value>
//       </key>
//     </key>
//   </registry>
//
// Names and strings are escaped as registry/impl/text_codec.h says. The reader is
// strict: anything it does not understand (an unknown element, attribute or type, a
// duplicate name, stray text, a number out of range) makes the whole file corrupt,
// because a later write would otherwise drop what it skipped.
#include <cstddef>
#include <map>
#include <memory>
#include <string>

#include "core/common/error.h"
#include "core/common/ustring.h"
#include "registry/value.h"

namespace Registry {

// One key: its values ("" names the default value) and its child keys, each in
// ascending order of their 16-bit units.
struct KeyNode {
  std::map<String, Value> values;
  std::map<String, std::unique_ptr<KeyNode>> children;
};

// Keys nest at most this deep below a root; deeper files are corrupt.
constexpr size_t kMaxKeyDepth = 512;

// Reads `size` bytes of a registry document into `root`. A document that does not
// parse yields kErrorFileCorrupt with field "path" = `path` and a kErrorFileFormat
// cause that says what is wrong and at which byte; `root` is then left as it was.
Common::Error ParseRegistryDocument(const char* data, size_t size, const std::string& path, KeyNode& root);

// The document for `root`, whose root key is called `rootName`.
std::string SerializeRegistryDocument(const KeyNode& root, const String& rootName);

}  // namespace Registry
