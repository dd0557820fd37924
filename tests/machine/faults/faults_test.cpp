// Faults on the faked machine (tools missing, registry or lock directory unusable, a tool that hangs)
// and a load of nine processes: what the library answers; nothing left behind.
#include <sys/mount.h>

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <map>
#include <regex>

#include "../storage/storage_checks.h"
#include "child.h"
#include "core/trace/trace_tools.h"
#include "quillenmark/raw/common/scsi_disk_helpers/attributes.h"

namespace {

using namespace StorageChecks;

// Disks of 12 GiB on host 2 at targets 1, 2...; the first with a storage labelled "old".
void Disks(FakeMachine& m, const std::vector<std::string>& names) {
  for (unsigned target = 1; target <= names.size(); ++target) AddDisk(m, names[target - 1], 12_GiB, target);
  m.Build();
  AddPartition(names[0], {1, 2048, 12582912});
  ASSERT_EQ(0, std::system(("/sbin/mke2fs -q -F -t ext4 -L ZLMold /dev/" + names[0] + "1").c_str()));
}
std::string Listed() { return Outcome([] { return StoragesManager().GetBlockDevices(false); }); }
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

TEST(Faults, ToolsMissingRegistryOrLockDirectoryUnusable) {
  const std::string rofs = "0xFFF1(" + std::to_string(EROFS) + ")";
  const std::string badTable = "0x72001F@577>0x40011>0xFFF1(" + std::to_string(EBADMSG) + ")";
  const std::string ownTable = "/proc/" + std::to_string(::getpid()) + "/mountinfo";  // /proc/self/mountinfo to all threads
  const std::string lockRofs = "0x72001F@577>0x6>" + rofs, noInode = "0x72001F@577>0x6>0xFFF1(" + std::to_string(ENOSPC) + ")";
  // The fault; what listing disks (sdc is temporary), storages, preparing sdc, mounting sdb1 at st, labelling it new,
  // listing, unmounting, giving sdb an attribute gave; the directories left in the mount root.
  const std::pair<std::string, std::string> cases[] = {
      {"", "sdb; ok[] ok ok ok ok[st=new;] ok ok 0"},
      {"mount table broken", badTable + " " + badTable + " 0x720022@452>" + badTable.substr(13) + " ok ok " + badTable +
                                 " ok ok 0"},  // but the tools see their own
      {"tune2fs", "sdb; ok[] 0x720026@322>0x720004(127)@323 ok 0x720026@322>0x720004(127)@323 "
                   "ok[st=old;] ok ok 0"},
      {"mke2fs", "sdb; ok[] 0x720022@488>0x720004(127)@488 ok ok ok[st=new;] ok ok 0"},
      {"mount", "sdb; ok[] ok 0x720023@370>0x720004(127)@371 ok ok[] - ok 1"},
      {"umount", "sdb; ok[] ok ok ok ok[st=new;] 0x720024@358>0x720004(127)@359 ok 1"},
      {"scsi_id", "sdb;sdc; ok[] ok ok ok ok[st=new;] ok ok 0"},  // without its identity sdc loses its record
      {"no file system", "sdb; ok[] ok 0x720023@370>0x720004(32)@371 0x720026@322>0x720004(1)@323 ok[] - ok 1"},
      {"registry read-only", "sdb; ok[] ok ok ok ok[st=new;] ok 0x530040>0x560001>" + rofs + " 0"},
      {"registry corrupt", "sdb;sdc; ok[] ok ok ok ok[st=new;] ok 0x530040>0x560002>0x560003 0"},  // it hides nothing
      {"lock directory read-only", lockRofs + " " + lockRofs + " ok ok ok " + lockRofs + " ok ok 0"},
      {"lock directory without inodes", noInode + " " + noInode + " ok ok ok " + noInode + " ok ok 0"},
      {"lock directory without space", "sdb; ok[] ok ok ok ok[st=new;] ok ok 0"},  // the lock file needs no block
  };
  for (const auto& [fault, expected] : cases) {
    SCOPED_TRACE(fault);
    AS_FAKE_MACHINE(m);
    Disks(m, {"sdb", "sdc"});
    const auto devices = StoragesManager().GetBlockDevices(false);
    ASSERT_FALSE(SCSI::SetDiskAttribute(devices.at(1)->GetDiskId(), Str(u"Temporary"), Str(u"1")));
    const auto p = devices[0]->GetPartitions().at(0);
    const int fds = TestSupport::CountOwnFds();
    const std::string path = std::getenv("PATH");
    const bool lockDirectory = fault.rfind("lock", 0) == 0, readOnly = fault.find("read-only") != std::string::npos;
    if (fault == "scsi_id")  // the last resort, for disks whose kernel keeps no serial page
      for (const char* disk : {"sdb", "sdc"}) fs::remove(std::string("/sys/block/") + disk + "/device/vpd_pg80");
    if (fault == "no file system") fs::resize_file("/dev/sdb1", 0), fs::remove(kState + "/blkid.tab");
    if (fault == "registry read-only") ::mount(nullptr, "/etc/Zemlora", nullptr, MS_REMOUNT | MS_RDONLY, nullptr);
    if (fault == "mount table broken") {  // a line cut short, for this process only
      m.WriteFile("/tmp/mountinfo", "1 0 8:1 / / rw - ext4 /dev/sda1 rw\n2 1 8:17 /mnt/x\n");
      ::mount("/tmp/mountinfo", ownTable.c_str(), nullptr, MS_BIND, nullptr);
    }
    if (fault == "registry corrupt") m.WriteFile("/etc/Zemlora/HKEY_LOCAL_MACHINE.xml", "<registry><key name='x'>\x01\xff");
    if (lockDirectory) CoverTmp(fault.find("inodes") != std::string::npos ? "size=64k,nr_inodes=2" : "size=64k", readOnly);
    if (!fault.empty() && fault.find(' ') == std::string::npos) ::setenv("PATH", PathWithout(fault).c_str(), 1);
    std::ostringstream got;  // the operands of << run in order
    got << Listed() << " " << List() << " " << Outcome([&] { return devices[1]->CreateBackupPartition(); }) << " "
        << Outcome([&] { return p->Mount(Str(u"st")); }) << " " << Codes(p->SetLabel(Str(u"new"))) << " " << List() << " "
        << (p->GetMountPoint().empty() ? "-" : Codes(p->Unmount())) << " "
        << Codes(SCSI::SetDiskAttribute(devices[0]->GetDiskId(), Str(u"Seen"), Str(u"1"))) << " " << ListDir(kRoot).size();
    ::setenv("PATH", path.c_str(), 1);
    if (lockDirectory) ::umount2("/tmp", MNT_DETACH);
    if (fault == "mount table broken") ::umount2(ownTable.c_str(), MNT_DETACH);
    EXPECT_EQ(expected, got.str());
    ExpectNothingLeft(fds);
  }
}

// A thread of this process blocks in flock(): a line "N: -> FLOCK ADVISORY WRITE PID MAJ:MIN:INODE 0 EOF".
bool WaitingForAFileLock() {
  std::string locks;
  return ReadText("/proc/locks", locks) && std::regex_search(locks, std::regex("-> FLOCK .* " + std::to_string(::getpid()) + " "));
}

// No time-outs: a hanging tool holds up its caller, and other threads only if they wait for its lock.
TEST(Faults, AToolThatHangsHoldsUpOnlyWhatWaitsForTheSubsystemLock) {
  AS_FAKE_MACHINE(m);
  Disks(m, {"sdb", "sdc"});
  fs::remove("/sys/block/sdb/device/vpd_pg80");  // so that listing runs scsi_id
  const auto p = StoragesManager().GetBlockDevices(false).at(0)->GetPartitions().at(0);
  const int fds = TestSupport::CountOwnFds();
  const size_t calls = m.Calls("scsi_id").size();
  m.WriteFile(kState + "/hang/scsi_id", "");
  auto first = std::async(std::launch::async, Listed);
  while (m.Calls("scsi_id").size() == calls) ::usleep(10000);
  EXPECT_EQ("old", ToUtf8(p->GetLabel()));  // a partition's query takes no lock
  EXPECT_TRUE(TestSupport::FileLockHeld("SCSISubsystemLocker"));
  auto second = std::async(std::launch::async, Listed);
  while (!WaitingForAFileLock()) ::usleep(10000);  // the one that the first holds
  fs::remove(kState + "/hang/scsi_id");
  EXPECT_EQ("sdb;sdc; sdb;sdc;", first.get() + " " + second.get());
  // Mounting hangs in mount, outside the lock: listing goes on meanwhile.
  m.WriteFile(kState + "/hang/mount", "");
  auto mounted = std::async(std::launch::async, [&] { return p->Mount(Str(u"st")); });
  while (m.Calls("mount").empty()) ::usleep(10000);
  EXPECT_EQ("ok[]", List());
  fs::remove(kState + "/hang/mount");
  EXPECT_FALSE(mounted.get());
  EXPECT_FALSE(p->Unmount());
  ExpectNothingLeft(fds);
  EXPECT_TRUE(ListDir(kRoot).empty());
}

const std::string kRecord = "/tmp/load.record", kStop = "/tmp/load.stop";
void Note(const std::string& line) {  // one write() in append mode: the lines of processes do not mix
  std::ofstream(kRecord, std::ios::app) << std::to_string(::getpid()) + " " + line + "\n";
}
// sdz (state unknown, size unreadable) marks a stretch inside the subsystem lock: its state traced, then its device made.
struct LockHolders : TraceTools::TraceSubscriber {
  bool WantsEveryEvent() const override { return false; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    if (ToUtf8(String(e.text, e.length)).find("sdz") != std::string::npos) Note(e.code == 83 ? "enter" : "leave");
  }
};
std::string Resources() {  // descriptors and children
  const std::string fds = std::to_string(TestSupport::CountOwnFds()) + " descriptors, ";
  std::ifstream children("/proc/self/task/" + std::to_string(::getpid()) + "/children");
  return fds + std::to_string(std::distance(std::istream_iterator<std::string>(children), {})) + " children";
}
int Lister() {
  const std::string before = Resources();
  for (std::string got; !fs::exists(kStop);)
    Note((got = List()).rfind("ok", 0) ? "error " + got : got.rfind("ok[stable=old;", 0) ? "wrong" : "listed");
  Note("lister: " + before + " -> " + Resources());
  return before == Resources() ? 0 : 1;
}

// Eight processes list storages while a ninth prepares, mounts, relabels and unmounts disks.
TEST(Load, EightListersAndOnePreparer) {
  AS_FAKE_MACHINE(m);
  Disks(m, {"sdd", "sdz", "sdb", "sdc"});
  m.WriteFile("/sys/block/sdz/device/state", "blocked\n");
  fs::remove("/sys/block/sdz/size");
  ASSERT_FALSE(StoragesManager().GetBlockDevices(false).at(0)->GetPartitions().at(0)->Mount(Str(u"stable")));
  LockHolders holders;
  TraceTools::Subscribe(&holders);
  const std::string before = Resources();
  std::vector<pid_t> listers;
  for (int i = 0; i < 8; ++i) listers.push_back(TestSupport::StartChild(Lister));
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);  // a minute of load
  for (int round = 0; std::chrono::steady_clock::now() < end && !HasFailure(); ++round) {
    const std::string disk = round % 2 ? "sdc" : "sdb", n = std::to_string(round);
    std::fstream("/dev/" + disk, std::ios::in | std::ios::out) << std::string(8192, '\0');  // wiped by someone
    RereadPartitionTable(disk);
    const auto device = StoragesManager().GetBlockDevices(false).at(round % 2 + 1);  // sdd, sdb, sdc: sdz is small
    EXPECT_EQ("ok", Outcome([&] { return device->CreateBackupPartition(); }));
    const auto p = device->GetPartitions().at(0);
    std::ostringstream steps;  // the operands of << run in order
    steps << Codes(p->Mount(Common::FromUtf8("st" + n))) << Codes(p->SetLabel(Common::FromUtf8(n))) << Codes(p->Unmount());
    EXPECT_EQ("okokok", steps.str());
    Note("prepared");
  }
  m.WriteFile(kStop, "");
  for (const pid_t pid : listers) EXPECT_EQ(0, TestSupport::ExitCode(TestSupport::WaitChild(pid)));
  TraceTools::Unsubscribe(&holders);
  ExpectNothingLeft(std::stoi(before));
  std::map<std::string, int> counts;
  pid_t inside = 0;
  for (const std::string& line : ReadLines(kRecord)) {
    const pid_t pid = std::stoi(line);
    const std::string what = line.substr(line.find(' ') + 1);
    if (what == "enter") counts["overlaps"] += std::exchange(inside, pid) != 0;
    if (what == "leave") counts["overlaps"] += std::exchange(inside, 0) != pid;
    ++counts[what];
  }
  EXPECT_TRUE(counts["listed"] > 0 && counts["prepared"] > 0 && counts["leave"] > 0);
  EXPECT_EQ(0, counts["overlaps"] + counts["wrong"]);
  // Listings meet partitions not yet formatted, or gone before their size was read: no error.
  for (const auto& [what, count] : counts) EXPECT_NE(0u, what.rfind("error ", 0)) << what;
  EXPECT_EQ((std::vector<std::string>{"stable"}), ListDir(kRoot));
  for (const std::string& name : ListDir("/tmp")) EXPECT_EQ(std::string::npos, name.find("shared_mutex_"));
}

}  // namespace
