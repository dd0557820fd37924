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

namespace Print {

void List(const Json& r) {
  std::vector<Row> rows = {{"MOUNTPOINT", "LABEL"}};
  for (const Json& s : r["storages"])
    rows.push_back({r["root"].get<std::string>() + "/" + Text(s["mountpoint"]), Text(s["label"])});
  if (r["storages"].empty())
    std::cout << "no storage is mounted below " << Text(r["root"]) << '\n';
  else
    Table(rows);
}

void Disks(const Json& disks) {
  std::vector<Row> rows = {{"NAME", "SIZE", "CONTROLLER", "ADDRESS", "SERIAL/UUID", "LABEL", "MOUNTPOINT", "SUPPORTED"}};
  for (const Json& d : disks) {
    rows.push_back({Text(d["name"]), Size(d["size"]), Text(d["controller"]), Text(d["address"]), Text(d["serial"]),
                    "", "", Text(d["supported"])});
    for (const Json& p : d["partitions"])
      rows.push_back({"  " + Text(p["name"]), Size(p["size"]), "", "", Text(p["uuid"]), Text(p["label"]),
                      Text(p["mountpoint"]), Text(p["supported"])});
  }
  Table(rows);
}

void Devices(const Json& r) {
  if (r["devices"].empty())
    std::cout << "no disk is offered for storages\n";
  else
    Disks(r["devices"]);
}

void Prepare(const Json& r) { Disks(Json::array({r["device"]})); }

void Label(const Json& r) { std::cout << Text(r["partition"]) << ": label '" << r["label"].get<std::string>() << "'\n"; }

void Mount(const Json& r) {
  std::cout << Text(r["partition"]) << " mounted on " << Text(r["root"]) << "/" << Text(r["mountpoint"]) << '\n';
}

void Unmount(const Json& r) { std::cout << Text(r["partition"]) << " unmounted\n"; }

void Temporary(const Json& r) { Lines(r["temporary"], "no disk is marked temporary"); }

void Attributes(const Json& r) {
  std::vector<Row> rows = {{"NAME", "VALUE"}};
  for (const auto& [name, value] : r["attributes"].items()) rows.push_back({name, value.get<std::string>()});
  if (r["attributes"].empty())
    std::cout << Text(r["disk"]) << " has no attributes\n";
  else
    Table(rows);
}

void Rescan(const Json& r) {
  Lines(r["added"], "no disk added", "added   ");
  Lines(r["removed"], "no disk removed", "removed ");
}

void Doctor(const Json& r) {
  std::vector<Row> rows;
  for (const Json& c : r["checks"]) rows.push_back({Text(c["check"]), Text(c["detail"])});
  Table(rows);
}

void Version(const Json& r) {
  std::cout << "libappliance_storage " << Text(r["library"]) << "\nmodule name:  " << Text(r["module"])
            << "\nmessage file: " << Text(r["message_file"]) << "\nregistry dir: " << Text(r["registry_dir"])
            << "\na message:    " << Text(r["message"]) << '\n';
}

}  // namespace Print

}  // namespace Storagectl
