// The event keeps a list of its waiters, each with a condition variable of its own, so
// that Set() can tell a waiter that is still waiting from one whose time-out passed.
#include "core/common/event.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <list>

#include "core/common/assert.h"

namespace Common {

namespace {

struct Waiter {
  pthread_cond_t cond;
  bool woken = false;
  bool timedOut = false;
  const Event* wokenBy = nullptr;

  Waiter() {
    // Deadlines on the monotonic clock: setting the time of day moves no time-out.
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
  }
  ~Waiter() { pthread_cond_destroy(&cond); }
};

timespec Deadline(uint32_t millisec) {
  timespec at{};
  clock_gettime(CLOCK_MONOTONIC, &at);
  at.tv_sec += millisec / 1000;
  at.tv_nsec += static_cast<long>(millisec % 1000) * 1000000L;
  if (at.tv_nsec >= 1000000000L) {
    at.tv_sec += 1;
    at.tv_nsec -= 1000000000L;
  }
  return at;
}

}  // namespace

struct Event::Data {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  std::list<Waiter*> waiters;
  bool manualReset;
  bool signalled;
};

Event::Event(bool manualReset, bool signalled) : data_(new Data) {
  data_->manualReset = manualReset;
  data_->signalled = signalled;
}

Event::~Event() {
  if (!data_->waiters.empty())
    AssertionFailed("EVENT_DATA.Waiters->empty() || !\"Destroying Event which is being Wait()'ed for\"",
                    AS_SOURCE_NAME, __LINE__);
  pthread_mutex_destroy(&data_->mutex);
}

void Event::Set() {
  pthread_mutex_lock(&data_->mutex);
  if (!data_->signalled) {
    data_->signalled = true;
    for (Waiter* waiter : data_->waiters) {
      AS_ASSERT(waiter);
      if (waiter == nullptr || waiter->woken || waiter->timedOut) continue;
      waiter->woken = true;
      waiter->wokenBy = this;
      pthread_cond_signal(&waiter->cond);
      if (!data_->manualReset) {
        data_->signalled = false;  // consumed by this waiter
        break;
      }
    }
  }
  pthread_mutex_unlock(&data_->mutex);
}

void Event::Reset() {
  pthread_mutex_lock(&data_->mutex);
  data_->signalled = false;
  pthread_mutex_unlock(&data_->mutex);
}

bool Event::Wait(uint32_t millisec) {
  pthread_mutex_lock(&data_->mutex);
  if (data_->signalled) {
    if (!data_->manualReset) data_->signalled = false;
    pthread_mutex_unlock(&data_->mutex);
    return true;
  }
  Waiter waiter;
  const auto entry = data_->waiters.insert(data_->waiters.end(), &waiter);
  const timespec deadline = millisec == kInfinite ? timespec{} : Deadline(millisec);
  while (!waiter.woken) {
    if (millisec == kInfinite) {
      const int res = pthread_cond_wait(&waiter.cond, &data_->mutex);
      AS_ASSERT(res == 0 || !"pthread_cond_wait() failed");
      continue;
    }
    if (pthread_cond_timedwait(&waiter.cond, &data_->mutex, &deadline) == ETIMEDOUT && !waiter.woken) {
      waiter.timedOut = true;
      break;
    }
  }
  data_->waiters.erase(entry);
  const bool result = waiter.woken;
  AS_ASSERT(millisec != ~0U || result);
  pthread_mutex_unlock(&data_->mutex);
  return result;
}

}  // namespace Common
