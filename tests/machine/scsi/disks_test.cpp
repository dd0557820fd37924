// SCSI hosts and disks: listing, rescans, adding and removing, device notifications, the
// lock, failures, and the disks' attribute records in the registry.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <future>
#include <mutex>

#include "core/common/assert.h"
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"
#include "descriptors.h"
#include "fake_machine.h"
#include "files.h"
#include "lock_probe.h"
#include "lx_supp.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/attributes.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/host.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/notification.h"

namespace {

// Trace events and, as level -1, assertion texts (ZEMLORA_SAFE_ASSERT=event) while it lives.
struct Report {
  int level, code;
  std::string text;  // UTF-8
};

class Reports : public TraceTools::TraceSubscriber {
 public:
  Reports() {
    TraceTools::Subscribe(this);
    current_ = this;
    Common::SetAssertEventCallback([](int, int, int, const char* text) { current_->Add({-1, 0, text}); });
  }
  ~Reports() override {
    Common::SetAssertEventCallback(nullptr);
    TraceTools::Unsubscribe(this);
  }
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    Add({e.level, e.code, Common::ToUtf8(e.text, e.length)});
  }
  std::vector<Report> Containing(const std::string& part = "", bool assertions = false) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Report> found;
    for (const Report& r : reports_)
      if ((r.level < 0) == assertions && r.text.find(part) != std::string::npos) found.push_back(r);
    return found;
  }

 private:
  void Add(Report report) {
    std::lock_guard<std::mutex> lock(mutex_);
    reports_.push_back(std::move(report));
  }
  static inline Reports* current_ = nullptr;
  mutable std::mutex mutex_;
  std::vector<Report> reports_;
};

using SCSI::Detail::HostTable;

std::vector<SCSI::Disk> List() {
  std::vector<SCSI::Disk> disks;
  const Common::Error e = SCSI::CreateDiskSubsystem()->Enumerate(disks);
  EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  return disks;
}

std::string Names(const std::vector<SCSI::Disk>& disks) {
  std::string names;
  for (const auto& d : disks) names += Common::ToUtf8(d.name) + (d.readable ? " " : "! ");
  return names;
}

// Announces the disk until the call is done: its handler may attach after any announcement.
Common::Error AnnounceUntilDone(uint32_t major, uint32_t minor, const std::function<Common::Error()>& call) {
  auto proxy = SCSI::Detail::DiskNotificationProxy::Obtain();
  const LinuxEx::snap_message batch[] = {{LinuxEx::snap_disk_updated, major, minor, {}}, {LinuxEx::snap_end, 0, 0, {}}};
  auto result = std::async(std::launch::async, call);
  while (result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) proxy->Deliver(batch);
  return result.get();
}

TEST(ScsiHosts, UnknownDriversAreLeftOutAndReportedOnce) {
  AS_FAKE_MACHINE(m);
  Reports reports;
  m.Host(0, "ata_piix\n").Host(10, "ata_piix\n").Host(3, "ahci").Host(4, "nvme\n").Host(5, "ATA_PIIX\n");
  m.HostWithoutProcName(6);
  m.Build();
  HostTable hosts{{99, SCSI::HostTypeAhci}};  // replaced, not merged
  SCSI::Detail::EnumerateHosts(hosts);
  SCSI::Detail::EnumerateHosts(hosts);
  EXPECT_EQ((HostTable{{0, SCSI::HostTypeAtaPiix}, {10, SCSI::HostTypeAtaPiix}}), hosts);
  // Unknown drivers once per process (no other test here has one); no proc_name every time.
  EXPECT_EQ(1u, reports.Containing("impl/host, line 115", true).size());
  EXPECT_EQ(2u, reports.Containing("impl/host, line 121", true).size());
  EXPECT_EQ(3u, reports.Containing("", true).size());
}

TEST(Enumerate, ScsiDisksOnKnownHostsSortedByKindHostAndTarget) {
  AS_FAKE_MACHINE(m);
  Reports reports;
  m.Host(2, "virtio_scsi\n").Host(3, "nvme\n").Host(1, "vmw_pvscsi\n").Host(9, "mptspi\n").Host(4, "mptspi\n");
  m.Disk("sda").At(9, 0, 0, 0).State("offline\n").NoImage();  // never opened
  m.Disk("sdb").At(2, 0, 1, 0).State("blocked\n");            // an unknown state counts as online
  m.Disk("sdc").At(2, 0, 2, 0).NoScsiDisk();
  m.Disk("sdd").At(7, 0, 0, 0);  // no such host
  m.Disk("sde").At(3, 0, 0, 0);  // a host of no known kind
  m.Disk("sdf").At(2, 0, 9, 0).ScsiDiskEntries({"bogus", "7:0:3:0", "2:x:4:0", "2:0:5:1:0", "2:1:6:7"});
  m.Disk("sdg").At(1, 0, 0, 0).State("running\n").ImageBytes(100);  // fewer than 512 bytes
  m.Disk("sdh").At(4, 0, 7, 0).State("transport-offline\n").NoImage();
  m.Disk("sdi").At(4, 0, 2, 0);
  m.Disk("vda");
  m.Disk("loop0");
  m.Build();
  const std::vector<SCSI::Disk> disks = List();
  ASSERT_EQ("sdi sdh! sda! sdg! sdb sdf ", Names(disks));  // ! unreadable
  EXPECT_EQ(6u, disks[5].target);  // the first entry that qualifies; channel and LUN ignored
  const auto unknown = reports.Containing("'blocked\n'");
  ASSERT_EQ(1u, unknown.size());
  EXPECT_EQ(std::make_pair(2, 83), std::make_pair(unknown[0].level, unknown[0].code));
}

TEST(Enumerate, SerialForms) {
  const char* kId = "6000C29A-1B2C-3D4E-5F60-718293A4B5C6";
  const std::pair<const char*, const char*> cases[] = {  // what scsi_id prints; no id: zero and a trace
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6\n", kId},
      {"ID_SCSI=1\nID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C6\n", kId},
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6", kId},
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c\n", nullptr},      // 31 digits: the feed makes 32
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c", nullptr},        // 31 digits
      {"ID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C\n", nullptr},  // 35 with dashes
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5cz\n", nullptr},     // not hex
      {"ID_VENDOR=QEMU\n", nullptr}, {"", nullptr}};
  for (const auto& [output, id] : cases) {
    SCOPED_TRACE(output);
    AS_FAKE_MACHINE(m);
    Reports reports;
    m.Host(0, "ahci\n");
    m.Disk("sdb").At(0, 0, 0, 0).ScsiIdOutput(output);
    m.Build();
    const std::vector<SCSI::Disk> disks = List();
    ASSERT_EQ(1u, disks.size());  // listed either way
    EXPECT_EQ(id ? id : "00000000-0000-0000-0000-000000000000", disks[0].id.ToString());
    const auto traced = reports.Containing("'/dev/sdb'");
    ASSERT_EQ(id ? 0u : 1u, traced.size());
    if (!id) { EXPECT_EQ(std::make_pair(2, 83), std::make_pair(traced[0].level, traced[0].code)); }
  }
}

TEST(Enumerate, ADevicePathReachesScsiIdAsOneWord) {
  AS_FAKE_MACHINE(m);
  const std::string path = "/dev/sd'b' $(touch /tmp/ran)";
  GUID id = GUID::FromBytes({1});
  EXPECT_FALSE(SCSI::CreateDiskSubsystem()->GetScsiSerialID(Common::FromUtf8(path), id));
  EXPECT_TRUE(id.IsNull());
  EXPECT_FALSE(m.Exists("/tmp/ran"));
  EXPECT_EQ(std::vector<std::string>{"scsi_id --page=0x83 --export --whitelisted --device=" + path},
            m.Calls("scsi_id"));
}

// Every controller kind of the appliance as a real kernel showed them; ATA serials are
// too short to be identifiers.
TEST(Enumerate, KernelFixture) {
  AS_FAKE_MACHINE(m);
  m.Replay("tests/vm/fixtures/several_controllers");
  std::string listed;  // name kind host:target id
  for (const SCSI::Disk& d : List())
    listed += Common::ToUtf8(d.name) + " " + std::to_string(d.type) + " " + std::to_string(d.host) + ":" +
              std::to_string(d.target) + " " + d.id.ToString() + (d.readable ? "" : " unreadable") + "\n";
  EXPECT_EQ("sdf 2 4:0 D15C0000-0000-0000-0000-000000000006\nsde 4 3:0 D15C0000-0000-0000-0000-000000000005\n"
            "sdh 5 11:0 00000000-0000-0000-0000-000000000000\nsda 6 0:0 5A4C4D00-0000-0000-0000-000000000001\n"
            "sdb 6 0:1 5A4C4D00-0000-0000-0000-000000000002\nsdg 7 5:0 00000000-0000-0000-0000-000000000000\n"
            "sdc 8 1:0 D15C0000-0000-0000-0000-000000000003\nsdd 9 2:0 D15C0000-0000-0000-0000-000000000004\n",
            listed);
}

TEST(Subsystem, RefreshScansKnownHostsAndRescansListedDisks) {
  AS_FAKE_MACHINE(m);
  m.Host(0, "ata_piix\n").Host(2, "virtio_scsi\n").Host(5, "nvme\n");
  m.Disk("sda").At(0, 0, 0, 0);
  m.Disk("sdb").At(2, 0, 1, 0);
  m.Disk("sdc").At(5, 0, 0, 0);  // on the unknown host: not listed, not rescanned
  m.Build();
  ASSERT_FALSE(SCSI::CreateDiskSubsystem()->Refresh());
  std::string written;
  for (const char* file : {"class/scsi_host/host0/scan", "class/scsi_host/host2/scan", "class/scsi_host/host5/scan",
                           "block/sda/device/rescan", "block/sdb/device/rescan", "block/sdc/device/rescan",
                           "block/sda/device/delete"})
    written += m.ReadFile(std::string("/sys/") + file) + "|";
  EXPECT_EQ("- - -\n|- - -\n||- - -\n|- - -\n|||", written);
}

// Each call waits for the kernel's announcement of the disk it changes.
TEST(Subsystem, AddAndRemoveCompleteOnTheDisksAnnouncement) {
  AS_FAKE_MACHINE(m);
  Reports reports;
  m.Host(0, "ata_piix\n").Host(2, "virtio_scsi\n");
  m.Disk("sdd").At(2, 0, 3, 0);
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();
  SCSI::Disk disk;
  disk.host = 2;
  disk.target = 3;
  // Twice: the finished call unregistered, the next one registers again.
  for (int round = 0; round < 2; ++round) {
    const Common::Error e = AnnounceUntilDone(8, 48, [&] { return subsystem->AddDisk(disk, disk.name); });
    EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
    EXPECT_EQ(Common::Str(u"sdd"), disk.name);
  }
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/class/scsi_host/host2/scan"));
  EXPECT_EQ("", m.ReadFile("/sys/class/scsi_host/host0/scan"));
  const Common::Error e = AnnounceUntilDone(8, 48, [&] { return subsystem->RemoveDisk(disk); });
  EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  EXPECT_EQ("1\n", m.ReadFile("/sys/block/sdd/device/delete"));
  EXPECT_FALSE(reports.Containing("Updated disk device 8:48.").empty());
  EXPECT_TRUE(reports.Containing("DiskSubsystemImpl::").empty());  // a normal exit is not timed
}

TEST(Subsystem, TheLockIsRecursiveAndHeldWhileAnyHolderLives) {
  AS_FAKE_MACHINE(m);
  const auto held = [] { return TestSupport::FileLockHeld("SCSISubsystemLocker"); };  // as another process sees it
  auto subsystem = SCSI::CreateDiskSubsystem();
  auto first = subsystem->Lock();
  auto second = subsystem->Lock();  // same thread: no deadlock
  second.reset();
  EXPECT_TRUE(held());
  subsystem.reset();  // the holder keeps what it locked alive
  EXPECT_TRUE(held());
  first.reset();
  EXPECT_FALSE(held());
}

// Each failure names what failed; each level of its cause chain has its code and line.
TEST(Subsystem, Failures) {
  const auto init = [] {
    try {
      SCSI::CreateDiskSubsystem();
    } catch (const Common::Error& e) {
      return e;
    }
    return Common::Error();
  };
  SCSI::Disk unknown;
  unknown.host = 9;
  unknown.name = Common::Str(u"sdz");
  std::vector<SCSI::Disk> disks;
  // Room for the walk's directories but not the pipe to scsi_id; how many that is depends
  // on the gaps among the descriptors already held.
  const auto starved = [&] {
    auto subsystem = SCSI::CreateDiskSubsystem();  // before the budget
    Common::Error e;
    for (int spare = 1; spare <= 8 && e.GetCause().GetCode() != 0x530113u; ++spare) {
      disks.assign(3, SCSI::Disk());
      TestSupport::DescriptorBudget budget(spare);
      e = subsystem->Enumerate(disks);
    }
    return e;
  };
  auto subsystem = [] { return SCSI::CreateDiskSubsystem(); };
  const struct {
    const char* removed;  // a file taken away first
    std::function<Common::Error()> call;
    std::vector<std::pair<uint32_t, int>> chain;  // code, line (0: any)
    const char* mentions;                        // in the texts of the chain
    const char* trace;                           // expected once, or none
  } cases[] = {
      {"/sys/class/scsi_host/host1/scan", [&] { return subsystem()->Refresh(); },
       {{0x530040, 366}, {0x530040, 137}, {0x5300C6, 0}}, "'/sys/class/scsi_host/host1/scan'", nullptr},
      {"/sys/block/sda/device/state", [&] { return subsystem()->Enumerate(disks); }, {{0x530040, 430}, {0x530123, 0}},
       "'/sys/block/sda/device/state'", nullptr},
      {nullptr, starved, {{0x530040, 430}, {0x530113, 499}}, "'/dev/sda'", nullptr},
      {nullptr, [&] { return subsystem()->AddDisk(unknown, unknown.name); },
       {{0x530040, 456}, {0x530040, 137}, {0x5300C6, 0}}, "host9/scan", "DiskSubsystemImpl::AddDisk"},
      {nullptr, [&] { return subsystem()->RemoveDisk(unknown); }, {{0x530040, 490}, {0x530040, 474}}, "sdz", nullptr},
      {"/sys/dev/block", init, {{0x530040, 333}}, "", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.chain.front().second);
    AS_FAKE_MACHINE(m);
    Reports reports;
    m.Host(1, "ahci\n");
    m.Disk("sda").At(1, 0, 0, 0);
    m.Build();
    if (c.removed) FakeMachineTesting::fs::remove_all(c.removed);
    disks.assign(3, SCSI::Disk());
    Common::Error e = c.call();
    EXPECT_EQ(3u, disks.size());  // the list is left alone
    std::string texts;
    for (const auto& [code, line] : c.chain) {
      EXPECT_EQ(code, e.GetCode());
      EXPECT_EQ(line ? line : e.GetLocation().line, e.GetLocation().line);
      texts += Common::ToUtf8(e.GetText());
      e = e.GetCause();
    }
    EXPECT_NE(std::string::npos, texts.find(c.mentions)) << texts;
    if (c.trace) { EXPECT_EQ(1u, reports.Containing(c.trace).size()); }
  }
}

using SCSI::Detail::AttachedHandler;
using SCSI::Detail::DiskNotificationProxy;
using Device = std::pair<uint32_t, uint32_t>;

// Claims one device. Keeps only SCSI disks (major 8): the host may announce loop devices.
class Recorder : public SCSI::Detail::DiskSubsystemHandler {
 public:
  explicit Recorder(Device mine = {0, 0}) : mine_(mine) {}
  bool Execute(uint32_t timeout) override { return event_.Wait(timeout); }
  bool OnDeviceEvent(uint32_t major, uint32_t minor) override {
    if (major != 8) return false;
    std::lock_guard<std::mutex> lock(mutex_);
    offered_.emplace_back(major, minor);
    if (Device(major, minor) != mine_) return false;
    event_.Set();
    return true;
  }
  std::vector<Device> Offered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return offered_;
  }

 private:
  const Device mine_;
  mutable std::mutex mutex_;
  std::vector<Device> offered_;
};

std::vector<LinuxEx::snap_message> Batch(std::initializer_list<std::array<uint32_t, 3>> records) {
  std::vector<LinuxEx::snap_message> batch;
  for (const auto& r : records) batch.push_back({r[0], r[1], r[2], {}});
  return batch;
}

// Only updated devices before the end record are offered; the first claim ends the batch.
TEST(Notifications, WhichRecordsAreOfferedAndWhoClaims) {
  auto first = std::make_shared<Recorder>(Device{8, 16});
  auto second = std::make_shared<Recorder>(Device{8, 32});
  AttachedHandler a(first), b(second);
  DiskNotificationProxy::Obtain()->Deliver(Batch({{2, 8, 0}, {1, 8, 48}, {1, 8, 16}, {1, 8, 32}, {0, 0, 0}}).data());
  DiskNotificationProxy::Obtain()->Deliver(Batch({{0, 8, 64}, {1, 8, 32}}).data());
  EXPECT_TRUE(first->Execute(0));
  EXPECT_FALSE(second->Execute(0));
  EXPECT_EQ((std::vector<Device>{{8, 48}, {8, 16}}), first->Offered());
  EXPECT_EQ((std::vector<Device>{{8, 48}}), second->Offered());
}

// Each handler waits for its own disk; a claimed disk announced again is still its own.
TEST(Notifications, HandlersClaimOnlyTheirOwnDisk) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0);  // 8:16
  m.Disk("sdc").At(2, 0, 2, 0);  // 8:32
  m.Disk("sdd").At(2, 0, 3, 0);  // 8:48
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();  // the disk library is initialised
  dsk_supp::UnixVolID expected;
  expected.ScsiHost = 2;
  expected.ScsiTarget = 3;
  auto add = std::make_shared<SCSI::Detail::AddDiskHandler>(expected);
  auto remove = std::make_shared<SCSI::Detail::RemoveDiskHandler>(Common::Str(u"sdc"), 8, 32);
  auto behind = std::make_shared<Recorder>();
  AttachedHandler attachedAdd(add), attachedRemove(remove), attachedBehind(behind);
  auto proxy = DiskNotificationProxy::Obtain();
  proxy->Deliver(Batch({{1, 8, 240}, {1, 8, 16}, {1, 8, 33}, {0, 0, 0}}).data());
  EXPECT_FALSE(add->Execute(50));  // timed out: no such disk, another target
  EXPECT_FALSE(remove->Execute(50));
  proxy->Deliver(Batch({{1, 8, 48}, {0, 0, 0}}).data());
  proxy->Deliver(Batch({{1, 8, 32}, {0, 0, 0}}).data());
  EXPECT_TRUE(add->Execute(50));
  EXPECT_TRUE(remove->Execute(50));
  EXPECT_EQ("/dev/sdd", add->Volume().DevNode);
  proxy->Deliver(Batch({{1, 8, 48}, {0, 0, 0}}).data());
  EXPECT_EQ((std::vector<Device>{{8, 240}, {8, 16}, {8, 33}}), behind->Offered());
  EXPECT_EQ("/dev/sdd", add->Volume().DevNode);
}

// The driver library runs a listener thread exactly while a callback is registered.
TEST(Notifications, RegisteredWhileAnyCallIsAttached) {
  const int idle = TestSupport::CountThreads();
  auto first = DiskNotificationProxy::Obtain();
  EXPECT_EQ(idle + 1, TestSupport::CountThreads());
  auto second = DiskNotificationProxy::Obtain();
  EXPECT_EQ(first, second);
  first.reset();
  EXPECT_EQ(idle + 1, TestSupport::CountThreads());
  second.reset();
  EXPECT_EQ(idle, TestSupport::CountThreads());
  auto again = DiskNotificationProxy::Obtain();
  EXPECT_EQ(idle + 1, TestSupport::CountThreads());
}

using Common::Str;
using SCSI::Detail::DiskAttributes;

const String kTemporary = Str(u"Temporary");

GUID Id(const char* text) {
  GUID id;
  EXPECT_TRUE(GUID::Parse(text, id));
  return id;
}

const GUID kDisk = Id("6000C29A-1B2C-3D4E-5F60-718293A4B5C6");

// A record as the appliance's other programs write it; no value without `value`.
void Record(const String& name, const Registry::Value* value) {
  Registry::Key record;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(name, record));
  if (value) { ASSERT_FALSE(record.SetValue(String(), *value)); }
}

Registry::MultiString Strings(std::initializer_list<const char16_t*> texts) {
  Registry::MultiString out;
  for (const char16_t* t : texts) out.push_back(Str(t));
  return out;
}

TEST(DiskAttributes, HowRecordsRead) {
  const Registry::Value twoPairs = Strings({u"Temporary", u"1", u"Temporary", u"0"}),
                        odd = Strings({u"Temporary", u"1", u"Owner"}), one = Strings({u"Temporary"}),
                        empty = Registry::MultiString{}, number = uint32_t{1}, text = Str(u"Temporary");
  const DiskAttributes stale{{Str(u"stale"), Str(u"x")}};
  const struct {
    const char* what;
    bool record;
    const Registry::Value* value;
    DiskAttributes expected;
    const char* assertion;  // the end of the one assertion expected, or none
    int errorLine;          // of the failure, or 0
  } cases[] = {
      {"no record", false, nullptr, {}, nullptr, 0},
      {"first pair wins", true, &twoPairs, {{kTemporary, Str(u"1")}}, nullptr, 0},
      {"odd count: the last string is ignored", true, &odd, {{kTemporary, Str(u"1")}}, "attributes, line 119", 0},
      {"one string", true, &one, {}, "attributes, line 119", 0},
      {"empty multistring", true, &empty, {}, nullptr, 0},
      {"a number instead", true, &number, {}, "attributes, line 124", 0},
      {"a string instead", true, &text, {}, "attributes, line 124", 0},
      {"no default value: unreadable", true, nullptr, stale, nullptr, 131},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    AS_FAKE_MACHINE(m);
    if (c.record) Record(kDisk.ToWideString(), c.value);
    Reports reports;
    DiskAttributes attributes = stale;
    const Common::Error e = SCSI::Detail::LoadDiskAttributes(kDisk, attributes);
    EXPECT_EQ(c.errorLine, e.GetLocation().line);
    EXPECT_EQ(c.errorLine ? 0x530040u : 0u, e.GetCode());
    EXPECT_EQ(!!e, Common::ToUtf8(e.GetText()).find("'6000C29A-1B2C-3D4E-5F60-718293A4B5C6'") != std::string::npos);
    EXPECT_EQ(c.expected, attributes);
    EXPECT_EQ(c.assertion ? 1u : 0u, reports.Containing("", true).size());
    if (c.assertion) { EXPECT_EQ(1u, reports.Containing(c.assertion, true).size()); }
    EXPECT_TRUE(reports.Containing().empty());
    const auto temporary = SCSI::Detail::GetDiskAttributes(kDisk, kTemporary);
    const auto found = c.expected.find(kTemporary);
    EXPECT_TRUE(temporary == (found == c.expected.end() ? std::nullopt : std::optional<String>(found->second)));
  }
}

TEST(DiskAttributes, SyncDropsOrphansWithOneTraceEach) {
  AS_FAKE_MACHINE(m);
  const GUID present = Id("00000000-0000-0000-0000-00000000000A");
  const Registry::Value value = Strings({u"Temporary", u"1"});
  for (const char16_t* name : {u"00000000-0000-0000-0000-00000000000A", u"00000000-0000-0000-0000-00000000000a",
                               u"FFFFFFFF-0000-0000-0000-000000000000", u"11111111-0000-0000-0000-000000000000"})
    Record(Str(name), &value);
  SCSI::Disk disk;
  disk.id = present;
  Reports reports;
  SCSI::Detail::SyncDisksAttributes({disk});
  std::vector<String> left;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().EnumerateChildren(left));
  EXPECT_EQ(std::vector<String>{present.ToWideString()}, left);  // the lower-case twin was an orphan
  const auto dropped = reports.Containing("orphaned");
  ASSERT_EQ(3u, dropped.size());
  EXPECT_EQ(83, dropped[0].code);

  SCSI::Detail::SyncDisksAttributes({});
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().EnumerateChildren(left));
  EXPECT_TRUE(left.empty());
  EXPECT_EQ(4u, reports.Containing("orphaned").size());
}

TEST(DiskAttributes, ACorruptRegistryFailsSyncAndStaysAsItWas) {
  AS_FAKE_MACHINE(m);
  const Registry::Value value = Strings({u"Temporary", u"1"});
  Record(kDisk.ToWideString(), &value);
  const std::string file = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";
  std::string text = m.ReadFile(file);
  text.resize(text.size() / 2);
  m.WriteFile(file, text);

  EXPECT_FALSE(SCSI::Detail::GetDiskAttributes(kDisk, kTemporary));
  try {
    SCSI::Detail::SyncDisksAttributes({});
    ADD_FAILURE() << "a corrupt registry cannot be synchronised";
  } catch (const Common::Error& e) {
    EXPECT_EQ(std::make_pair(0x530040u, 162), std::make_pair(e.GetCode(), e.GetLocation().line));
  }
  EXPECT_EQ(text, m.ReadFile(file));
}

}  // namespace
