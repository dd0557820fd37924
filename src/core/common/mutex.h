#pragma once
// Common::RecursiveMutex: an in-process mutex that the owning thread may lock again.
// Unlocking from a thread that does not own it is a programming error (assertion).
// Also usable with std::lock_guard and std::unique_lock.
#include <pthread.h>

#include "core/common/export.h"

namespace Common {

class AS_EXPORT RecursiveMutex {
 public:
  RecursiveMutex();
  ~RecursiveMutex();
  RecursiveMutex(const RecursiveMutex&) = delete;
  RecursiveMutex& operator=(const RecursiveMutex&) = delete;

  void Lock();
  bool TryLock();
  void Unlock();

  void lock() { Lock(); }
  bool try_lock() { return TryLock(); }
  void unlock() { Unlock(); }

 private:
  pthread_mutex_t mutex_;
};

}  // namespace Common
