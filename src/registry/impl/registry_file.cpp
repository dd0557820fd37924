#include "registry/impl/registry_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "core/common/message_ids.h"
#include "core/common/module.h"
#include "core/common/unicode.h"
#include "registry/errors.h"
#include "registry/impl/errors.h"

namespace Registry {
namespace Detail {
namespace {

// Registry files are small; anything bigger is not one of ours.
constexpr off_t kMaxFileSize = 64 << 20;
constexpr unsigned kDefaultMode = 0644;

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  int Get() const { return fd_; }
  // Closes now, so that a failing close (a late write error) can be reported.
  int Close() {
    const int result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

Common::Error AccessError(const std::string& path, int err, const Common::ErrorLocation& where) {
  Common::Error error = FileError(kErrorFileAccess, Messages::RegistryAccessFailed, path, where);
  error.AddPosixError(err, where);
  return error;
}

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = ::write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Creates `directory` and its missing parents.
int MakeDirectories(const std::string& directory) {
  for (size_t slash = directory.find('/', 1);; slash = directory.find('/', slash + 1)) {
    const std::string part = directory.substr(0, slash);
    if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return errno;
    if (slash == std::string::npos) return 0;
  }
}

}  // namespace

RegistryFile::RegistryFile(const String& rootName)
    : rootName_(rootName), directory_(Common::ToUtf8(REG_LINUX_DIR, Common::Length(REG_LINUX_DIR))) {
  const std::string name = Common::ToUtf8(rootName);
  path_ = directory_ + "/" + name + ".xml";
  lockPath_ = directory_ + "/." + name + ".lock";
  tempPath_ = directory_ + "/." + name + ".xml.tmp";
}

Common::Error RegistryFile::Read(KeyNode& root) const {
  unsigned mode = 0;
  return ReadWithMode(root, mode);
}

Common::Error RegistryFile::ReadWithMode(KeyNode& root, unsigned& mode) const {
  Descriptor file(TEMP_FAILURE_RETRY(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)));
  if (file.Get() < 0) {
    if (errno != ENOENT) return AccessError(path_, errno, AS_HERE);
    root = KeyNode();
    mode = kDefaultMode;
    return Common::Error();
  }
  struct stat info;
  if (::fstat(file.Get(), &info) != 0) return AccessError(path_, errno, AS_HERE);
  if (!S_ISREG(info.st_mode)) return AccessError(path_, S_ISDIR(info.st_mode) ? EISDIR : EINVAL, AS_HERE);
  if (info.st_size > kMaxFileSize) return AccessError(path_, EFBIG, AS_HERE);

  // Read to the end rather than trusting st_size: someone may be editing by hand.
  std::string data;
  data.resize(static_cast<size_t>(info.st_size) + 1);
  size_t used = 0;
  for (;;) {
    if (used == data.size()) {
      if (data.size() > static_cast<size_t>(kMaxFileSize)) return AccessError(path_, EFBIG, AS_HERE);
      data.resize(data.size() * 2);
    }
    const ssize_t n = ::read(file.Get(), &data[used], data.size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return AccessError(path_, errno, AS_HERE);
    if (n == 0) break;
    used += static_cast<size_t>(n);
  }
  mode = info.st_mode & 07777;
  return ParseRegistryDocument(data.data(), used, path_, root);
}

Common::Error RegistryFile::Update(const Change& change) const {
  if (const int err = MakeDirectories(directory_)) return AccessError(directory_, err, AS_HERE);
  Descriptor lock(
      TEMP_FAILURE_RETRY(::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0644)));
  if (lock.Get() < 0) return AccessError(lockPath_, errno, AS_HERE);
  if (TEMP_FAILURE_RETRY(::flock(lock.Get(), LOCK_EX)) != 0) return AccessError(lockPath_, errno, AS_HERE);

  KeyNode root;
  unsigned mode = kDefaultMode;
  if (Common::Error error = ReadWithMode(root, mode)) return error;
  bool changed = false;
  if (Common::Error error = change(root, changed)) return error;
  if (!changed) return Common::Error();
  return Replace(SerializeRegistryDocument(root, rootName_), mode);
}

Common::Error RegistryFile::Replace(const std::string& document, unsigned mode) const {
  {
    Descriptor temp(TEMP_FAILURE_RETRY(
        ::open(tempPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600)));
    if (temp.Get() < 0) return AccessError(tempPath_, errno, AS_HERE);
    if (::fchmod(temp.Get(), mode) != 0 || !WriteAll(temp.Get(), document) || ::fsync(temp.Get()) != 0 ||
        temp.Close() != 0) {
      const int err = errno;
      ::unlink(tempPath_.c_str());
      return AccessError(path_, err, AS_HERE);
    }
  }
  if (::rename(tempPath_.c_str(), path_.c_str()) != 0) {
    const int err = errno;
    ::unlink(tempPath_.c_str());
    return AccessError(path_, err, AS_HERE);
  }
  // The rename itself must reach the disk before we report the change as made.
  Descriptor directory(TEMP_FAILURE_RETRY(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (directory.Get() < 0) return AccessError(directory_, errno, AS_HERE);
  if (::fsync(directory.Get()) != 0 && errno != EINVAL) return AccessError(directory_, errno, AS_HERE);
  return Common::Error();
}

}  // namespace Detail
}  // namespace Registry
