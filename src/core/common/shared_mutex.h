#pragma once
// Common::SharedMutex: a named lock shared by every process of the appliance, so that
// operations on the same disks never interleave; within a process it is a recursive
// mutex between threads. It rests on an flock() lock of "/tmp/.SharedMutex_<name>"
// (mode 0600, created atomically, never removed).
//
//   auto mutex = Common::SharedMutex::Create("SCSISubsystemLocker");
//   mutex->Lock();     // waits as long as needed; recursive in this process
//   ...
//   mutex->Unlock();
//
// Two objects of one name are two locks even in one thread: the second waits while
// the first is held. Failures throw Common::Error with the field "token" (the name)
// and the POSIX error as cause: code 6 from Create, code 8 from Lock and Unlock.
#include <memory>

#include "core/common/export.h"

namespace Common {

class AS_EXPORT SharedMutex {
 public:
  static std::unique_ptr<SharedMutex> Create(const char* name);

  virtual ~SharedMutex();
  virtual void Unlock() = 0;
  virtual void Lock() = 0;

 protected:
  SharedMutex() = default;
};

}  // namespace Common
