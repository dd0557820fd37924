#include "resource_api.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace ResourceApi {
namespace {

// Message files are small; anything bigger is not one of ours.
constexpr off_t kMaxMessageFile = 16 << 20;

// "ru_RU.UTF-8", "ru@latin" and "ru" give "ru"; "C", "POSIX" and anything that is
// not a language code give "en", the built-in texts.
std::string LanguageOf(const char* locale) {
  std::string language;
  for (const char* c = locale; c != nullptr && *c != '\0' && *c != '_' && *c != '.' && *c != '@'; ++c)
    language += static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
  const bool code = (language.size() == 2 || language.size() == 3) &&
                    std::all_of(language.begin(), language.end(), [](char c) { return c >= 'a' && c <= 'z'; });
  return code ? language : "en";
}

struct State {
  std::mutex mutex;
  std::string language;
  unsigned long nextHandle = 1;
  std::vector<std::pair<unsigned long, std::pair<LanguageCallback, void*>>> subscribers;

  // The locale of messages, as the C library would choose it.
  State() {
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
      const char* locale = std::getenv(variable);
      if (locale != nullptr && *locale != '\0') {
        language = LanguageOf(locale);
        return;
      }
    }
    language = "en";
  }
};

State& GetState() {
  static State* state = new State;  // outlives every static destructor that may still ask
  return *state;
}

bool IsPlainName(const std::string& s) {
  return !s.empty() && s.find('/') == std::string::npos && s != "." && s != "..";
}

}  // namespace

unsigned long SubscribeLanguageEvents(LanguageCallback callback, void* context) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  const unsigned long handle = s.nextHandle++;
  s.subscribers.push_back({handle, {callback, context}});
  return handle;
}

void UnsubscribeLanguageEvents(unsigned long handle) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  for (auto it = s.subscribers.begin(); it != s.subscribers.end(); ++it)
    if (it->first == handle) {
      s.subscribers.erase(it);
      return;
    }
}

void GetLanguage(char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return;
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  const size_t n = std::min(size - 1, s.language.size());
  std::memcpy(buffer, s.language.data(), n);
  buffer[n] = '\0';
}

void SetLanguage(const char* language) {
  State& s = GetState();
  decltype(s.subscribers) subscribers;
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    s.language = LanguageOf(language);
    subscribers = s.subscribers;
  }
  // Outside the lock: a subscriber may ask for the language or load a file.
  for (auto& entry : subscribers) entry.second.first(entry.second.second);
}

bool LoadMessageFile(const char* name, void** data, size_t* size) {
  if (name == nullptr || data == nullptr || size == nullptr) return false;
  char language[64];
  GetLanguage(language, sizeof language);
  if (!IsPlainName(name) || !IsPlainName(language)) return false;
  const char* dir = std::getenv("ZEMLORA_RESOURCE_DIR");
  const std::string path = std::string(dir && *dir ? dir : AS_RESOURCE_DIR) + "/" + language + "/" + name;

  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  void* buffer = nullptr;
  size_t done = 0;
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size <= kMaxMessageFile &&
            (buffer = std::malloc(st.st_size > 0 ? static_cast<size_t>(st.st_size) : 1)) != nullptr;
  while (ok && done < static_cast<size_t>(st.st_size)) {
    const ssize_t n = ::read(fd, static_cast<char*>(buffer) + done, static_cast<size_t>(st.st_size) - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // a file that shrank is returned short; the caller's checks refuse it
    done += static_cast<size_t>(n);
  }
  ::close(fd);
  if (!ok) {
    std::free(buffer);
    return false;
  }
  *data = buffer;
  *size = done;
  return true;
}

void FreeMessageFile(void* data) { std::free(data); }

const char* GetResourceString(const char* key) {
  if (key == nullptr) return nullptr;
  if (std::strcmp(key, "registry_brand_key") == 0) return "Software\\Zemlora";
  return nullptr;
}

}  // namespace ResourceApi
