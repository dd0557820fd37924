// The shared mutex: an flock() lock of a file under /tmp for other processes, a
// recursive mutex for the threads of this one. The file lock is held exactly while the
// recursion count is above zero, and both change only under the in-process mutex.
#include "core/common/shared_mutex.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>

#include "core/common/assert.h"
#include "core/common/error.h"
#include "core/common/message_ids.h"
#include "core/common/mutex.h"
#include "processor/format/format_message.h"

namespace Common {
namespace {

constexpr const char* kLockDir = "/tmp";
constexpr uint32_t kCreateFailed = 6;
constexpr uint32_t kLockFailed = 8;

Error MutexError(uint32_t code, TextFromMessageFile id, const std::string& name, int err,
                 const ErrorLocation& where) {
  Error error(code, Core::FormatMessage(id, name), where, {ErrorField("token", name)});
  error.AddPosixError(err, where);
  return error;
}

std::string LockPath(const std::string& token) { return std::string(kLockDir) + "/.SharedMutex_" + token; }

class SharedMutexImpl final : public SharedMutex {
 public:
  SharedMutexImpl(int fd, std::string name) : fd_(fd), name_(std::move(name)) {}

  ~SharedMutexImpl() override {
    AS_ASSERT(RecursionCount == 0 || !"Shared mutex locked in destructor");
    if (fd_ >= 0) close(fd_);
  }

  void Lock() override {
    mutex_.Lock();  // held until the matching Unlock
    if (++RecursionCount > 1) return;
    if (fd_ < 0) fd_ = open(LockPath(name_).c_str(), O_RDWR | O_CLOEXEC);
    if (TEMP_FAILURE_RETRY(flock(fd_, LOCK_EX)) != 0) {
      const int err = errno;
      --RecursionCount;
      mutex_.Unlock();  // a failed Lock holds nothing
      throw MutexError(kLockFailed, Messages::FailedToLockSharedMutex, name_, err, AS_LOCATION("Ctrl", __LINE__));
    }
  }

  // Leaves nothing held even when flock fails: the file is then closed, which drops
  // the lock in the kernel, and opened again by the next Lock; the failure is thrown.
  void Unlock() override {
    AS_ASSERT(RecursionCount || !"Already unlocked");
    if (RecursionCount == 0) return;
    int err = 0;
    if (--RecursionCount == 0 && TEMP_FAILURE_RETRY(flock(fd_, LOCK_UN)) != 0) {
      err = errno;
      close(fd_);
      fd_ = -1;
    }
    mutex_.Unlock();
    if (err != 0)
      throw MutexError(kLockFailed, Messages::FailedToLockSharedMutex, name_, err, AS_LOCATION("Ctrl", __LINE__));
  }

 private:
  int fd_;
  const std::string name_;
  uint64_t RecursionCount = 0;
  RecursiveMutex mutex_;
};

}  // namespace

SharedMutex::~SharedMutex() = default;

std::unique_ptr<SharedMutex> SharedMutex::Create(const char* name) {
  const std::string token = name ? name : "";
  auto fail = [&](int err, const ErrorLocation& where) {
    return MutexError(kCreateFailed, Messages::FailedToCreateSharedMutex, token, err, where);
  };
  if (name == nullptr) throw fail(EINVAL, AS_LOCATION("Create", __LINE__));

  // The lock file appears complete and with its mode at once: a private temporary file
  // is linked to its name, and a process that was first wins with EEXIST.
  char temporary[128];
  std::snprintf(temporary, sizeof temporary, "%s/shared_mutex_XXXXXX", kLockDir);
  const int tempFd = mkostemp(temporary, O_CLOEXEC);
  if (tempFd == -1) throw fail(errno, AS_LOCATION("Create", __LINE__));
  fchmod(tempFd, 0600);
  const std::string path = LockPath(token);
  const int linked = link(temporary, path.c_str());
  const int linkErr = errno;
  close(tempFd);
  unlink(temporary);
  if (linked != 0 && linkErr != EEXIST) throw fail(linkErr, AS_LOCATION("Create", __LINE__));

  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd == -1) throw fail(errno, AS_LOCATION("Create", __LINE__));
  return std::unique_ptr<SharedMutex>(new SharedMutexImpl(fd, token));
}

}  // namespace Common
