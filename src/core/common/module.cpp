#include "core/common/module.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/module_internal.h"
#include "ext/include/logging/log.h"
#include "resource_api.h"

namespace Common::Detail {
alignas(8) extern const uint8_t kDefaultMessageBlock[];
}

const int32_t major_version = 18;
const int32_t minor_version = 0;
const int32_t build_number = 38811;
const char MsgFileName[] = "appliance_storage.msg";
const char _ErrorModuleName[] = "appliance_storage_glxa64_38811";
const unsigned short REG_LINUX_DIR[] = {'/', 'e', 't', 'c', '/', 'Z', 'e', 'm', 'l', 'o', 'r', 'a', 0};
const unsigned short REG_MAC_DIR[] = {'/', 'L', 'i', 'b', 'r', 'a', 'r', 'y', '/', 'A', 'p', 'p', 'l',
                                      'i', 'c', 'a', 't', 'i', 'o', 'n', ' ', 'S', 'u', 'p', 'p', 'o',
                                      'r', 't', '/', 'Z', 'e', 'm', 'l', 'o', 'r', 'a', '/', 'R', 'e',
                                      'g', 'i', 's', 't', 'r', 'y', 0};
const unsigned short LIBRARY_MAC_DIR[] = {'/', 'L', 'i', 'b', 'r', 'a', 'r', 'y', '/', 'A', 'p',
                                          'p', 'l', 'i', 'c', 'a', 't', 'i', 'o', 'n', ' ', 'S',
                                          'u', 'p', 'p', 'o', 'r', 't', 0};
const void* const DefaultTextsBase = Common::Detail::kDefaultMessageBlock;
const void* TextsFromMessageFileBase = Common::Detail::kDefaultMessageBlock;

namespace Common::Detail {
namespace {

constexpr uint32_t kMessageTableMagic = 1636;
constexpr size_t kHeaderWords = 3;  // size, magic, message count

uint32_t Word(const void* table, size_t index) {
  uint32_t w;
  std::memcpy(&w, static_cast<const uint8_t*>(table) + 4 * index, sizeof w);
  return w;
}

const void* CurrentTable() { return __atomic_load_n(&TextsFromMessageFileBase, __ATOMIC_ACQUIRE); }

void SetCurrentTable(const void* table) { __atomic_store_n(&TextsFromMessageFileBase, table, __ATOMIC_RELEASE); }

// Tables loaded from message files. An error may still point into an older one, so
// they are all kept until the library is unloaded.
struct LoadedTables {
  std::mutex mutex;
  std::vector<void*> tables;

  ~LoadedTables() {
    SetCurrentTable(DefaultTextsBase);
    for (void* t : tables) ResourceApi::FreeMessageFile(t);
  }
};

LoadedTables& Loaded() {
  static LoadedTables loaded;
  return loaded;
}

// The table that `data` (checked, `size` bytes) becomes: a kept one of the same bytes,
// so that switching back and forth costs no memory, or `data`, kept from now on.
const void* Keep(LoadedTables& loaded, void* data, size_t size) {
  for (void* t : loaded.tables)
    if (Word(t, 0) == size && std::memcmp(t, data, size) == 0) {
      ResourceApi::FreeMessageFile(data);
      return t;
    }
  try {
    loaded.tables.push_back(data);
  } catch (...) {
    ResourceApi::FreeMessageFile(data);
    return DefaultTextsBase;
  }
  return data;
}

void OnLanguageChange(void*) { ReloadMessageTable(); }

struct Subscription {
  unsigned long handle = 0;
  ~Subscription() {
    if (handle != 0) ResourceApi::UnsubscribeLanguageEvents(handle);
  }
};

// Loads the table at library start, before any static object of a client asks.
struct LoadAtStart {
  LoadAtStart() { ReloadMessageTable(); }
} gLoadAtStart;

}  // namespace

const char* MessageTableFault(const void* data, size_t size) noexcept {
  if (data == nullptr || size < 8) return "it is shorter than its size and magic words";
  if (size > UINT32_MAX || Word(data, 0) != size) return "its size word is not its length";
  if (Word(data, 1) != kMessageTableMagic) return "its magic word is not 1636";
  // Beyond the two words that the format requires, every entry must point at a
  // NUL-terminated text inside the file, or a lookup would read past it.
  if (size < 4 * kHeaderWords) return "it has no message count";
  const uint32_t count = Word(data, 2);
  if (count > (size - 4 * kHeaderWords) / 4) return "its table runs past its end";
  const auto* bytes = static_cast<const uint8_t*>(data);
  for (uint32_t i = 0; i < count; ++i) {
    const size_t entry = 4 * (kHeaderWords + i);
    const size_t text = entry + Word(data, kHeaderWords + i);
    if (text < entry || text % 2 != 0 || text + 2 > size) return "an entry points outside the file";
    bool terminated = false;
    for (size_t at = text; at + 1 < size && !terminated; at += 2) terminated = bytes[at] == 0 && bytes[at + 1] == 0;
    if (!terminated) return "a text runs past its end";
  }
  return nullptr;
}

bool IsInCurrentMessageTable(const void* p, size_t bytes) noexcept {
  const void* table = CurrentTable();
  if (table == nullptr || p == nullptr) return false;
  const auto* begin = static_cast<const uint8_t*>(table);
  const auto* at = static_cast<const uint8_t*>(p);
  const uint8_t* end = begin + Word(table, 0);
  return at >= begin && at < end && bytes <= static_cast<size_t>(end - at);
}

void ReloadMessageTable() noexcept {
  void* data = nullptr;
  size_t size = 0;
  const char* fault = nullptr;
  {
    LoadedTables& loaded = Loaded();
    std::lock_guard<std::mutex> lock(loaded.mutex);
    const void* table = DefaultTextsBase;
    if (ResourceApi::LoadMessageFile(MsgFileName, &data, &size)) {
      fault = MessageTableFault(data, size);
      if (fault == nullptr) table = Keep(loaded, data, size);
      else ResourceApi::FreeMessageFile(data);
    }
    SetCurrentTable(table);
  }
  // Outside the lock: logging may take locks of its own.
  if (fault == nullptr) return;
  char language[64];
  ResourceApi::GetLanguage(language, sizeof language);
  AS_LOG(3, AS_LOG_PREFIX "Message file '%s' of language '%s' (%zu bytes) is refused: %s; the built-in texts are used.",
         MsgFileName, language, size, fault);
}

}  // namespace Common::Detail

const unsigned short* GetTextFromMessageFile(const TextFromMessageFile& id) {
  static std::once_flag subscribed;
  std::call_once(subscribed, [] {
    const int saved = errno;
    static Common::Detail::Subscription subscription;
    subscription.handle = ResourceApi::SubscribeLanguageEvents(Common::Detail::OnLanguageChange, nullptr);
    errno = saved;
  });
  const void* table = Common::Detail::CurrentTable();
  if (table == nullptr) return nullptr;
  // A message file made for an older build may lack newer messages: they keep the
  // built-in text rather than reading past the file.
  if (id.number >= Common::Detail::Word(table, 2)) {
    table = DefaultTextsBase;
    if (id.number >= Common::Detail::Word(table, 2)) return nullptr;
  }
  const auto* entry = static_cast<const uint8_t*>(table) + 4 * (Common::Detail::kHeaderWords + id.number);
  return reinterpret_cast<const unsigned short*>(entry + Common::Detail::Word(entry, 0));
}
