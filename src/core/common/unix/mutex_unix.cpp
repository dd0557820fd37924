#include "core/common/mutex.h"

#include "core/common/assert.h"

namespace Common {

RecursiveMutex::RecursiveMutex() {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex_, &attr);
  pthread_mutexattr_destroy(&attr);
}

RecursiveMutex::~RecursiveMutex() { pthread_mutex_destroy(&mutex_); }

void RecursiveMutex::Lock() { pthread_mutex_lock(&mutex_); }

bool RecursiveMutex::TryLock() { return pthread_mutex_trylock(&mutex_) == 0; }

void RecursiveMutex::Unlock() {
  const int ret = pthread_mutex_unlock(&mutex_);
  AS_ASSERT(ret == 0 && "Probably unlock from non-owner thread!");
}

}  // namespace Common
