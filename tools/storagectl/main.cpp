// storagectl: the appliance's local storages for administrators. Exit status: 0
// success, 1 an error (the library's whole error chain is printed), 2 a usage error.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"
#include "resource_api.h"
#include "storagectl.h"
#include "virtualization/common/storage/errors.h"

using namespace Storagectl;

namespace {

// --trace: every event of the library on standard error.
class TracePrinter : public TraceTools::TraceSubscriber {
 public:
  TracePrinter() { TraceTools::Subscribe(this); }
  ~TracePrinter() override { TraceTools::Unsubscribe(this); }
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    std::cerr << "trace " << e.level << " " << e.code << ": " << Common::ToUtf8(e.text, e.length) << std::endl;
  }
};

// Long work on a terminal: each line with the seconds since the command began. Nothing
// when the output goes elsewhere or is JSON.
class Watch {
 public:
  void Show(bool shown) { shown_ = shown && isatty(STDOUT_FILENO); }
  bool Shown() const { return shown_; }
  void operator()(const std::string& line) const {
    if (!shown_) return;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    char time[32];
    std::snprintf(time, sizeof time, "%6.1f s  ", seconds);
    std::cout << time << line << std::endl;
  }

 private:
  bool shown_ = false;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// The innermost command that the arguments reached.
const CLI::App* Reached(const CLI::App* app) {
  const auto subs = app->get_subcommands();
  return subs.empty() ? app : Reached(subs.front());
}

std::string UsageLine(const CLI::App* app) {
  std::string name = app->get_name();
  for (const CLI::App* p = app->get_parent(); p; p = p->get_parent()) name = p->get_name() + " " + name;
  return CLI::Formatter().make_usage(app, name);
}

int Usage(const CLI::App* app, const std::string& message) {
  std::cerr << "storagectl: " << message << '\n' << UsageLine(app);
  return 2;
}

// A storagectl run from its build tree speaks the languages built beside it: the tree's
// root (which holds CMakeCache.txt) is two levels above the program's folder.
void UseCataloguesBuiltBeside() {
  if (std::getenv("ZEMLORA_RESOURCE_DIR")) return;
  std::error_code error;
  const std::filesystem::path root = std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "../..";
  if (!error && std::filesystem::exists(root / "CMakeCache.txt", error) &&
      std::filesystem::is_directory(root / "resources", error))
  {
    setenv("ZEMLORA_RESOURCE_DIR", (root / "resources").lexically_normal().c_str(), 1);
    // The library loaded its texts at start, from elsewhere: a first lookup subscribes it
    // to language changes, and the same language set again loads them from here.
    (void)GetTextFromMessageFile(Messages::InternalError);
    char language[64];
    ResourceApi::GetLanguage(language, sizeof language);
    ResourceApi::SetLanguage(language);
  }
}

bool Holds(const Common::Error& error, uint32_t code) {
  for (Common::Error e = error; e; e = e.GetCause())
    if (e.GetCode() == code) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  UseCataloguesBuiltBeside();
  CLI::App app(
      "Administers the appliance's local storages through libappliance_storage: lists the disks and the "
      "storages (mounted ext4 partitions labelled ZLM...), prepares blank disks, labels, mounts and unmounts "
      "storages, and checks that the machine has what the library needs.",
      "storagectl");
  app.footer(
      "Exit status: 0 success; 1 an error, printed with its whole chain (code, text, place, causes); 2 a usage "
      "error, printed with the usage line. --json prints one JSON object per command on standard output (an "
      "error as {\"error\": {...}}).");
  app.fallthrough();
  bool json = false, trace = false;
  Watch watch;
  app.add_flag("--json", json, "Print the result as one JSON object");
  app.add_flag("--trace", trace, "Print the library's trace events to standard error");

  // The commands: what each does and changes (its help), how it runs, how it prints.
  struct Command {
    std::function<Json()> run;
    Printer print;
  };
  std::map<const CLI::App*, Command> commands;
  const auto command = [&](const char* name, const char* does, const char* changes, std::function<Json()> run,
                           Printer print) {
    CLI::App* sub = app.add_subcommand(name, does);
    sub->footer(std::string("Changes on disk: ") + changes);
    commands[sub] = {std::move(run), print};
    return sub;
  };

  command("list", "Lists the storages: mount point and label of every mounted storage partition.", "nothing.",
          [] { return List(); }, Print::List);
  bool rescan = false;
  command("devices",
          "Lists the disks that the library offers for storages (size, controller, host:channel:target:lun, "
          "serial) and their partitions (UUID, label, mount point, supported).",
          "nothing; with --rescan, disks without a mounted partition are removed from the kernel and the SCSI "
          "hosts rescanned, which brings them back.",
          [&] { return Devices(rescan, watch); }, Print::Devices)
      ->add_flag("--rescan", rescan, "Rescan the SCSI hosts first");
  std::string device;
  bool yes = false, wipe = false;
  CLI::App* prepare = command(
      "prepare",
      "Makes DEVICE (sdb or /dev/sdb) one storage: one GPT partition, ext4, labelled ZLM. Prints a line per step. "
      "Asks for confirmation on a terminal; without one, --yes is required. A disk that may hold data is refused; "
      "--wipe reuses it on purpose: the confirmation names what libblkid finds on it (partition tables, file "
      "systems, swap, RAID and LVM members, encrypted volumes; partition, type and label), which is erased first.",
      "destroys everything on DEVICE: zeroes its first sector, writes a new partition table, formats the partition "
      "and labels it; with --wipe, first erases every signature on the disk and its partitions (the bytes by which "
      "they are recognised, as wipefs does). The library refuses, before writing anything, the system disk, a disk "
      "with anything mounted and, without --wipe, a disk on which libblkid recognises anything or that holds more "
      "than one partition.",
      [&] {
        return Prepare(device, yes, wipe, [&](const std::string& step) {
          if (watch.Shown())
            watch(step);
          else if (!json && step.compare(0, 2, "  ") != 0)  // mke2fs's own lines only on a terminal
            std::cout << step << std::endl;
        });
      },
      Print::Prepare);
  prepare->add_option("DEVICE", device, "The disk, as 'storagectl devices' names it")->required();
  prepare->add_flag("--yes", yes, "Do not ask for confirmation");
  prepare->add_flag("--wipe", wipe, "Erase what the disk holds, naming it, before preparing it");
  std::string partition, name;
  std::optional<std::string> label;
  CLI::App* labelCmd =
      command("label", "Prints the label of PARTITION without its ZLM prefix, or sets it to ZLM+LABEL.",
              "with LABEL, the file-system label of PARTITION (tune2fs).", [&] { return Label(partition, label); },
              Print::Label);
  labelCmd->add_option("PARTITION", partition, "The partition (sdb1)")->required();
  labelCmd->add_option("LABEL", label, "The new label, without the ZLM prefix");
  CLI::App* mount =
      command("mount", "Mounts PARTITION on the directory NAME below the mount root, creating it.",
              "the mount table; an unlabelled file system gets the label ZLM.", [&] { return Mount(partition, name); },
              Print::Mount);
  mount->add_option("PARTITION", partition, "The partition (sdb1)")->required();
  mount->add_option("NAME", name, "The mount directory's name, one path component")->required();
  command("unmount", "Unmounts PARTITION and removes its mount directory.", "the mount table.",
          [&] { return Unmount(partition); }, Print::Unmount)
      ->add_option("PARTITION", partition, "The partition (sdb1)")
      ->required();
  command("temporary",
          "Lists the disks marked with the attribute Temporary and drops the attribute records of disks that "
          "are gone.",
          "nothing on the disks; the registry's records of absent disks.", [] { return Temporary(); },
          Print::Temporary);
  std::string action, disk;
  std::optional<std::string> attribute, value;
  CLI::App* attributes = command(
      "attributes",
      "Shows (get DISK [NAME]), sets (set DISK NAME VALUE) or removes (remove DISK NAME) the attributes that the "
      "appliance keeps for a SCSI disk. A disk with the attribute Temporary is hidden from storages.",
      "nothing on the disk; its record in the registry.", [&] { return Attributes(action, disk, attribute, value); },
      Print::Attributes);
  attributes->add_option("ACTION", action, "get, set or remove")
      ->required()
      ->check(CLI::IsMember({"get", "set", "remove"}));
  attributes->add_option("DISK", disk, "The disk (sdb)")->required();
  attributes->add_option("NAME", attribute, "The attribute's name");
  attributes->add_option("VALUE", value, "The attribute's value (set)");
  command("rescan", "Rescans the SCSI hosts and disks and lists the disks that came or went.",
          "nothing on the disks; the kernel's list of disks.", [&] { return Rescan(watch); }, Print::Rescan);
  command("doctor",
          "Checks what the library needs, one line each, ok or what to do: root, the tools in PATH, the mount "
          "root, the registry and lock directories. Exits 1 when something is missing.",
          "nothing.", [] { return Doctor(); }, Print::Doctor);
  command("version", "Prints the library's version and module identity.", "nothing.", [] { return Version(); },
          Print::Version);
  CLI::App* man = app.add_subcommand("man", "Prints the manual page in roff")->group("");


  // "storagectl complete WORD...", for the shell: what may follow WORD..., never parsed.
  if (argc > 1 && std::string(argv[1]) == "complete") {
    for (const std::string& word : Completions(app, {argv + 2, argv + argc})) std::cout << word << '\n';
    return 0;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return Usage(Reached(&app), e.what());
  }
  const CLI::App* chosen = Reached(&app);
  if (chosen == &app) return Usage(&app, "a command is required");
  if (chosen == man) return std::cout << ManPage(app), 0;

  watch.Show(!json);
  std::optional<TracePrinter> printer;
  if (trace) printer.emplace();
  Json result;
  try {
    result = commands.at(chosen).run();
  } catch (const Refusal& r) {
    if (r.exitCode == 2) return Usage(chosen, r.message);
    std::cerr << "storagectl: " << r.message << '\n';
    return r.exitCode;
  } catch (const Common::Error& e) {
    if (json) std::cout << Json{{"error", ErrorJson(e)}}.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
    PrintError(e, stderr);
    if (chosen == prepare && !wipe && Holds(e, Virtualization::Appliance::kErrorDiskHasPartitionTable))
      std::cerr << "storagectl: hint: " << device << " may hold data; 'storagectl prepare --wipe " << device
                << "' names what it holds and, once confirmed, erases it\n";
    return 1;
  }
  if (json)
    std::cout << result.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
  else
    commands.at(chosen).print(result);
  return result.value("ok", true) ? 0 : 1;
}
