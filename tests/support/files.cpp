#include "files.h"

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace FakeMachineTesting {

void WriteText(const std::string& path, const std::string& text) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out.write(text.data(), static_cast<std::streamsize>(text.size())).flush())
    throw std::runtime_error("cannot write " + path);
}

bool ReadText(const std::string& path, std::string& text) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream out;
  out << in.rdbuf();
  text = out.str();
  return true;
}

void RelativeSymlink(const std::string& target, const std::string& link) {
  const fs::path to(target), from = fs::path(link).parent_path();
  // The target's own name is spelled out even where it is an ancestor of the link
  // ("../../../2:0:1:0", not "../.."): readers take the link's last component.
  fs::create_directories(from);
  fs::remove(link);
  fs::create_symlink(to.parent_path().lexically_relative(from) / to.filename(), link);
}

void SparseFile(const std::string& path, uint64_t bytes) {
  WriteText(path, "");
  fs::resize_file(path, bytes);
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code unreadable;
  for (const fs::directory_entry& entry : fs::directory_iterator(path, unreadable))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> ReadLines(const std::string& path) {
  std::vector<std::string> lines;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::string FirstLine(const std::string& path) {
  const std::vector<std::string> lines = ReadLines(path);
  return lines.empty() ? std::string() : lines.front();
}

}  // namespace FakeMachineTesting
