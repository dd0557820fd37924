#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace FakeMachineTesting {
namespace {

[[noreturn]] void Fail(const char* what, const std::string& path) {
  throw std::runtime_error(std::string(what) + " " + path + ": " + std::strerror(errno));
}

std::vector<std::string> Split(const std::string& path) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

}  // namespace

void MakeDirs(const std::string& path) {
  std::string current;
  for (const std::string& part : Split(path)) {
    current += "/" + part;
    if (::mkdir(current.c_str(), 0755) != 0 && errno != EEXIST) Fail("mkdir", current);
  }
}

void WriteText(const std::string& path, const std::string& text) {
  MakeDirs(Dirname(path));
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) Fail("open", path);
  ssize_t written = ::write(fd, text.data(), text.size());
  ::close(fd);
  if (written != static_cast<ssize_t>(text.size())) Fail("write", path);
}

bool ReadText(const std::string& path, std::string& text) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  text.clear();
  char buffer[4096];
  ssize_t got;
  while ((got = ::read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<size_t>(got));
  ::close(fd);
  return got == 0;
}

void RelativeSymlink(const std::string& target, const std::string& link) {
  std::vector<std::string> from = Split(Dirname(link)), to = Split(target);
  size_t common = 0;
  // The target's own name is always spelled out, even when it is an ancestor of the
  // link ("../../../2:0:1:0", not "../../"): readers take the link's last component.
  while (common < from.size() && common + 1 < to.size() && from[common] == to[common]) ++common;
  std::string relative;
  for (size_t i = common; i < from.size(); ++i) relative += "../";
  for (size_t i = common; i < to.size(); ++i) relative += to[i] + (i + 1 < to.size() ? "/" : "");
  MakeDirs(Dirname(link));
  ::unlink(link.c_str());
  if (::symlink(relative.c_str(), link.c_str()) != 0) Fail("symlink", link);
}

void SparseFile(const std::string& path, uint64_t bytes) {
  MakeDirs(Dirname(path));
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0660);
  if (fd < 0) Fail("open", path);
  int result = ::ftruncate(fd, static_cast<off_t>(bytes));
  ::close(fd);
  if (result != 0) Fail("truncate", path);
}

void RemoveTree(const std::string& path) {
  struct stat st;
  if (::lstat(path.c_str(), &st) != 0) return;
  if (S_ISDIR(st.st_mode)) {
    for (const std::string& entry : ListDir(path)) RemoveTree(path + "/" + entry);
    if (::rmdir(path.c_str()) != 0) Fail("rmdir", path);
  } else if (::unlink(path.c_str()) != 0) {
    Fail("unlink", path);
  }
}

bool PathExists(const std::string& path) {
  struct stat st;
  return ::lstat(path.c_str(), &st) == 0;
}

std::string Dirname(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

std::string Basename(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(path.c_str());
  if (!dir) return names;
  while (dirent* entry = ::readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
      names.emplace_back(entry->d_name);
    }
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::string text;
  if (!ReadText(path, text)) return lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

}  // namespace FakeMachineTesting
