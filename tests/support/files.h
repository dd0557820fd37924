#pragma once
// File-tree helpers of the harness, on std::filesystem. Failures throw, naming the path:
// a harness that cannot build its machine must stop the test loudly.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace FakeMachineTesting {

namespace fs = std::filesystem;

void WriteText(const std::string& path, const std::string& text);  // parents included
bool ReadText(const std::string& path, std::string& text);
// `link` -> `target`, relative to the link's directory as the kernel writes sysfs links.
void RelativeSymlink(const std::string& target, const std::string& link);
void SparseFile(const std::string& path, uint64_t bytes);
std::vector<std::string> ListDir(const std::string& path);   // sorted; none when unreadable
std::vector<std::string> ReadLines(const std::string& path);  // without line feeds
std::string FirstLine(const std::string& path);              // "" when unreadable

}  // namespace FakeMachineTesting
