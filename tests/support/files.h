#pragma once
// Plain file-tree helpers of the harness. Failures throw std::runtime_error naming the
// path: a harness that cannot build its machine must stop the test loudly.
#include <cstdint>
#include <string>
#include <vector>

namespace FakeMachineTesting {

void MakeDirs(const std::string& path);
void WriteText(const std::string& path, const std::string& text);
bool ReadText(const std::string& path, std::string& text);
// `link` -> `target`, where target is written relative to link's directory the way the
// kernel writes sysfs links ("../devices/...").
void RelativeSymlink(const std::string& target, const std::string& link);
void SparseFile(const std::string& path, uint64_t bytes);
void RemoveTree(const std::string& path);
bool PathExists(const std::string& path);
std::string Dirname(const std::string& path);
std::string Basename(const std::string& path);
std::vector<std::string> ListDir(const std::string& path);  // sorted, without . and ..
// The lines of a file, without their line feeds; none when it cannot be read.
std::vector<std::string> ReadLines(const std::string& path);

}  // namespace FakeMachineTesting
