#include "core/include/file/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "core/common/message_ids.h"
#include "processor/format/format_message.h"

namespace FileSystem {
namespace {

TextFromMessageFile MessageOf(uint32_t code) {
  switch (code) {
    case kErrorDiskFull: return Messages::DiskIsFull;
    case kErrorOpen: return Messages::FileOpenFailed;
    case kErrorRead: return Messages::FileReadFailed;
    case kErrorWrite: return Messages::FileWriteFailed;
    case kErrorDirectoryOpen: return Messages::DirectoryOpenFailed;
    case kErrorDirectoryRead: return Messages::DirectoryReadFailed;
    case kErrorDirectoryCreate: return Messages::DirectoryCreateFailed;
    case kErrorDirectoryRemove: return Messages::DirectoryRemoveFailed;
    default: return Messages::InvalidFileObject;
  }
}

std::string Join(const std::string& dir, const std::string& name) {
  if (dir.empty() || dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

EntryKind KindOf(int dirfd, const char* name, unsigned char type) {
  struct stat st;
  switch (type) {
    case DT_REG: return kRegular;
    case DT_DIR: return kDirectory;
    case DT_LNK:
      return fstatat(dirfd, name, &st, 0) == 0 && S_ISDIR(st.st_mode) ? kDirectoryLink : kSymlink;
    case DT_UNKNOWN:
      if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return kUnknown;
      if (S_ISLNK(st.st_mode)) return KindOf(dirfd, name, DT_LNK);
      if (S_ISDIR(st.st_mode)) return kDirectory;
      return S_ISREG(st.st_mode) ? kRegular : kSpecial;
    default: return kSpecial;
  }
}

}  // namespace

Common::Error MakeError(uint32_t code, const std::string& path, int err, const Common::ErrorLocation& where) {
  Common::Error e(code, Core::FormatMessage(MessageOf(code)), where, {{"path", path}});
  if (err != 0) e.AddPosixError(err, where);
  return e;
}

int ErrnoOf(const Common::Error& error) {
  for (Common::Error e = error; e; e = e.GetCause())
    if (e.GetCode() == Common::Error::kPosixCode) return static_cast<int>(e.GetNumericField("code"));
  return 0;
}

// ---- File ------------------------------------------------------------------------------

File::File(File&& other) noexcept : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

File& File::operator=(File&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = std::exchange(other.fd_, -1);
    path_ = std::move(other.path_);
  }
  return *this;
}

File::~File() {
  if (fd_ >= 0) ::close(fd_);
}

Common::Error File::Open(const std::string& path, Mode mode, File& out) {
  const int fd = ::open(path.c_str(), (mode == kRead ? O_RDONLY : O_WRONLY) | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) return MakeError(kErrorOpen, path, errno, AS_LOCATION("Open", __LINE__));
  File opened;
  opened.fd_ = fd;
  opened.path_ = path;
  out = std::move(opened);
  return Common::Error();
}

Common::Error File::Read(void* buffer, size_t limit, size_t& count) {
  const ssize_t n = TEMP_FAILURE_RETRY(::read(fd_, buffer, limit));
  if (n < 0) return MakeError(kErrorRead, path_, errno, AS_LOCATION("Read", __LINE__));
  count = static_cast<size_t>(n);
  return Common::Error();
}

Common::Error File::Write(const void* data, size_t size) {
  const ssize_t n = TEMP_FAILURE_RETRY(::write(fd_, data, size));
  if (n < 0) return MakeError(kErrorWrite, path_, errno, AS_LOCATION("Write", __LINE__));
  if (static_cast<size_t>(n) < size)
    return MakeError(kErrorDiskFull, path_, 0, AS_LOCATION("Write", __LINE__));
  return Common::Error();
}

// ---- Directory -------------------------------------------------------------------------

Directory::Directory(void* stream, std::string path) : stream_(stream), path_(std::move(path)) {
  while (path_.size() > 1 && path_.back() == '/') path_.pop_back();
}

Directory::~Directory() {
  if (stream_) ::closedir(static_cast<DIR*>(stream_));
}

std::unique_ptr<Directory> Directory::Open(const std::string& path, Common::Error* error) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* stream = fd >= 0 ? ::fdopendir(fd) : nullptr;
  if (stream == nullptr) {
    const int err = errno;
    if (fd >= 0) ::close(fd);
    if (error) *error = MakeError(kErrorDirectoryOpen, path, err, AS_LOCATION("Open", __LINE__));
    return nullptr;
  }
  return std::unique_ptr<Directory>(new Directory(stream, path));
}

std::unique_ptr<Directory> Directory::OpenChild(const std::string& name, Common::Error* error) const {
  return Open(Join(path_, name), error);
}

bool Directory::Next(Entry& entry) {
  DIR* dir = static_cast<DIR*>(stream_);
  for (;;) {
    errno = 0;
    const dirent* d = ::readdir(dir);
    if (d == nullptr) {
      if (errno != 0) {
        status_ = kErrorDirectoryRead;
        lastError_ = MakeError(kErrorDirectoryRead, path_, errno, AS_LOCATION("Next", __LINE__));
      } else {
        status_ = kStatusEndOfDirectory;
      }
      return false;
    }
    if (d->d_name[0] == '.' && (d->d_name[1] == '\0' || (d->d_name[1] == '.' && d->d_name[2] == '\0'))) continue;
    entry.name = d->d_name;
    entry.kind = KindOf(::dirfd(dir), d->d_name, d->d_type);
    status_ = kStatusNone;
    return true;
  }
}

bool Directory::Lookup(const std::string& name, EntryKind* kind) {
  struct stat st;
  if (::fstatat(::dirfd(static_cast<DIR*>(stream_)), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  if (kind) *kind = KindOf(::dirfd(static_cast<DIR*>(stream_)), name.c_str(), DT_UNKNOWN);
  return true;
}

bool Directory::CreateDir(const std::string& name) {
  if (::mkdirat(::dirfd(static_cast<DIR*>(stream_)), name.c_str(), 0777) == 0) return true;
  lastError_ = MakeError(kErrorDirectoryCreate, Join(path_, name), errno,
                         AS_LOCATION("CreateDir", __LINE__));
  return false;
}

bool Directory::RemoveDir(const std::string& name) {
  if (::unlinkat(::dirfd(static_cast<DIR*>(stream_)), name.c_str(), AT_REMOVEDIR) == 0) return true;
  lastError_ = MakeError(kErrorDirectoryRemove, Join(path_, name), errno,
                         AS_LOCATION("RemoveDir", __LINE__));
  return false;
}

Common::Error Directory::TakeLastError() { return std::exchange(lastError_, Common::Error()); }

}  // namespace FileSystem
