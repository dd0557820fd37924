#pragma once
// Library-private view of the message tables.
#include <cstddef>
#include <cstdint>

namespace Common::Detail {

// Whether [p, p + bytes) lies inside the message table in use.
bool IsInCurrentMessageTable(const void* p, size_t bytes) noexcept;

// Checks a message table image (size word, magic, entries and texts in bounds).
bool IsValidMessageTable(const void* data, size_t size) noexcept;

// Loads the message file of the current language, or falls back to the built-in
// table. Called at load and on every language change.
void ReloadMessageTable() noexcept;

}  // namespace Common::Detail
