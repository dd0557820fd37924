#pragma once
// The library's small file-system layer: files and directories on POSIX file
// systems, with failures as Common::Error. Errors name the path in their "path"
// field and carry the errno as their cause. Descriptors are close-on-exec.
//
// Not thread-safe per object; distinct objects may be used on distinct threads.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "core/common/error.h"

namespace FileSystem {

// Error codes and walk statuses of the layer.
constexpr uint32_t kStatusNone = 0;
constexpr uint32_t kStatusEndOfDirectory = 0x40002;
constexpr uint32_t kErrorDiskFull = 0x40004;
constexpr uint32_t kErrorOpen = 0x40010;
constexpr uint32_t kErrorRead = 0x40011;
constexpr uint32_t kErrorWrite = 0x40012;
constexpr uint32_t kErrorDirectoryOpen = 0x40013;
constexpr uint32_t kErrorDirectoryRead = 0x40014;
constexpr uint32_t kErrorDirectoryCreate = 0x40015;
constexpr uint32_t kErrorDirectoryRemove = 0x40016;
constexpr uint32_t kErrorInvalidFileObject = 0x40031;

// Kind of a directory entry. A symbolic link to a directory (as every
// /sys/block/sdX and /sys/class/scsi_host/hostN is) is kDirectoryLink.
enum EntryKind : int {
  kUnknown = 0,
  kRegular = 1,
  kDirectory = 2,
  kSymlink = 3,
  kSpecial = 4,
  kDirectoryLink = 5,
};

// Makes a file-layer error: the message, the path as field "path", errno as cause.
Common::Error MakeError(uint32_t code, const std::string& path, int err, const Common::ErrorLocation& where);

// The errno at the bottom of `error`'s chain; 0 when there is none.
int ErrnoOf(const Common::Error& error);

// ---- Whole small files, in the manner of util-linux's path helpers ----------------------

// Up to `limit` bytes of `path` from its start, read until its end or the limit (sysfs
// attributes, a device's first sector, configuration). With `mode`, only a regular file
// is read (anything else is kErrorOpen with EISDIR or EINVAL) and `mode` gets its
// permission bits.
Common::Error ReadFile(const std::string& path, size_t limit, std::string& out, unsigned* mode = nullptr);
// The unsigned decimal that `path` starts with, up to a line feed or NUL: kErrorRead with
// EINVAL when there is none.
Common::Error ReadNumber(const std::string& path, uint64_t& out);
// All of `data` into the existing file `path` in one write, neither created nor truncated
// (sysfs commands); a short write is kErrorDiskFull.
Common::Error WriteFile(const std::string& path, const std::string& data);
// Creates `path` and its missing parents with `mode`; existing directories are fine.
Common::Error CreateDirectories(const std::string& path, unsigned mode = 0755);
// Replaces `path` by `data` whole, atomically and durably: written to `temporary` (a
// name beside it, truncated first), given `mode`, synced, renamed over `path`, and the
// directory synced. The error's path names the file of the step that failed; a failed
// step leaves `path` as it was.
Common::Error ReplaceFile(const std::string& path, const std::string& temporary, const std::string& data,
                          unsigned mode);

class File {
 public:
  enum Mode { kRead, kWrite };

  File() = default;
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File();

  // Opens an existing file; writing neither creates nor truncates (sysfs files).
  static Common::Error Open(const std::string& path, Mode mode, File& out);

  // One read of at most `limit` bytes (EINTR retried); `count` gets what came.
  Common::Error Read(void* buffer, size_t limit, size_t& count);
  // One write of all `size` bytes; a short write is kErrorDiskFull.
  Common::Error Write(const void* data, size_t size);

  const std::string& Path() const { return path_; }
  bool IsOpen() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
  std::string path_;
};

class Directory {
 public:
  struct Entry {
    std::string name;
    EntryKind kind = kUnknown;
  };

  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  // Null when the path cannot be opened as a directory; `error` (if given) says why.
  static std::unique_ptr<Directory> Open(const std::string& path, Common::Error* error = nullptr);
  std::unique_ptr<Directory> OpenChild(const std::string& name, Common::Error* error = nullptr) const;

  // The next entry other than "." and ".."; false at the end or on a failure,
  // which Status() then tells apart (kStatusEndOfDirectory or an error code).
  bool Next(Entry& entry);
  uint32_t Status() const { return status_; }

  // Whether `name` exists here, and its kind.
  bool Lookup(const std::string& name, EntryKind* kind = nullptr);
  // mkdir with the default mode / rmdir of an empty directory. A failure is also
  // kept as the directory's last error.
  bool CreateDir(const std::string& name);
  bool RemoveDir(const std::string& name);

  // The directory's path as opened, without a trailing "/".
  const std::string& FullPath() const { return path_; }
  bool HasError() const { return lastError_.IsError(); }
  // Moves the last error out; the directory is left without one.
  Common::Error TakeLastError();

 private:
  Directory(void* stream, std::string path);

  void* stream_ = nullptr;  // DIR*
  std::string path_;
  uint32_t status_ = kStatusNone;
  Common::Error lastError_;
};

}  // namespace FileSystem
