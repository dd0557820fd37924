// Faults on the faked machine (tools missing, the registry and the lock directory unusable,
// a tool that hangs) and a load of nine processes: what the library answers, and that
// nothing is left behind.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <iostream>
#include <map>
#include <sstream>
#include <tuple>

#include "child.h"
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"
#include "descriptors.h"
#include "fake_machine.h"
#include "lock_probe.h"
#include "quillenmark/raw/common/scsi_disk_helpers/attributes.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

namespace {

using namespace FakeMachineTesting;
using Common::Str;
using Common::ToUtf8;
using Virtualization::Appliance::StoragesManager;

const std::string kState = FakeMachine::StateDir(), kRoot = "/mnt/local_storages", kLock = "SCSISubsystemLocker";

// Disks of 12 GiB on host 2, at targets 1, 2...; the first with a storage sdb1 labelled
// "old", not mounted.
void Disks(FakeMachine& m, const std::vector<std::string>& names) {
  m.Host(2, "virtio_scsi\n");
  for (unsigned target = 1; target <= names.size(); ++target)
    m.Disk(names[target - 1]).At(2, 0, target, 0).Size(12_GiB).Serial(std::string(31, 'a') + std::to_string(target));
  m.Build();
  AddPartition(names[0], {1, 2048, 12582912});
  ASSERT_EQ(0, std::system(("/sbin/mke2fs -q -F -t ext4 -L ZLMold /dev/" + names[0] + "1").c_str()));
}

// "0x720023>0x720004(127)": the codes of the chain, with a tool's exit status or an errno.
std::string Codes(const Common::Error& e) {
  if (!e) return "ok";
  char code[16];
  std::snprintf(code, sizeof code, "0x%X", e.GetCode());
  const std::string text = ToUtf8(e.GetText()), status = text.substr(text.rfind(' ') + 1);
  std::string out = code;
  if (e.GetCode() == 0x720004) out += "(" + status.substr(0, status.size() - 1) + ")";
  if (e.GetCode() == Common::Error::kPosixCode) out += "(" + std::to_string(e.GetNumericField("code")) + ")";
  return e.GetCause() ? out + ">" + Codes(e.GetCause()) : out;
}
template <class Call>
std::string Outcome(Call call) try { return Codes(call()); } catch (const Common::Error& e) { return Codes(e); }

std::string List() {  // "ok[mount point=label;...]" or the error
  std::vector<MigrationManagement::StorageConfig::Storage> list;
  const Common::Error e = MigrationManagement::StorageConfig::GetCurrentStorageConfig()->GetStoragesList(list);
  std::string text = "ok[";
  for (const auto& s : list) text += ToUtf8(s.MountPoint) + "=" + ToUtf8(s.Label) + ";";
  return e ? Codes(e) : text + "]";
}

std::string Names(const std::vector<std::shared_ptr<Virtualization::Appliance::BlockDevice>>& devices) {
  std::string text;
  for (const auto& device : devices) text += ToUtf8(device->GetName()) + ";";
  return text;
}

void ExpectNothingLeft(int fds) {
  EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child is left";
  EXPECT_EQ(fds, TestSupport::CountOwnFds());
  EXPECT_FALSE(TestSupport::FileLockHeld(kLock));
}

// A PATH as the present one but without `tool`: a directory of links to all else it finds.
std::string PathWithout(const std::string& tool) {
  const std::string farm = "/tmp/path/";
  fs::create_directories(farm);
  std::istringstream dirs(std::getenv("PATH"));
  for (std::string dir; std::getline(dirs, dir, ':');)
    for (const std::string& name : ListDir(dir))
      if (name != tool && !fs::exists(fs::symlink_status(farm + name))) fs::create_symlink(dir + "/" + name, farm + name);
  return farm;
}

TEST(Faults, EachToolMissingFromThePath) {
  // The tool missing (or sdb1's file system wiped); what listing, preparing sdc, mounting
  // sdb1 at st, labelling it new, listing, unmounting gave; the directories left in the root.
  const std::pair<std::string, std::string> cases[] = {
      {"", "ok[] ok ok ok ok[st=new;] ok 0"},
      {"lsblk", "ok[] 0x720022>0x720004(127) ok ok ok[] ok 0"},
      {"blkid", "0x72001F>0x720048 0x720048 0x720023>0x720004(32) ok 0x72001F>0x720048 - 1"},
      {"e2label", "ok[] ok ok ok ok[st=;] ok 0"},
      {"tune2fs", "ok[] 0x720026>0x720004(127) ok 0x720026>0x720004(127) ok[st=old;] ok 0"},
      {"mke2fs", "ok[] 0x720022>0x720004(127) ok ok 0x72001F>0x720048 ok 0"},  // sdc1 has no file system
      {"dd", "ok[] 0x720022>0x720004(127) ok ok ok[st=new;] ok 0"},
      {"gdisk", "ok[] 0x720022>0x720004(127) ok ok ok[st=new;] ok 0"},
      {"mount", "ok[] ok 0x720023>0x720004(127) ok ok[] - 1"},
      {"umount", "ok[] ok ok ok ok[st=new;] 0x720024>0x720004(127) 1"},
      {"scsi_id", "ok[] ok ok ok ok[st=new;] ok 0"},
      {"no file system", "0x72001F>0x720048 ok 0x720023>0x720004(32) 0x720026>0x720004(1) 0x72001F>0x720048 - 1"},
  };
  for (const auto& [fault, expected] : cases) {
    SCOPED_TRACE(fault);
    AS_FAKE_MACHINE(m);
    Disks(m, {"sdb", "sdc"});
    const auto devices = StoragesManager().GetBlockDevices(false);
    ASSERT_EQ("sdb;sdc;", Names(devices));
    const auto p = devices[0]->GetPartitions().at(0);
    const int fds = TestSupport::CountOwnFds();
    const std::string path = std::getenv("PATH");
    if (fault == "no file system") {
      fs::resize_file("/dev/sdb1", 0), fs::resize_file("/dev/sdb1", 6_GiB), fs::remove(kState + "/blkid.tab");
    } else if (!fault.empty()) {
      ::setenv("PATH", PathWithout(fault).c_str(), 1);
    }
    std::string got = List();  // one step a statement: they run in this order
    got += " " + Outcome([&] { return devices[1]->CreateBackupPartition(); });
    got += " " + Outcome([&] { return p->Mount(Str(u"st")); });
    got += " " + Outcome([&] { return p->SetLabel(Str(u"new")); });
    got += " " + List();
    got += " " + (p->GetMountPoint().empty() ? "-" : Outcome([&] { return p->Unmount(); }));
    ::setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(expected, got + " " + std::to_string(ListDir(kRoot).size()));
    ExpectNothingLeft(fds);
  }
}

// Covers /tmp with a tmpfs of `options`, filled up, that keeps the machine's state.
void CoverTmp(const std::string& options, bool readOnly) {
  fs::create_directories("/mnt/tiny");
  ::mount("none", "/mnt/tiny", "tmpfs", 0, options.c_str());
  fs::create_directory("/mnt/tiny/.fake_machine");
  ::mount(kState.c_str(), "/mnt/tiny/.fake_machine", nullptr, MS_BIND, nullptr);
  std::ofstream("/mnt/tiny/fill") << std::string(1 << 17, 'x');  // more than fits
  if (readOnly) ::mount(nullptr, "/mnt/tiny", nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
  ::mount("/mnt/tiny", "/tmp", nullptr, MS_MOVE, nullptr);
}

TEST(Faults, RegistryAndLockDirectoryUnusable) {
  const std::string file = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";
  const std::string rofs = "0xFFF1(" + std::to_string(EROFS) + ")", full = "0xFFF1(" + std::to_string(ENOSPC) + ")";
  // The fault; the disks listed (sdb is temporary) or the error; marking sdc temporary.
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"", "sdc;", "ok"},
      {"registry read-only", "sdc;", "0x530040>0x560001>" + rofs},
      {"registry corrupt", "sdb;sdc;", "0x530040>0x560002>0x560003"},  // an unreadable record hides nothing
      {"registry truncated", "sdb;sdc;", "0x530040>0x560002>0x560003"},
      {"lock directory read-only", "0x72001F>0x6>" + rofs, "ok"},
      {"lock directory without inodes", "0x72001F>0x6>" + full, "ok"},
      {"lock directory without space", "sdc;", "ok"},  // the lock file needs an inode, no block
  };
  for (const auto& [fault, listed, marked] : cases) {
    SCOPED_TRACE(fault);
    AS_FAKE_MACHINE(m);
    Disks(m, {"sdb", "sdc"});
    const auto devices = StoragesManager().GetBlockDevices(false);
    ASSERT_FALSE(SCSI::SetDiskAttribute(devices.at(0)->GetDiskId(), Str(u"Temporary"), Str(u"1")));
    const int fds = TestSupport::CountOwnFds();
    const std::string text = m.ReadFile(file);
    const bool lockDirectory = fault.compare(0, 4, "lock") == 0, readOnly = fault.find("read-only") != std::string::npos;
    if (fault == "registry read-only") ::mount(nullptr, "/etc/Zemlora", nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
    if (fault == "registry corrupt") m.WriteFile(file, "<registry><key name='Software'>\x01\xff");
    if (fault == "registry truncated") m.WriteFile(file, text.substr(0, text.size() / 2));
    if (lockDirectory) CoverTmp(fault.find("inodes") != std::string::npos ? "size=64k,nr_inodes=2" : "size=64k", readOnly);
    std::string got;
    try {
      got = Names(StoragesManager().GetBlockDevices(false));
    } catch (const Common::Error& e) {
      got = Codes(e);
    }
    EXPECT_EQ(listed, got);
    EXPECT_EQ(marked, Codes(SCSI::SetDiskAttribute(devices[1]->GetDiskId(), Str(u"Temporary"), Str(u"1"))));
    if (lockDirectory) ::umount2("/tmp", MNT_DETACH);
    if (fault == "registry read-only") ::mount(nullptr, "/etc/Zemlora", nullptr, MS_REMOUNT, nullptr);
    ExpectNothingLeft(fds);
    EXPECT_TRUE(ListDir(kRoot).empty());
  }
}

bool WaitingFor(const std::string& lock) {  // someone blocks in flock() on the lock file
  struct stat file = {};
  ::stat(TestSupport::LockPath(lock).c_str(), &file);
  for (const std::string& line : ReadLines("/proc/locks"))
    if (line.find("->") != std::string::npos && line.find(":" + std::to_string(file.st_ino) + " ") != std::string::npos)
      return true;
  return false;
}

// No time-outs: a tool that hangs holds up its caller, and other threads only where they
// wait for the subsystem lock that the caller holds.
TEST(Faults, AToolThatHangsHoldsUpOnlyWhatWaitsForTheSubsystemLock) {
  AS_FAKE_MACHINE(m);
  Disks(m, {"sdb", "sdc"});
  const auto p = StoragesManager().GetBlockDevices(false).at(0)->GetPartitions().at(0);
  const auto listed = [] { return Names(StoragesManager().GetBlockDevices(false)); };
  const auto untilCalled = [&](const std::string& tool, size_t calls) {
    while (m.Calls(tool).size() == calls) ::usleep(10000);
  };
  const int fds = TestSupport::CountOwnFds();
  const size_t calls = m.Calls("scsi_id").size();
  m.WriteFile(kState + "/hang/scsi_id", "");
  auto first = std::async(std::launch::async, listed);
  untilCalled("scsi_id", calls);
  EXPECT_EQ("old", ToUtf8(p->GetLabel()));  // a partition's query takes no lock
  EXPECT_TRUE(TestSupport::FileLockHeld(kLock));
  auto second = std::async(std::launch::async, listed);
  while (!WaitingFor(kLock)) ::usleep(10000);
  EXPECT_EQ(calls + 1, m.Calls("scsi_id").size());  // the second enumeration has not begun
  fs::remove(kState + "/hang/scsi_id");
  EXPECT_EQ("sdb;sdc;", first.get());
  EXPECT_EQ("sdb;sdc;", second.get());
  // Mounting hangs in mount, outside the lock: listing goes on meanwhile.
  m.WriteFile(kState + "/hang/mount", "");
  auto mounted = std::async(std::launch::async, [&] { return p->Mount(Str(u"st")); });
  untilCalled("mount", 0);
  EXPECT_EQ("ok[]", List());
  fs::remove(kState + "/hang/mount");
  EXPECT_FALSE(mounted.get());
  EXPECT_EQ("ok[st=old;]", List());
  EXPECT_FALSE(p->Unmount());
  ExpectNothingLeft(fds);
  EXPECT_TRUE(ListDir(kRoot).empty());
}

const std::string kRecord = "/tmp/load.record", kStop = "/tmp/load.stop";

void Note(const std::string& line) {  // one write per line: the lines of processes do not mix
  const std::string text = std::to_string(::getpid()) + " " + line + "\n";
  const int fd = ::open(kRecord.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(fd, text.data(), text.size()));
  ::close(fd);
}

// The disk sdz (state unknown, size unreadable) marks a stretch inside the subsystem lock:
// the enumeration traces its state, then its device is the second one made.
struct LockHolders : TraceTools::TraceSubscriber {
  bool WantsEveryEvent() const override { return false; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    if (ToUtf8(String(e.text, e.length)).find("sdz") != std::string::npos) Note(e.code == 83 ? "enter" : "leave");
  }
};

std::string Resources() {  // descriptors and children
  std::ifstream children("/proc/self/task/" + std::to_string(::getpid()) + "/children");
  int count = 0;
  for (std::string pid; children >> pid;) ++count;
  return std::to_string(TestSupport::CountOwnFds()) + " descriptors, " + std::to_string(count) + " children";
}

int Lister() {
  const std::string before = Resources();
  while (!fs::exists(kStop)) {
    const std::string got = List();
    Note(got.rfind("ok", 0) != 0 ? "error " + got : got.rfind("ok[stable=old;", 0) == 0 ? "listed" : "wrong");
  }
  Note("lister: " + before + " -> " + Resources());
  return 0;
}

// Eight processes list storages while a ninth prepares, mounts, relabels and unmounts
// disks, for a bounded time; the figures go to the output.
TEST(Load, EightListersAndOnePreparer) {
  AS_FAKE_MACHINE(m);
  Disks(m, {"sdd", "sdz", "sdb", "sdc"});
  m.WriteFile("/sys/block/sdz/device/state", "blocked\n");
  fs::remove("/sys/block/sdz/size");
  m.WriteFile(kState + "/mounts", "/dev/sdd1 " + kRoot + "/stable\n");
  fs::create_directories(kRoot + "/stable");
  LockHolders holders;
  TraceTools::Subscribe(&holders);
  const std::string before = Resources();
  const int fds = TestSupport::CountOwnFds();
  std::vector<pid_t> listers;
  for (int i = 0; i < 8; ++i) listers.push_back(TestSupport::StartChild(Lister));
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (int round = 0; std::chrono::steady_clock::now() < end && !HasFailure(); ++round) {
    const std::string disk = round % 2 ? "sdc" : "sdb", n = std::to_string(round);
    const int image = ::open(("/dev/" + disk).c_str(), O_WRONLY | O_CLOEXEC);  // wiped by someone
    EXPECT_EQ(8192, ::pwrite(image, std::string(8192, '\0').data(), 8192, 0));
    ::close(image);
    RereadPartitionTable(disk);
    const auto devices = StoragesManager().GetBlockDevices(false);
    const auto& device = devices.at(round % 2 + 1);  // sdd, then sdb, sdc: sdz is too small
    EXPECT_EQ("ok", Outcome([&] { return device->CreateBackupPartition(); }));
    const auto p = device->GetPartitions().at(0);
    EXPECT_FALSE(p->Mount(Common::FromUtf8("st" + n)));
    EXPECT_FALSE(p->SetLabel(Common::FromUtf8(n)));
    EXPECT_FALSE(p->Unmount());
    Note("prepared");
  }
  m.WriteFile(kStop, "");
  for (const pid_t pid : listers) EXPECT_EQ(0, TestSupport::ExitCode(TestSupport::WaitChild(pid)));
  TraceTools::Unsubscribe(&holders);
  const std::string after = Resources();
  ExpectNothingLeft(fds);

  std::map<std::string, int> counts;
  pid_t inside = 0;
  std::ifstream record(kRecord);
  for (std::string line; std::getline(record, line);) {
    const pid_t pid = std::stoi(line);
    const std::string what = line.substr(line.find(' ') + 1);
    if (what == "enter") {
      counts["overlaps"] += std::exchange(inside, pid) != 0;
    } else if (what == "leave") {
      counts["overlaps"] += std::exchange(inside, 0) != pid;
      ++counts["lock stretches recorded"];
    } else {
      ++counts[what];
    }
  }
  std::cout << "8 listers, 30 s; preparer: before " << before << ", after " << after << "\n";
  for (const auto& [what, count] : counts) std::cout << "  " << what << ": " << count << "\n";
  EXPECT_GT(counts["listed"] * counts["prepared"] * counts["lock stretches recorded"], 0);
  EXPECT_EQ(0, counts["overlaps"] + counts["wrong"]);
  // A listing may meet a partition without a file system yet (or with its image gone),
  // or one that vanished between the directory listing and the reading of its size.
  const std::string vanished = "error 0x72001F>0x40010>0xFFF1(" + std::to_string(ENOENT) + ")";
  for (const auto& [what, count] : counts) {
    EXPECT_TRUE(what.rfind("error ", 0) != 0 || what == "error 0x72001F>0x720048" || what == vanished) << what;
    const size_t arrow = what.find(" -> ");  // a lister's resources
    EXPECT_TRUE(arrow == std::string::npos || what.substr(8, arrow - 8) == what.substr(arrow + 4)) << what;
  }
  EXPECT_EQ(before, after);
  EXPECT_EQ((std::vector<std::string>{"stable"}), ListDir(kRoot));
  for (const std::string& name : ListDir("/tmp")) EXPECT_EQ(std::string::npos, name.find("shared_mutex_"));
}

}  // namespace
