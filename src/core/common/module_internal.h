#pragma once
// Library-private view of the message tables.
#include <cstddef>
#include <cstdint>

namespace Common::Detail {

// Whether [p, p + bytes) lies inside the message table in use.
bool IsInCurrentMessageTable(const void* p, size_t bytes) noexcept;

// Why a message table image is unusable (size word, magic, entries and texts in
// bounds), or null when it is sound.
const char* MessageTableFault(const void* data, size_t size) noexcept;

// Loads the message file of the current language, or falls back to the built-in
// table, tracing why a file is refused. Called at load and on every language change.
void ReloadMessageTable() noexcept;

}  // namespace Common::Detail
