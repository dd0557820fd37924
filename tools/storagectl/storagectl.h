#pragma once
// storagectl: the administrators' tool over the library's public interface. Each
// command returns its result as one JSON object; the text view is made from it.
#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "core/common/error.h"

namespace CLI {
class App;
}

namespace Storagectl {

using Json = nlohmann::json;

// Input the tool itself turns down: one line, exit code 1, or 2 for a usage error.
struct Refusal {
  std::string message;
  int exitCode = 1;
};

Json List();
// What long work is at, for a person to watch: a line each.
using Progress = std::function<void(const std::string&)>;

Json Devices(bool rescan, const Progress& progress);
// Asks on a terminal unless `yes`; `step` gets each step as the library traces it. With
// `wipe`, what libblkid finds on the disk is named in the question and erased first.
Json Prepare(const std::string& device, bool yes, bool wipe, const std::function<void(const std::string&)>& step);
Json Label(const std::string& partition, const std::optional<std::string>& label);
Json Mount(const std::string& partition, const std::string& name);
Json Unmount(const std::string& partition);
Json Temporary();
Json Attributes(const std::string& action, const std::string& disk, const std::optional<std::string>& name,
                const std::optional<std::string>& value);
Json Rescan(const Progress& progress);
Json Doctor();
Json Version();

// The human-readable views of the commands' results, on stdout.
using Printer = void (*)(const Json& result);
namespace Print {
void List(const Json&);
void Devices(const Json&);
void Prepare(const Json&);
void Label(const Json&);
void Mount(const Json&);
void Unmount(const Json&);
void Temporary(const Json&);
void Attributes(const Json&);
void Rescan(const Json&);
void Doctor(const Json&);
void Version(const Json&);
}  // namespace Print

// The words that may follow `words` (the command line so far, without the program).
std::vector<std::string> Completions(const CLI::App& app, const std::vector<std::string>& words);

// The manual page, in roff, from the help texts of `app` and its commands.
std::string ManPage(const CLI::App& app);

// The whole chain: code, text and place of each error, causes indented.
void PrintError(const Common::Error& error, std::FILE* out);
Json ErrorJson(const Common::Error& error);

}  // namespace Storagectl
