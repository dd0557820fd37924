#pragma once
// Identity of the library as a module of the common library: version, module name
// for error reports, message file, message tables and registry directories.
#include <cstdint>

#include "core/common/export.h"

extern "C++" {
AS_EXPORT extern const int32_t major_version;
AS_EXPORT extern const int32_t minor_version;
AS_EXPORT extern const int32_t build_number;
AS_EXPORT extern const char MsgFileName[];
AS_EXPORT extern const char _ErrorModuleName[];
AS_EXPORT extern const unsigned short REG_LINUX_DIR[];
AS_EXPORT extern const unsigned short REG_MAC_DIR[];
AS_EXPORT extern const unsigned short LIBRARY_MAC_DIR[];
// The built-in message table, and the one in use (built-in or loaded from the
// message file). A table starts with a 32-bit word holding its size in bytes.
AS_EXPORT extern const void* const DefaultTextsBase;
AS_EXPORT extern const void* TextsFromMessageFileBase;
}
