#include "registry/impl/registry_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "core/common/message_ids.h"
#include "core/common/module.h"
#include "core/common/unicode.h"
#include "core/include/file/descriptor.h"
#include "core/include/file/file.h"
#include "registry/errors.h"
#include "registry/impl/errors.h"

namespace Registry {
namespace Detail {
namespace {

// Registry files are small; anything bigger is not one of ours.
constexpr size_t kMaxFileSize = 64 << 20;
constexpr unsigned kDefaultMode = 0644;

Common::Error AccessError(const std::string& path, int err, const Common::ErrorLocation& where) {
  Common::Error error = FileError(kErrorFileAccess, Messages::RegistryAccessFailed, path, where);
  error.AddPosixError(err, where);
  return error;
}

// The file layer's error as the registry's, for the file it names.
Common::Error AccessError(const Common::Error& error, const Common::ErrorLocation& where) {
  const char* path = error.GetStringField("path");
  return AccessError(path ? path : "", FileSystem::ErrnoOf(error), where);
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
  // Read to the end rather than trusting the size: someone may be editing by hand.
  std::string data;
  if (Common::Error error = FileSystem::ReadFile(path_, kMaxFileSize + 1, data, &mode)) {
    if (FileSystem::ErrnoOf(error) != ENOENT) return AccessError(error, AS_HERE);
    root = KeyNode();
    mode = kDefaultMode;
    return Common::Error();
  }
  if (data.size() > kMaxFileSize) return AccessError(path_, EFBIG, AS_HERE);
  return ParseRegistryDocument(data.data(), data.size(), path_, root);
}

Common::Error RegistryFile::Update(const Change& change) const {
  if (Common::Error error = FileSystem::CreateDirectories(directory_)) return AccessError(error, AS_HERE);
  const FileSystem::Descriptor lock(
      TEMP_FAILURE_RETRY(::open(lockPath_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY, 0644)));
  if (lock.get() < 0) return AccessError(lockPath_, errno, AS_HERE);
  if (TEMP_FAILURE_RETRY(::flock(lock.get(), LOCK_EX)) != 0) return AccessError(lockPath_, errno, AS_HERE);

  KeyNode root;
  unsigned mode = kDefaultMode;
  if (Common::Error error = ReadWithMode(root, mode)) return error;
  bool changed = false;
  if (Common::Error error = change(root, changed)) return error;
  if (!changed) return Common::Error();
  return Replace(SerializeRegistryDocument(root, rootName_), mode);
}

Common::Error RegistryFile::Replace(const std::string& document, unsigned mode) const {
  if (Common::Error error = FileSystem::ReplaceFile(path_, tempPath_, document, mode)) return AccessError(error, AS_HERE);
  return Common::Error();
}

}  // namespace Detail
}  // namespace Registry
