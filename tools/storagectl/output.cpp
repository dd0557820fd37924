// The text views of the commands' results: tables with a header line.
#include <iostream>
#include <map>
#include <vector>

#include "storagectl.h"

namespace Storagectl {
namespace {

using Row = std::vector<std::string>;

void Table(const std::vector<Row>& rows) {
  std::vector<size_t> widths;
  for (const Row& row : rows)
    for (size_t i = 0; i < row.size(); ++i) {
      widths.resize(std::max(widths.size(), row.size()));
      widths[i] = std::max(widths[i], row[i].size());
    }
  for (const Row& row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i)
      line += row[i] + std::string(i + 1 < row.size() ? widths[i] - row[i].size() + 2 : 0, ' ');
    std::cout << line << '\n';
  }
}

std::string Text(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  return value.is_string() ? (value.get<std::string>().empty() ? "-" : value.get<std::string>()) : value.dump();
}

std::string Size(uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f GiB", static_cast<double>(bytes) / (1ull << 30));
  return text;
}

void Lines(const Json& list, const std::string& none, const std::string& prefix = "") {
  if (list.empty()) std::cout << none << '\n';
  for (const Json& item : list) std::cout << prefix << item.get<std::string>() << '\n';
}

}  // namespace

void PrintText(const std::string& command, const Json& r) {
  if (command == "list") {
    std::vector<Row> rows = {{"MOUNTPOINT", "LABEL"}};
    for (const Json& s : r["storages"])
      rows.push_back({r["root"].get<std::string>() + "/" + Text(s["mountpoint"]), Text(s["label"])});
    if (r["storages"].empty())
      std::cout << "no storage is mounted below " << Text(r["root"]) << '\n';
    else
      Table(rows);
  } else if (command == "devices" || command == "prepare") {
    std::vector<Row> rows = {
        {"NAME", "SIZE", "CONTROLLER", "ADDRESS", "SERIAL/UUID", "LABEL", "MOUNTPOINT", "SUPPORTED"}};
    for (const Json& d : command == "devices" ? r["devices"] : Json::array({r["device"]})) {
      rows.push_back({Text(d["name"]), Size(d["size"]), Text(d["controller"]), Text(d["address"]), Text(d["serial"]),
                      "", "", Text(d["supported"])});
      for (const Json& p : d["partitions"])
        rows.push_back({"  " + Text(p["name"]), Size(p["size"]), "", "", Text(p["uuid"]), Text(p["label"]),
                        Text(p["mountpoint"]), Text(p["supported"])});
    }
    if (command == "devices" && r["devices"].empty())
      std::cout << "no disk is offered for storages\n";
    else
      Table(rows);
  } else if (command == "label") {
    std::cout << Text(r["partition"]) << ": label '" << r["label"].get<std::string>() << "'\n";
  } else if (command == "mount") {
    std::cout << Text(r["partition"]) << " mounted on " << Text(r["root"]) << "/" << Text(r["mountpoint"]) << '\n';
  } else if (command == "unmount") {
    std::cout << Text(r["partition"]) << " unmounted\n";
  } else if (command == "temporary") {
    Lines(r["temporary"], "no disk is marked temporary");
  } else if (command == "attributes") {
    std::vector<Row> rows = {{"NAME", "VALUE"}};
    for (const auto& [name, value] : r["attributes"].items()) rows.push_back({name, value.get<std::string>()});
    if (r["attributes"].empty())
      std::cout << Text(r["disk"]) << " has no attributes\n";
    else
      Table(rows);
  } else if (command == "rescan") {
    Lines(r["added"], "no disk added", "added   ");
    Lines(r["removed"], "no disk removed", "removed ");
  } else if (command == "doctor") {
    std::vector<Row> rows;
    for (const Json& c : r["checks"]) rows.push_back({Text(c["check"]), Text(c["detail"])});
    Table(rows);
  } else if (command == "version") {
    std::cout << "libappliance_storage " << Text(r["library"]) << "\nmodule name:  " << Text(r["module"])
              << "\nmessage file: " << Text(r["message_file"]) << "\nregistry dir: " << Text(r["registry_dir"])
              << "\na message:    " << Text(r["message"]) << '\n';
  }
}

}  // namespace Storagectl
