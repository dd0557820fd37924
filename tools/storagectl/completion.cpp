// The words that may come next on a storagectl command line, for the bash completion:
// commands and options from the command table itself, disk and partition names from the
// current listing.
#include <CLI/CLI.hpp>
#include <map>
#include <sstream>

#include "core/common/unicode.h"
#include "storagectl.h"
#include "virtualization/common/storage/storage_manager.h"

namespace Storagectl {
namespace {

// What each command's operands name, in order: "DEVICE", "PARTITION" or the words allowed.
const std::map<std::string, std::vector<std::string>> kOperands = {
    {"prepare", {"DEVICE"}},        {"label", {"PARTITION"}},
    {"mount", {"PARTITION"}},       {"unmount", {"PARTITION"}},
    {"attributes", {"get set remove", "DEVICE"}},
};

std::vector<std::string> Options(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* option : app.get_options())
    if (option->nonpositional())
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

// None when the listing fails: completion never reports errors.
std::vector<std::string> Listed(const std::string& kind) {
  std::vector<std::string> names;
  try {
    for (const auto& device : Virtualization::Appliance::StoragesManager().GetBlockDevices(false)) {
      if (kind == "DEVICE") names.push_back(Common::ToUtf8(device->GetName()));
      if (kind == "PARTITION")
        for (const auto& partition : device->GetPartitions()) names.push_back(Common::ToUtf8(partition->GetName()));
    }
  } catch (const Common::Error&) {
  }
  return names;
}

}  // namespace

std::vector<std::string> Completions(const CLI::App& app, const std::vector<std::string>& words) {
  const CLI::App* command = nullptr;
  size_t operands = 0;
  for (const std::string& word : words) {
    if (!word.empty() && word[0] == '-') continue;
    if (command) {
      ++operands;
    } else {
      for (const CLI::App* sub : app.get_subcommands([](const CLI::App* s) { return !s->get_group().empty(); }))
        if (sub->get_name() == word) command = sub;
    }
  }
  if (!command) {
    std::vector<std::string> names = Options(app);
    for (const CLI::App* sub : app.get_subcommands([](const CLI::App* s) { return !s->get_group().empty(); }))
      names.push_back(sub->get_name());
    return names;
  }
  std::vector<std::string> names = Options(*command);
  const auto operand = kOperands.find(command->get_name());
  if (operand == kOperands.end() || operands >= operand->second.size()) return names;
  const std::string& kind = operand->second[operands];
  if (kind == "DEVICE" || kind == "PARTITION") {
    const std::vector<std::string> listed = Listed(kind);
    names.insert(names.end(), listed.begin(), listed.end());
  } else {
    std::istringstream allowed(kind);
    for (std::string word; allowed >> word;) names.push_back(word);
  }
  return names;
}

}  // namespace Storagectl
