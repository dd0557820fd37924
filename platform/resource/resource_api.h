#pragma once
// Resource library of the appliance: resource strings, message files per language,
// and language-change events. This is the stand-in; an appliance puts its own
// library of the same interface in its place.
//
// Message files are looked up as <resource dir>/<language>/<name>. The resource
// directory is $ZEMLORA_RESOURCE_DIR, else the installed one. The language comes from
// the locale of messages at start (the first set of $LC_ALL, $LC_MESSAGES, $LANG:
// "ru_RU.UTF-8" gives "ru"; "C", "POSIX" or none give "en", the built-in texts) and is
// changed at run time with SetLanguage().
#include <cstddef>

#define RESOURCE_API __attribute__((visibility("default")))

namespace ResourceApi {

using LanguageCallback = void (*)(void* context);

// Subscribes to language changes; returns a handle for Unsubscribe (never 0).
RESOURCE_API unsigned long SubscribeLanguageEvents(LanguageCallback callback, void* context);
RESOURCE_API void UnsubscribeLanguageEvents(unsigned long handle);

// The current language ("en", "ru", ...). Copies at most size - 1 bytes.
RESOURCE_API void GetLanguage(char* buffer, size_t size);
// Changes the language ("ru", or a locale name such as "ru_RU.UTF-8") and calls
// every subscriber on the calling thread.
RESOURCE_API void SetLanguage(const char* language);

// Loads the message file `name` of the current language. On success *data is a
// malloc'd image that the caller frees with FreeMessageFile. Returns false when
// the language has no such file or it cannot be read.
RESOURCE_API bool LoadMessageFile(const char* name, void** data, size_t* size);
RESOURCE_API void FreeMessageFile(void* data);

// A resource string ("registry_brand_key"), UTF-8; null when unknown.
RESOURCE_API const char* GetResourceString(const char* key);

}  // namespace ResourceApi
