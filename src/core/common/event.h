#pragma once
// Common::Event: a thread hands a signal to others.
//
// An auto-reset event wakes one waiter per Set() (or lets the next Wait() through at
// once) and becomes unsignalled again; a manual-reset event wakes every waiter and
// stays signalled until Reset(). A waiter whose time-out has passed is skipped by a
// later Set(), so the signal is kept for the next Wait().
//
//   Common::Event done;                  // auto-reset, not signalled
//   callbackThread: done.Set();
//   caller:         if (!done.Wait(600000)) ...time-out...
//
// Destroying an event while threads wait on it is a programming error (assertion).
#include <cstdint>
#include <memory>

#include "core/common/export.h"

namespace Common {

class AS_EXPORT Event {
 public:
  static constexpr uint32_t kInfinite = ~0U;

  explicit Event(bool manualReset = false, bool signalled = false);
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void Set();
  void Reset();
  // True when signalled, false when `millisec` passed first (kInfinite: no limit).
  bool Wait(uint32_t millisec = kInfinite);

 private:
  struct Data;
  std::unique_ptr<Data> data_;
};

}  // namespace Common
