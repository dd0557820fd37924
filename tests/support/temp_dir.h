#pragma once
// A fresh directory for one test, removed with everything in it at scope exit.
#include <stdlib.h>

#include <filesystem>
#include <string>

namespace TestSupport {

class TempDir {
 public:
  explicit TempDir(const std::string& under = "/var/tmp") : path_(under + "/as_test.XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) path_.clear();
  }
  ~TempDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace TestSupport
