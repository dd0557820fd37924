#pragma once
// The C library's own close, fclose and clone, looked up once in "libc.so.6" so that
// interposed versions (sanitizers, preloaded libraries) are bypassed.
#include <cstdio>

namespace LinuxEx::Detail {

struct LibcEntries {
  int (*close)(int) = nullptr;
  int (*fclose)(FILE*) = nullptr;
  int (*clone)(int (*)(void*), void*, int, void*, ...) = nullptr;
};

// Resolved on first use, thread-safe; an entry that cannot be found is null.
const LibcEntries& GetLibcEntries() noexcept;

}  // namespace LinuxEx::Detail
