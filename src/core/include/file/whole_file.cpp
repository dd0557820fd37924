// Whole small files: the reads, writes and replacements that the subsystems share.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "core/common/decimal.h"
#include "core/include/file/descriptor.h"
#include "core/include/file/file.h"

namespace FileSystem {
namespace {

Common::Error Failed(uint32_t code, const std::string& path, int err = errno) {
  return MakeError(code, path, err, AS_LOCATION_AT("core/include/file", "WholeFile", __LINE__));
}

bool WriteAll(int fd, const char* data, size_t size) {
  for (size_t done = 0; done < size;) {
    const ssize_t n = ::write(fd, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

Common::Error ReadFile(const std::string& path, size_t limit, std::string& out, unsigned* mode) {
  const Descriptor fd(TEMP_FAILURE_RETRY(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)));
  if (fd.get() < 0) return Failed(kErrorOpen, path);
  if (mode) {
    struct stat info;
    if (::fstat(fd.get(), &info) != 0) return Failed(kErrorOpen, path);
    if (!S_ISREG(info.st_mode)) return Failed(kErrorOpen, path, S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
    *mode = info.st_mode & 07777;
  }
  std::string data;
  for (size_t used = 0;;) {
    data.resize(std::min(limit, std::max<size_t>(used * 2, 4096)));
    if (used == limit) break;
    const ssize_t n = ::read(fd.get(), &data[used], data.size() - used);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Failed(kErrorRead, path);
    if (n == 0) {
      data.resize(used);
      break;
    }
    used += static_cast<size_t>(n);
  }
  out.swap(data);
  return {};
}

Common::Error ReadNumber(const std::string& path, uint64_t& out) {
  std::string text;
  if (Common::Error error = ReadFile(path, 64, text)) return error;
  const size_t end = text.find_first_of(std::string("\n\0", 2));
  if (!Common::ParseDecimal(std::string_view(text).substr(0, end), out)) return Failed(kErrorRead, path, EINVAL);
  return {};
}

Common::Error WriteFile(const std::string& path, const std::string& data) {
  File file;
  if (Common::Error error = File::Open(path, File::kWrite, file)) return error;
  return file.Write(data.data(), data.size());
}

Common::Error CreateDirectories(const std::string& path, unsigned mode) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const std::string part = path.substr(0, slash);
    if (::mkdir(part.c_str(), mode) != 0 && errno != EEXIST) return Failed(kErrorDirectoryCreate, part);
    if (slash == std::string::npos) break;
  }
  struct stat info;
  // EEXIST also comes for a file of that name.
  if (::stat(path.c_str(), &info) != 0) return Failed(kErrorDirectoryCreate, path);
  if (!S_ISDIR(info.st_mode)) return Failed(kErrorDirectoryCreate, path, ENOTDIR);
  return {};
}

Common::Error ReplaceFile(const std::string& path, const std::string& temporary, const std::string& data,
                          unsigned mode) {
  Descriptor temp(TEMP_FAILURE_RETRY(
      ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0600)));
  if (temp.get() < 0) return Failed(kErrorOpen, temporary);
  // A late write error may only show at close.
  if (::fchmod(temp.get(), mode) != 0 || !WriteAll(temp.get(), data.data(), data.size()) || ::fsync(temp.get()) != 0 ||
      ::close(temp.release()) != 0) {
    const int err = errno;
    ::unlink(temporary.c_str());
    return Failed(kErrorWrite, path, err);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    const int err = errno;
    ::unlink(temporary.c_str());
    return Failed(kErrorWrite, path, err);
  }
  // The rename itself must reach the disk before the change counts as made.
  const size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  const Descriptor dir(TEMP_FAILURE_RETRY(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)));
  if (dir.get() < 0) return Failed(kErrorOpen, directory);
  if (::fsync(dir.get()) != 0 && errno != EINVAL) return Failed(kErrorWrite, directory);
  return {};
}

}  // namespace FileSystem
