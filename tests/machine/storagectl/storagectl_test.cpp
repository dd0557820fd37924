// storagectl on a faked machine: what it shows, what it refuses, its exit codes.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utmp.h>

#include <gtest/gtest.h>

#include <future>
#include <regex>
#include <utility>
#include <nlohmann/json.hpp>

#include "child.h"
#include "fake_machine.h"

namespace {

using FakeMachineTesting::FakeMachine;
using FakeMachineTesting::operator""_GiB;
using Json = nlohmann::json;
using Names = std::vector<std::string>;
constexpr auto npos = std::string::npos;

struct Result {
  int code;
  std::string out, err;
  Json json() const { return Json::parse(out); }
};

// storagectl with `args` (plain words), standard input not a terminal; `env` as VAR=value words.
Result Ctl(const std::string& args, const std::string& env = "") {
  const int status = std::system((env + " " STORAGECTL " " + args + " </dev/null >/tmp/ctl.out 2>/tmp/ctl.err").c_str());
  Result r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, "", ""};
  FakeMachineTesting::ReadText("/tmp/ctl.out", r.out);
  FakeMachineTesting::ReadText("/tmp/ctl.err", r.err);
  return r;
}

// sda holds "/", sdb a mounted storage, sdc is blank, sdd too small, sdaa a GPT and ext4 labelled "backup".
void Build(FakeMachine& m) {
  m.Host(0, "ata_piix\n").Host(2, "virtio_scsi\n");
  m.Disk("sda").At(0, 0, 0, 0).Size(20_GiB).Serial("6000c2900000000000000000000000a0").Partition(1, 2048, 2097152);
  m.Disk("sdb").At(2, 0, 1, 0).Size(12_GiB).Serial("6000c2900000000000000000000000b0").Partition(1, 2048, 10485760);
  m.Disk("sdc").At(2, 0, 2, 0).Size(16_GiB).Serial("6000c2900000000000000000000000c0");
  m.Disk("sdd").At(2, 0, 3, 0).Size(1_GiB).Serial("6000c2900000000000000000000000d0");
  m.Disk("sdaa").At(2, 0, 0, 0).Size(12_GiB).Serial("6000c2900000000000000000000000e0").Partition(1, 2048, 131072);
  m.Build();
  ASSERT_EQ(0, std::system("PATH=/usr/sbin; for p in sda1 sdb1; do mke2fs -q -F -t ext4 -L ZLMdata /dev/$p; done && "
                           "sgdisk -n 1:2048:133119 /dev/sdaa >/dev/null && mke2fs -q -F -t ext4 -L backup /dev/sdaa1"));
  m.Mount("/dev/sda1", "/");
  m.Mount("/dev/sdb1", "/mnt/local_storages/st1");
}

// A pseudo-terminal, opened before the machine (whose /dev has none), controlling one command run by sh.
struct Terminal {
  int master = -1, slave = -1;
  pid_t pid = -1;
  Terminal() {
    openpty(&master, &slave, nullptr, nullptr, nullptr);
    for (int fd : {master, slave}) fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
  ~Terminal() { for (int fd : {master, slave}) if (fd >= 0) close(fd); }
  void Run(const std::string& command) {
    if ((pid = fork()) == 0) login_tty(slave), execl("/bin/sh", "sh", "-c", command.c_str(), nullptr), _exit(127);
    close(std::exchange(slave, -1));  // else the terminal never ends
  }
  // Types `keys`; what the terminal then shows up to `awaited`, its end or 30 s of silence.
  std::string Type(const std::string& keys, const std::string& awaited) {
    std::string shown;
    char buffer[4096];
    pollfd wait{master, POLLIN, 0};
    if (write(master, keys.data(), keys.size()) < 0) return shown;
    for (ssize_t n; shown.find(awaited) == npos && poll(&wait, 1, 30000) == 1 && (n = read(master, buffer, sizeof buffer)) > 0;)
      shown.append(buffer, n);
    return shown;
  }
  int End() { return close(std::exchange(master, -1)), TestSupport::ExitCode(TestSupport::WaitChild(pid)); }
};

std::string Images() {  // where preparing and wiping write, of every disk and partition
  std::string all;
  for (const std::string& name : FakeMachineTesting::ListDir("/dev"))
    if (name.rfind("sd", 0) == 0) all += name + " " + FakeMachineTesting::EdgeDigest("/dev/" + name) + "\n";
  return all;
}

Names Column(const Json& list, const char* key = "name") {
  Names names;
  for (const Json& item : list) names.push_back(item[key]);
  return names;
}

// In turn: what storagectl shows, what it refuses changing nothing, a storage's steps, attributes, doctor, rescan.
TEST(Storagectl, ShowsRefusesPreparesAndRescans) {
  AS_FAKE_MACHINE(m);
  Build(m);
  const Result devices = Ctl("--json devices");
  ASSERT_EQ(devices.code, 0) << devices.err;
  const Json list = devices.json()["devices"];
  ASSERT_EQ(Column(list), (Names{"sdb", "sdc", "sdaa"}));
  EXPECT_EQ(list[0]["controller"], "virtio_scsi");
  EXPECT_EQ(list[0]["address"], "2:0:1:0");
  EXPECT_EQ(list[0]["serial"], "6000C290-0000-0000-0000-0000000000B0");
  EXPECT_EQ(list[0]["partitions"][0],
            (Json{{"name", "sdb1"}, {"number", 1}, {"size", 5_GiB}, {"uuid", list[0]["partitions"][0]["uuid"]},
                  {"label", "data"}, {"mountpoint", "st1"}, {"supported", true}}));
  EXPECT_EQ(Ctl("list --json").json(),
            (Json{{"root", "/mnt/local_storages"}, {"storages", {{{"mountpoint", "st1"}, {"label", "data"}}}}}));
  // Administrators read the table by its columns: name, size, controller, address; no system disk.
  const std::string table = Ctl("devices").out;
  EXPECT_TRUE(std::regex_search(table, std::regex("\nsdb +12\\.0 GiB +virtio_scsi +2:0:1:0 .*\n  sdb1 .*\nsdc "))) << table;
  EXPECT_EQ(table.find("sda "), npos);
  // arguments, exit code, part of the message's first line
  const std::tuple<const char*, int, const char*> refused[] = {
      {"frob", 2, "frob"},
      {"prepare", 2, "DEVICE"},
      {"prepare sdc", 2, "--yes"},
      {"prepare sdz --yes", 1, "'sdz'"},
      {"prepare sdb --yes", 1, "0x720021"},
      {"prepare sdaa --yes", 1, "0x720022"},
      {"mount sdz1 st2", 1, "'sdz1'"},
      {"mount sdb1 a/b", 1, "0x720023"},
      {"attributes set sdb Temporary", 2, "DISK NAME VALUE"},
      {"attributes get sdz", 1, "'sdz'"},
  };
  for (const auto& [args, code, firstLine] : refused) {
    SCOPED_TRACE(args);
    const Result r = Ctl(args);
    EXPECT_EQ(r.code, code);
    EXPECT_NE(r.err.substr(0, r.err.find('\n')).find(firstLine), npos) << r.err;
    EXPECT_EQ(r.err.find("Usage: storagectl") != npos, code == 2) << r.err;
    // Only a disk that may hold data earns the hint, after the library's chain, with the command to run.
    const size_t hint = r.err.find("hint: ");
    EXPECT_EQ(hint != npos, std::string(args) == "prepare sdaa --yes") << r.err;
    if (hint != npos) { EXPECT_LT(r.err.find(" 0x72004A: "), r.err.find("'storagectl prepare --wipe sdaa'", hint)) << r.err; }
  }
  EXPECT_EQ(Ctl("--json devices").out, devices.out);
  EXPECT_TRUE(m.Calls("gdisk").empty() && m.Calls("mount").empty());
  const Result prepared = Ctl("--trace prepare sdc --yes --json");
  ASSERT_EQ(prepared.code, 0) << prepared.err;
  EXPECT_EQ(prepared.json()["steps"].size(), 5u) << prepared.out;  // the trace lines that are steps
  EXPECT_NE(prepared.err.find("+CreateBackupPartition"), npos);
  EXPECT_EQ(Column(prepared.json()["device"]["partitions"]), Names{"sdc1"});
  const Result wiped = Ctl("prepare /dev/sdaa --wipe --yes --json");
  ASSERT_EQ(wiped.code, 0) << wiped.err;
  EXPECT_EQ(wiped.json()["wiped"], (Json{{{"partition", "sdaa"}, {"type", "gpt"}, {"label", ""}},
                                         {{"partition", "sdaa1"}, {"type", "ext4"}, {"label", "backup"}}}));
  EXPECT_EQ(Ctl("--json mount sdc1 st2").json()["mountpoint"], "st2");
  EXPECT_EQ(Ctl("label sdc1 backup").code, 0);
  EXPECT_EQ(Ctl("--json label sdc1").json()["label"], "backup");
  EXPECT_EQ(Column(Ctl("--json list").json()["storages"], "mountpoint"), (Names{"st1", "st2"}));
  EXPECT_EQ(Ctl("unmount sdc1").code, 0);
  EXPECT_EQ(Ctl("--json list").json()["storages"].size(), 1u);
  // Attributes decide which disks are temporary.
  ASSERT_EQ(Ctl("attributes set sdc Temporary 1").code, 0);
  ASSERT_EQ(Ctl("attributes set sdc Bay 4").code, 0);
  EXPECT_EQ(Ctl("--json attributes get sdc").json()["attributes"], Json({{"Bay", "4"}, {"Temporary", "1"}}));
  EXPECT_EQ(Column(Ctl("--json devices").json()["devices"]), (Names{"sdb", "sdaa"}));
  EXPECT_EQ(Ctl("--json temporary").json()["temporary"], Json{"sdc"});
  EXPECT_EQ(Ctl("--json attributes remove sdc Temporary").json()["attributes"], (Json{{"Bay", "4"}}));
  EXPECT_EQ(Ctl("attributes get sdc Temporary").code, 1);
  EXPECT_EQ(Column(Ctl("--json devices").json()["devices"]), (Names{"sdb", "sdc", "sdaa"}));
  m.WriteFile(FakeMachine::StateDir() + "/fail/umount", "32");
  const Result failed = Ctl("--json unmount sdb1");
  EXPECT_EQ(failed.code, 1);
  EXPECT_EQ(failed.json()["error"]["cause"]["code"], "0x720004");
  EXPECT_NE(failed.err.find("\n  cause 0x720004: "), npos) << failed.err;
  // The manual page escapes what roff would take for requests and hyphens.
  EXPECT_NE(Ctl("man").out.find("\n.TP\n\\fB\\-\\-yes\\fR\n"), npos);
  EXPECT_EQ(Ctl("doctor").code, 0);
  const Result bad = Ctl("--json doctor", "PATH=/none");
  EXPECT_EQ(bad.code, 1);
  const Json doctor = bad.json();  // named: the loop refers into it
  std::string missing;
  for (const Json& check : doctor["checks"]) missing += check["ok"] ? "" : check["check"].get<std::string>() + ";";
  EXPECT_TRUE(missing.find("gdisk;") != npos && missing.find("scsi_id;") != npos && missing.find("registry") == npos) << missing;
  // A rescan names the disks that came and went meanwhile (the kernel scans when the host's scan file is written).
  auto rescan = std::async(std::launch::async, [] { return Ctl("--json rescan"); });
  for (int i = 0; i < 3000 && m.ReadFile("/sys/class/scsi_host/host2/scan").empty(); ++i) ::usleep(10000);
  m.Disk("sde").At(2, 0, 4, 0).Size(12_GiB);
  m.Build();
  m.RemoveDisk("sdd");
  const Json rescanned = rescan.get().json();
  EXPECT_EQ(rescanned["added"], Json{"sde"});
  EXPECT_EQ(rescanned["removed"], Json{"sdd"});
}

// On a terminal: a new user's bash completing commands, options and names listed now; preparing only after "yes".
TEST(Storagectl, OnATerminal) {
  // arguments, what is typed (null: the terminal hangs up), what the question names
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"prepare sdc", "no\n", "/dev/sdc"},
      {"prepare sdc", "y\n", "/dev/sdc"},
      {"prepare sdc", "YES\n", "/dev/sdc"},
      {"prepare sdc", "yes please\n", "/dev/sdc"},
      {"prepare sdc", "\n", "/dev/sdc"},  // no default answer
      {"prepare sdc", "\x04", "/dev/sdc"},  // Ctrl-D: end of input
      {"prepare sdc", nullptr, "/dev/sdc"},
      {"prepare --wipe sdaa", "no\n", "\n  sdaa: gpt\r\n  sdaa1: ext4 'backup'\r\n"},
      {"prepare --wipe sdaa", "yes\n", "\n  sdaa: gpt\r\n  sdaa1: ext4 'backup'\r\n"},
      {"prepare sdc", "yes\n", "/dev/sdc"},
  };
  std::vector<Terminal> terminals(std::size(cases) + 1);
  AS_FAKE_MACHINE(m);
  Build(m);
  Terminal& bash = terminals.back();
  const std::string dir = std::string(STORAGECTL).substr(0, std::string(STORAGECTL).rfind('/'));
  bash.Run("PATH=" + dir + ":$PATH PS1='$ ' exec bash --norc --noprofile -i");
  bash.Type("source " STORAGECTL_COMPLETION "; echo ready\n", "ready\r\n");
  // keys typed, what the terminal must then show
  const std::pair<const char*, const char*> completions[] = {
      {"storagectl pre\t", "storagectl prepare "},
      {"\t\t", "--wipe"},
      {"--wipe sda\t", "--wipe sdaa "},  // an option is no operand
      {"\x15storagectl --json mount \t\t", "sdb1"},
      {"\x15storagectl attributes r\t", "attributes remove "},
  };
  for (const auto& [keys, awaited] : completions) {
    SCOPED_TRACE(keys);
    EXPECT_NE(bash.Type(keys, awaited).find(awaited), npos);
  }
  bash.Type("\x15" "exit\n", "(the end)");  // shown never: read to the end of the terminal
  EXPECT_EQ(0, bash.End());
  Terminal* terminal = terminals.data();
  for (const auto& [args, answer, named] : cases) {
    SCOPED_TRACE(std::string(args) + " <- " + (answer ? answer : "hang-up"));
    const std::string images = Images();
    const size_t writes = m.Calls("dd").size() + m.Calls("gdisk").size() + m.Calls("mke2fs").size();
    terminal->Run("exec " STORAGECTL " " + std::string(args));
    const std::string question = terminal->Type("", "to go on: ");
    const std::string out = question + (answer ? terminal->Type(answer, "(the end)") : "");
    EXPECT_NE(question.find(named), npos) << out;
    const bool yes = answer && std::string(answer) == "yes\n";
    EXPECT_EQ(terminal++->End() == 0, yes) << out;
    EXPECT_EQ(yes, std::regex_search(out, std::regex("\n +[0-9]+\\.[0-9] s  Formatting /dev/sd[a-z]+\r\n[\\s\\S]* s    "
                                                     "Writing inode tables: done\r\n"))) << out;  // steps timed
    EXPECT_EQ(Images() == images, !yes);
    EXPECT_EQ(m.Calls("dd").size() + m.Calls("gdisk").size() + m.Calls("mke2fs").size() == writes, !yes);
  }
}

}  // namespace
