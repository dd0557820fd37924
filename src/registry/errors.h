#pragma once
// Error codes of the file-backed registry (range 0x560001..0x5600FF).
//
// Each error carries the fields that name what it is about:
//   file errors  ("path,$module"):  kErrorFileAccess, kErrorFileCorrupt
//   key errors   ("Key,$module"):   kErrorKeyNotFound, kErrorInvalidKey, kErrorInvalidKeyPath
//   value errors ("Value,$module"): kErrorValueNotFound
// "path" is the registry file's path, "Key" the full key path
// ("HKEY_LOCAL_MACHINE\Software\Zemlora"), "Value" the value's name (empty for the
// default value); all in UTF-8. A file error caused by a system call has the errno
// as its cause; a corrupt file has a cause that says what is wrong and where.
#include <cstdint>

namespace Registry {

// A registry file could not be read, written, locked or replaced.
constexpr uint32_t kErrorFileAccess = 0x560001;
// A registry file is not a registry document; it is left as it is.
constexpr uint32_t kErrorFileCorrupt = 0x560002;
// The detail under kErrorFileCorrupt: what is wrong and at which byte offset.
constexpr uint32_t kErrorFileFormat = 0x560003;
// The key (or the key a handle refers to) does not exist (any more).
constexpr uint32_t kErrorKeyNotFound = 0x560010;
// A handle that refers to no key: not a predefined root, or never opened.
constexpr uint32_t kErrorInvalidKey = 0x560011;
// A key path or key name that cannot name a key: an empty part (leading, trailing or
// doubled "\"), a "\" in a single name, or more levels than the registry keeps.
constexpr uint32_t kErrorInvalidKeyPath = 0x560012;
// The value does not exist.
constexpr uint32_t kErrorValueNotFound = 0x560020;

}  // namespace Registry
