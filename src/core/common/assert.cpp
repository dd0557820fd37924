#include "core/common/assert.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "core/common/assert_internal.h"

namespace Common {
namespace Detail {

uint32_t ParseAssertMode(const char* value) noexcept {
  if (value == nullptr || *value == '\0') return 0;
  const char* digits = value;
  if (digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) digits += 2;
  if (*digits != '\0') {
    char* end = nullptr;
    errno = 0;
    const unsigned long long mode = std::strtoull(digits, &end, 16);
    if (*end == '\0' && errno == 0 && mode != 0 && mode <= 0xFFFFFFFFull && std::isxdigit(static_cast<unsigned char>(*digits)))
      return static_cast<uint32_t>(mode);
  }
  static const struct {
    const char* word;
    uint32_t bit;
  } kWords[] = {{"break", kAssertBreak}, {"debug", kAssertDebug},   {"log", kAssertLog},    {"event", kAssertEvent},
                {"msgbox", kAssertMsgBox}, {"abort", kAssertAbort}, {"stack", kAssertStack}};
  char words[128];
  std::snprintf(words, sizeof words, "%s", value);  // the first 127 characters
  uint32_t mode = 0;
  char* save = nullptr;
  for (char* w = strtok_r(words, " \t", &save); w != nullptr; w = strtok_r(nullptr, " \t", &save)) {
    uint32_t bit = 0;
    for (const auto& k : kWords)
      if (std::strcmp(w, k.word) == 0) bit = k.bit;
    if (bit == 0) return kAssertOff;
    mode |= bit;
  }
  return mode;
}

}  // namespace Detail

namespace {

using namespace Detail;

constexpr size_t kMessageSize = 540;
constexpr size_t kDebugBufferSize = 539;
constexpr int kEventCategory = 5, kEventFlags = 0, kEventId = 27;

struct Settings {
  uint32_t mode = 0;
  FILE* log = nullptr;
  bool ownLog = false;
};

std::once_flag gSettingsOnce;
Settings gSettings;
std::mutex gOutputMutex;  // the debug buffer and the log
char gDebugBuffer[kDebugBufferSize + 1];
AssertEventCallback gEventCallback = nullptr;

void CloseLog() {
  if (gSettings.ownLog && gSettings.log) std::fclose(gSettings.log);
  gSettings.log = nullptr;
}

const Settings& GetSettings() {
  std::call_once(gSettingsOnce, [] {
    gSettings.mode = ParseAssertMode(std::getenv("ZEMLORA_SAFE_ASSERT"));
    if (gSettings.mode == kAssertOff || !(gSettings.mode & kAssertLog)) return;
    const char* name = std::getenv("ZEMLORA_SAFE_ASSERT_LOGFILE");
    if (name == nullptr || *name == '\0') return;
    if (std::strcmp(name, "stdout") == 0) {
      gSettings.log = stdout;
    } else if (std::strcmp(name, "stderr") == 0) {
      gSettings.log = stderr;
    } else {
      gSettings.log = std::fopen(name, "ae");
      gSettings.ownLog = gSettings.log != nullptr;
      if (gSettings.ownLog) std::atexit(CloseLog);
    }
  });
  return gSettings;
}

void ToDebugBuffer(const char* text) {
  std::lock_guard<std::mutex> lock(gOutputMutex);
  std::snprintf(gDebugBuffer, sizeof gDebugBuffer, "%s", text);
}

void ToLog(const Settings& s, const char* text) {
  if (s.log == nullptr) return;
  std::lock_guard<std::mutex> lock(gOutputMutex);
  std::fprintf(s.log, "%s\n", text);
  std::fflush(s.log);
}

AssertEventCallback EventCallback() { return __atomic_load_n(&gEventCallback, __ATOMIC_ACQUIRE); }

// ---- stack traces ------------------------------------------------------------------

// Symbols of the executable itself are often not dynamic; its symbol table is read
// from /proc/self/exe.
std::string ExecutableSymbol(uintptr_t address, uintptr_t base, uintptr_t* offset) {
  const int fd = ::open("/proc/self/exe", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::string();
  struct stat st;
  void* map = MAP_FAILED;
  if (::fstat(fd, &st) == 0 && st.st_size > static_cast<off_t>(sizeof(Elf64_Ehdr)))
    map = ::mmap(nullptr, static_cast<size_t>(st.st_size), PROT_READ, MAP_PRIVATE, fd, 0);
  ::close(fd);
  if (map == MAP_FAILED) return std::string();

  std::string found;
  const auto* image = static_cast<const uint8_t*>(map);
  const size_t size = static_cast<size_t>(st.st_size);
  const auto* eh = reinterpret_cast<const Elf64_Ehdr*>(image);
  auto inside = [&](uint64_t off, uint64_t len) { return off <= size && len <= size - off; };
  if (std::memcmp(eh->e_ident, ELFMAG, SELFMAG) == 0 && eh->e_ident[EI_CLASS] == ELFCLASS64 &&
      inside(eh->e_phoff, uint64_t(eh->e_phnum) * sizeof(Elf64_Phdr)) &&
      inside(eh->e_shoff, uint64_t(eh->e_shnum) * sizeof(Elf64_Shdr))) {
    uint64_t lowest = UINT64_MAX;
    const auto* ph = reinterpret_cast<const Elf64_Phdr*>(image + eh->e_phoff);
    for (int i = 0; i < eh->e_phnum; ++i)
      if (ph[i].p_type == PT_LOAD && ph[i].p_vaddr < lowest) lowest = ph[i].p_vaddr & ~uint64_t(0xFFF);
    const uint64_t wanted = address - base + (lowest == UINT64_MAX ? 0 : lowest);
    const auto* sh = reinterpret_cast<const Elf64_Shdr*>(image + eh->e_shoff);
    for (int i = 0; i < eh->e_shnum && found.empty(); ++i) {
      if (sh[i].sh_type != SHT_SYMTAB || sh[i].sh_link >= eh->e_shnum) continue;
      const Elf64_Shdr& strtab = sh[sh[i].sh_link];
      if (!inside(sh[i].sh_offset, sh[i].sh_size) || !inside(strtab.sh_offset, strtab.sh_size)) continue;
      const auto* syms = reinterpret_cast<const Elf64_Sym*>(image + sh[i].sh_offset);
      const size_t count = sh[i].sh_size / sizeof(Elf64_Sym);
      for (size_t k = 0; k < count; ++k) {
        const Elf64_Sym& s = syms[k];
        if (ELF64_ST_TYPE(s.st_info) != STT_FUNC || s.st_value == 0 || s.st_name >= strtab.sh_size) continue;
        if (wanted >= s.st_value && wanted < s.st_value + (s.st_size ? s.st_size : 1)) {
          const char* name = reinterpret_cast<const char*>(image + strtab.sh_offset + s.st_name);
          found.assign(name, strnlen(name, strtab.sh_size - s.st_name));
          *offset = wanted - s.st_value;
          break;
        }
      }
    }
  }
  ::munmap(map, size);
  return found;
}

std::string Demangle(const std::string& name) {
  int status = 0;
  char* demangled = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  if (demangled == nullptr) return name;
  std::string out = demangled;
  std::free(demangled);
  return out;
}

// Where the main program's ELF header is mapped: the first object that dl_iterate_phdr
// reports, at its segment that maps file offset 0. Only its symbols are looked up in
// /proc/self/exe; a library's unexported function stays unnamed.
uintptr_t MainProgramBase() {
  uintptr_t base = 0;
  dl_iterate_phdr(
      [](dl_phdr_info* object, size_t, void* out) {
        for (int i = 0; i < object->dlpi_phnum; ++i)
          if (object->dlpi_phdr[i].p_type == PT_LOAD && object->dlpi_phdr[i].p_offset == 0) {
            *static_cast<uintptr_t*>(out) = object->dlpi_addr + object->dlpi_phdr[i].p_vaddr;
            break;
          }
        return 1;
      },
      &base);
  return base;
}

std::vector<std::string> StackTrace() {
  void* frames[64];
  const int count = backtrace(frames, 64);
  const uintptr_t mainBase = MainProgramBase();
  std::vector<std::string> lines;
  for (int i = 2; i < count; ++i) {  // the first two frames are the handler's own
    const auto address = reinterpret_cast<uintptr_t>(frames[i]);
    Dl_info info{};
    std::string module = "?", symbol;
    uintptr_t offset = 0;
    bool hasOffset = false;
    if (dladdr(frames[i], &info) != 0) {
      if (info.dli_fname) {
        const char* slash = std::strrchr(info.dli_fname, '/');
        module = slash ? slash + 1 : info.dli_fname;
      }
      if (info.dli_sname) {
        symbol = info.dli_sname;
        offset = address - reinterpret_cast<uintptr_t>(info.dli_saddr);
        hasOffset = true;
      } else if (info.dli_fbase != nullptr && reinterpret_cast<uintptr_t>(info.dli_fbase) == mainBase) {
        symbol = ExecutableSymbol(address, mainBase, &offset);
        hasOffset = !symbol.empty();
      }
    }
    symbol = symbol.empty() ? std::string("?") : Demangle(symbol);
    char offsetText[32] = "", addressText[32];
    if (hasOffset) std::snprintf(offsetText, sizeof offsetText, "0x%lx", static_cast<unsigned long>(offset));
    std::snprintf(addressText, sizeof addressText, "[0x%lx]", static_cast<unsigned long>(address));
    std::vector<char> line(module.size() + symbol.size() + 128);
    std::snprintf(line.data(), line.size(), hasOffset ? "%-30s ( %-40s  + %-6s) %s" : "%-30s ( %-40s    %-6s) %s",
                  module.c_str(), symbol.c_str(), offsetText, addressText);
    lines.emplace_back(line.data());
  }
  return lines;
}

void ReportStack(const Settings& s) {
  std::vector<std::string> lines;
  try {
    lines = StackTrace();
  } catch (...) {
    return;  // no memory for a trace: the assertion text itself has gone out already
  }
  for (const std::string& line : lines) {
    if (s.mode & kAssertDebug) ToDebugBuffer(line.c_str());
    if (s.mode & kAssertLog) ToLog(s, line.c_str());
  }
  AssertEventCallback callback = EventCallback();
  if (!(s.mode & kAssertEvent) || callback == nullptr) return;
  // Joined by line feeds in a buffer grown 1024 bytes at a time.
  size_t capacity = 1024, used = 0;
  char* buffer = static_cast<char*>(std::malloc(capacity));
  if (buffer == nullptr) return;
  buffer[0] = '\0';
  for (const std::string& line : lines) {
    const size_t need = used + line.size() + 2;
    if (need > capacity) {
      const size_t grown = (need + 1023) / 1024 * 1024;
      char* bigger = static_cast<char*>(std::realloc(buffer, grown));
      if (bigger == nullptr) break;
      buffer = bigger;
      capacity = grown;
    }
    if (used != 0) buffer[used++] = '\n';
    std::memcpy(buffer + used, line.data(), line.size());
    used += line.size();
    buffer[used] = '\0';
  }
  callback(kEventCategory, kEventFlags, kEventId, buffer);
  std::free(buffer);
}

}  // namespace

void SetAssertEventCallback(AssertEventCallback callback) noexcept {
  __atomic_store_n(&gEventCallback, callback, __ATOMIC_RELEASE);
}

int AssertionHandler(const char* text) noexcept {
  const Settings& s = GetSettings();
  if (s.mode == kAssertOff) return 0;
  if (text == nullptr) text = "";
  if (s.mode & kAssertDebug) ToDebugBuffer(text);
  if (s.mode & kAssertLog) ToLog(s, text);
  AssertEventCallback callback = EventCallback();
  if ((s.mode & kAssertEvent) && callback != nullptr) callback(kEventCategory, kEventFlags, kEventId, text);
  if ((s.mode & kAssertStack) && (s.mode & (kAssertDebug | kAssertLog | kAssertEvent))) ReportStack(s);
  if (s.mode & (kAssertMsgBox | kAssertBreak)) ::raise(SIGTRAP);
  if (s.mode & kAssertAbort) std::abort();
  return 1;
}

void AssertionFailed(const char* expression, const char* file, int line) noexcept {
  char message[kMessageSize];
  std::snprintf(message, sizeof message, "Assertion failed: %s, file %s, line %d", expression ? expression : "",
                file ? file : "", line);
  AssertionHandler(message);
}

std::string GetAssertDebugBuffer() {
  std::lock_guard<std::mutex> lock(gOutputMutex);
  return gDebugBuffer;
}

}  // namespace Common
