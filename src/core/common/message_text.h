#pragma once
// The library's message texts. Each message has a number (its position in the
// message table); Messages::<Name> constants (core/common/message_ids.h, generated
// from the catalogue) name them. Texts come from the message file of the current
// language, or from the built-in English table.
#include <cstdint>

#include "core/common/export.h"

struct TextFromMessageFile {
  uint32_t number;
};

// The UTF-16 text of message `id` in the table in use, or null when there is none.
// The text lives as long as the library; an error made from it shares it.
AS_EXPORT const unsigned short* GetTextFromMessageFile(const TextFromMessageFile& id);
