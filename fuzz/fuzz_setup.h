#pragma once
// Start-up shared by the parser fuzzers. Mutation stays within a few kilobytes, past
// every line buffer the parsers use (256 and 1024 bytes), where it runs thousands of
// times faster than on megabyte inputs; the megabyte lines are fed once at start-up.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Fuzz {

using Target = int (*)(const uint8_t* data, size_t size);

// For LLVMFuzzerInitialize: feeds `longInputs` to `target`, then makes `maxLen` the
// length limit unless the command line sets one (a later flag wins).
inline int Setup(int* argc, char*** argv, size_t maxLen, const std::vector<std::string>& longInputs, Target target) {
  for (const std::string& input : longInputs) target(reinterpret_cast<const uint8_t*>(input.data()), input.size());
  static std::string flag = "-max_len=" + std::to_string(maxLen);
  static std::vector<char*> args;
  args.assign(*argv, *argv + *argc);
  args.insert(args.begin() + (*argc > 0 ? 1 : 0), &flag[0]);
  args.push_back(nullptr);
  *argc = static_cast<int>(args.size() - 1);
  *argv = args.data();
  return 0;
}

}  // namespace Fuzz
