#pragma once
// The file that holds one root key: REG_LINUX_DIR/<root name>.xml.
//
// Readers take no lock: a file is only ever replaced whole, by rename, so a reader
// sees either the old or the new document. Writers take an exclusive flock on
// ".<root name>.lock" beside it (shared by every process and thread), read the
// current document, change it, write ".<root name>.xml.tmp", fsync it, rename it
// over the file and fsync the directory. A writer killed half-way leaves at most the
// temporary file, which the next writer truncates. A file that does not parse is
// never replaced: the change fails with the corrupt-file error.
#include <functional>
#include <string>

#include "core/common/error.h"
#include "registry/document.h"

namespace Registry {
namespace Detail {

class RegistryFile {
 public:
  explicit RegistryFile(const String& rootName);

  // The current document; an empty root when the file or its directory is missing.
  Common::Error Read(KeyNode& root) const;

  // Sets `changed` when it changed the tree; an error or no change writes nothing.
  using Change = std::function<Common::Error(KeyNode& root, bool& changed)>;
  Common::Error Update(const Change& change) const;

 private:
  Common::Error ReadWithMode(KeyNode& root, unsigned& mode) const;
  Common::Error Replace(const std::string& document, unsigned mode) const;

  String rootName_;
  std::string directory_;
  std::string path_;
  std::string lockPath_;
  std::string tempPath_;
};

}  // namespace Detail
}  // namespace Registry
