// SCSI hosts and disks: listing, rescans, adding and removing, device notifications, the
// lock, failures, and the disks' attribute records in the registry.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <future>
#include <mutex>

#include "core/common/assert.h"
#include "core/common/unicode.h"
#include "core/trace/trace_tools.h"
#include "descriptors.h"
#include "fake_machine.h"
#include "lock_probe.h"
#include "lx_supp.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/attributes.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/host.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/notification.h"

namespace {

// While it lives: traces as "trace LEVEL/CODE text", assertions (ZEMLORA_SAFE_ASSERT=event)
// as "assert text".
struct Reports : TraceTools::TraceSubscriber {
  Reports() {
    TraceTools::Subscribe(this);
    current = this;
    Common::SetAssertEventCallback([](int, int, int, const char* t) { current->Add(std::string("assert ") + t); });
  }
  ~Reports() override {
    Common::SetAssertEventCallback(nullptr);
    TraceTools::Unsubscribe(this);
  }
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    Add("trace " + std::to_string(e.level) + "/" + std::to_string(e.code) + " " + Common::ToUtf8(e.text, e.length));
  }
  void Add(std::string report) {
    std::lock_guard<std::mutex> lock(mutex);
    all.push_back(std::move(report));
  }
  // Those that begin with `prefix` and contain `part`.
  size_t Count(const std::string& prefix, const std::string& part = "") {
    std::lock_guard<std::mutex> lock(mutex);
    return std::count_if(all.begin(), all.end(),
                         [&](const std::string& r) { return r.rfind(prefix, 0) == 0 && r.find(part) != r.npos; });
  }
  static inline Reports* current = nullptr;
  std::mutex mutex;
  std::vector<std::string> all;
};

Common::Error Thrown(const std::function<void()>& call) {
  try {
    call();
  } catch (const Common::Error& e) {
    return e;
  }
  return Common::Error();
}

std::vector<SCSI::Disk> List() {
  std::vector<SCSI::Disk> disks;
  const Common::Error e = SCSI::CreateDiskSubsystem()->Enumerate(disks);
  EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  return disks;
}

TEST(ScsiHosts, UnknownDriversAreLeftOutAndReportedOnce) {
  using SCSI::Detail::HostTable;
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
  EXPECT_EQ(1u, reports.Count("assert", "impl/host, line 115"));
  EXPECT_EQ(2u, reports.Count("assert", "impl/host, line 121"));
  EXPECT_EQ(3u, reports.Count("assert"));
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
  FakeMachineTesting::fs::create_directories("/sys/block/vda/device/scsi_disk/2:0:3:0");  // not an sd name
  const std::vector<SCSI::Disk> disks = List();
  std::string names;  // ! unreadable
  for (const auto& d : disks) names += Common::ToUtf8(d.name) + (d.readable ? " " : "! ");
  ASSERT_EQ("sdi sdh! sda! sdg! sdb sdf ", names);
  EXPECT_EQ(6u, disks[5].target);  // the first entry that qualifies; channel and LUN ignored
  // Neither an unknown state nor a disk without serial fails the listing: each is traced.
  EXPECT_EQ(1u, reports.Count("trace 2/83 ", "'blocked\n'"));
  EXPECT_EQ(1u, reports.Count("trace 2/83 ", "'/dev/sdi'"));
}

// The identifier is the first ID_SCSI_SERIAL line's, dashed or 32 hex digits; none is zero.
// The device path reaches scsi_id as one word.
TEST(Enumerate, ScsiIdCallsAndAnswers) {
  AS_FAKE_MACHINE(m);
  const char* outputs[] = {
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6\n",
      "ID_SCSI=1\nID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C6\nID_SCSI_SERIAL=0\n",
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6",
      "ID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C6",   // 36 with dashes, no feed
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c\n",      // 31 digits: the feed makes 32
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c",        // 31 digits
      "ID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C\n",  // 35 with dashes
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5cz\n",     // not hex
      "ID_VENDOR=QEMU\n"};
  m.Host(0, "ahci\n");
  for (unsigned target = 0; target < std::size(outputs); ++target)
    m.Disk(std::string("sd") + char('a' + target)).At(0, 0, target, 0).ScsiIdOutput(outputs[target]);
  m.Build();
  std::string ids;
  for (const SCSI::Disk& d : List())
    ids += d.id.ToString() == "6000C29A-1B2C-3D4E-5F60-718293A4B5C6" ? "id " : d.id.IsNull() ? "none " : "other ";
  EXPECT_EQ("id id id id none none none none none ", ids);

  const std::string path = "/dev/sd'b' $(touch /tmp/ran)";
  GUID id = GUID::FromBytes({1});
  EXPECT_FALSE(SCSI::CreateDiskSubsystem()->GetScsiSerialID(Common::FromUtf8(path), id));
  EXPECT_TRUE(id.IsNull());
  EXPECT_FALSE(m.Exists("/tmp/ran"));
  EXPECT_EQ("scsi_id --page=0x83 --export --whitelisted --device=" + path, m.Calls("scsi_id").back());
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

// Announces the disk until the call is done: its handler may attach after any announcement.
Common::Error AnnounceUntilDone(uint32_t major, uint32_t minor, const std::function<Common::Error()>& call) {
  auto proxy = SCSI::Detail::DiskNotificationProxy::Obtain();
  const LinuxEx::snap_message batch[] = {{LinuxEx::snap_disk_updated, major, minor, {}}, {LinuxEx::snap_end, 0, 0, {}}};
  auto result = std::async(std::launch::async, call);
  while (result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) proxy->Deliver(batch);
  return result.get();
}

// A refresh scans the known hosts and rescans the listed disks; adding or removing a disk
// touches only it and completes on the kernel's announcement of it.
TEST(Subsystem, RefreshAddAndRemoveWriteOnlyTheirFiles) {
  AS_FAKE_MACHINE(m);
  Reports reports;
  m.Host(0, "ata_piix\n").Host(2, "virtio_scsi\n").Host(5, "nvme\n");
  m.Disk("sda").At(0, 0, 0, 0);
  m.Disk("sdb").At(2, 0, 1, 0);  // 8:16
  m.Disk("sdc").At(5, 0, 0, 0);  // on the unknown host: not listed, not rescanned
  m.Build();
  const auto written = [&m] {  // and cleared for the next step
    std::string all;
    for (const std::string file : {"class/scsi_host/host0/scan", "class/scsi_host/host2/scan",
                                   "class/scsi_host/host5/scan", "block/sda/device/rescan", "block/sdb/device/rescan",
                                   "block/sdc/device/rescan", "block/sdb/device/delete"}) {
      all += m.ReadFile("/sys/" + file) + "|";
      m.WriteFile("/sys/" + file, "");
    }
    return all;
  };
  auto subsystem = SCSI::CreateDiskSubsystem();
  SCSI::Disk sdb{0, 2, 1, {}, {}, false};
  ASSERT_FALSE(subsystem->Refresh());
  EXPECT_EQ("- - -\n|- - -\n||- - -\n|- - -\n|||", written());
  EXPECT_FALSE(AnnounceUntilDone(8, 16, [&] { return subsystem->AddDisk(sdb, sdb.name); }));
  EXPECT_EQ("|- - -\n||||||", written());
  EXPECT_EQ(Common::Str(u"sdb"), sdb.name);
  EXPECT_FALSE(AnnounceUntilDone(8, 16, [&] { return subsystem->RemoveDisk(sdb); }));
  EXPECT_EQ("||||||1\n|", written());
  EXPECT_EQ(0u, reports.Count("trace", "DiskSubsystemImpl::"));  // a normal exit is not timed
}

TEST(Subsystem, TheLockIsHeldWhileItsHolderLives) {
  AS_FAKE_MACHINE(m);
  const auto held = [] { return TestSupport::FileLockHeld("SCSISubsystemLocker"); };  // as another process sees it
  auto subsystem = SCSI::CreateDiskSubsystem();
  auto holder = subsystem->Lock();
  subsystem.reset();  // the holder keeps what it locked alive
  EXPECT_TRUE(held());
  holder.reset();
  EXPECT_FALSE(held());
}

// Each failure leaves the list alone; each level of its cause chain has its code and the
// place support tooling knows (0: any); only an operation left by an exception traces its time.
TEST(Subsystem, Failures) {
  SCSI::Disk unknown{0, 9, 0, Common::Str(u"sdz"), {}, false};
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
  const auto subsystem = [] { return SCSI::CreateDiskSubsystem(); };
  const struct {
    const char* removed;  // a file taken away first
    std::function<Common::Error()> call;
    std::vector<std::pair<uint32_t, int>> chain;  // code, place's line
    bool timed;             // traces how long it took
    bool directory = false;  // put where the file was
  } cases[] = {
      {"/sys/class/scsi_host/host1/scan", [&] { return subsystem()->Refresh(); },
       {{0x530040, 366}, {0x530040, 137}, {0x5300C6, 0}}, false},
      {"/sys/block/sda/device/state", [&] { return subsystem()->Enumerate(disks); }, {{0x530040, 430}, {0x530123, 0}},
       false},
      {"/sys/block/sda/device/state", [&] { return subsystem()->Enumerate(disks); }, {{0x530040, 430}, {0x530124, 0}},
       false, true},
      {nullptr, starved, {{0x530040, 430}, {0x530113, 499}}, false},
      {nullptr, [&] { return subsystem()->AddDisk(unknown, unknown.name); },
       {{0x530040, 456}, {0x530040, 137}, {0x5300C6, 0}}, true},
      {nullptr, [&] { return subsystem()->RemoveDisk(unknown); }, {{0x530040, 490}, {0x530040, 474}}, false},
      {"/sys/dev/block", [] { return Thrown([] { SCSI::CreateDiskSubsystem(); }); }, {{0x530040, 333}}, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    AS_FAKE_MACHINE(m);
    Reports reports;
    m.Host(1, "ahci\n");
    m.Disk("sda").At(1, 0, 0, 0);
    m.Build();
    if (c.removed) FakeMachineTesting::fs::remove_all(c.removed);
    if (c.directory) FakeMachineTesting::fs::create_directory(c.removed);
    disks.assign(3, SCSI::Disk());
    Common::Error e = c.call();
    EXPECT_EQ(3u, disks.size());
    for (const auto& [code, line] : c.chain) {
      EXPECT_EQ(code, e.GetCode());
      EXPECT_EQ(line ? line : e.GetLocation().line, e.GetLocation().line);
      e = e.GetCause();
    }
    EXPECT_EQ(c.timed ? 1u : 0u, reports.Count("trace", "DiskSubsystemImpl::"));
  }
}

using SCSI::Detail::DiskNotificationProxy;
using Device = std::pair<uint32_t, uint32_t>;

// Claims nothing; records the SCSI disks (major 8) offered: the host may announce loop devices.
struct Recorder : SCSI::Detail::DiskSubsystemHandler {
  bool Execute(uint32_t) override { return false; }
  bool OnDeviceEvent(uint32_t major, uint32_t minor) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (major == 8) offered.emplace_back(major, minor);
    return false;
  }
  std::mutex mutex;
  std::vector<Device> offered;
};

void Deliver(std::initializer_list<std::array<uint32_t, 3>> records) {  // kind, major, minor
  std::vector<LinuxEx::snap_message> batch;
  for (const auto& r : records) batch.push_back({r[0], r[1], r[2], {}});
  DiskNotificationProxy::Obtain()->Deliver(batch.data());
}

// Updated devices before the end record are offered to the handlers in the order they
// came, and the first claim ends the batch. Each handler claims only its own disk; once
// claimed, a disk announced at the same address is still its own, but the answer stays.
TEST(Notifications, HandlersClaimTheirOwnDiskInTurn) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0);  // 8:16
  m.Disk("sdc").At(2, 0, 2, 0);  // 8:32
  m.Disk("sdd").At(2, 0, 3, 0);  // 8:48
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();  // the disk library is initialised
  const dsk_supp::UnixVolID expected{{}, 0, 0, 2, 0, 3, 0};  // host 2, target 3
  auto add = std::make_shared<SCSI::Detail::AddDiskHandler>(expected);
  auto remove = std::make_shared<SCSI::Detail::RemoveDiskHandler>(Common::Str(u"sdc"), 8, 32);
  auto behind = std::make_shared<Recorder>();
  SCSI::Detail::AttachedHandler attachedAdd(add), attachedRemove(remove), attachedBehind(behind);
  Deliver({{2, 8, 48}, {1, 8, 240}, {1, 8, 16}, {1, 8, 33}, {0, 0, 0}, {1, 8, 48}});
  EXPECT_FALSE(add->Execute(0));
  Deliver({{1, 8, 48}, {1, 8, 32}, {0, 0, 0}});
  EXPECT_TRUE(add->Execute(0));
  EXPECT_FALSE(remove->Execute(0));
  Deliver({{1, 8, 32}, {0, 0, 0}});
  EXPECT_TRUE(remove->Execute(0));
  EXPECT_EQ("/dev/sdd", add->Volume().DevNode);
  m.Disk("sde").At(2, 0, 3, 0);  // 8:64
  m.Build();
  Deliver({{1, 8, 64}, {0, 0, 0}});
  EXPECT_TRUE(add->Execute(0));
  EXPECT_EQ("/dev/sdd", add->Volume().DevNode);
  std::lock_guard<std::mutex> lock(behind->mutex);
  EXPECT_EQ((std::vector<Device>{{8, 240}, {8, 16}, {8, 33}}), behind->offered);
}

// The driver library runs a listener thread exactly while a callback is registered.
TEST(Notifications, RegisteredWhileAnyCallIsAttached) {
  const int idle = TestSupport::CountThreads();
  auto first = DiskNotificationProxy::Obtain();
  auto second = DiskNotificationProxy::Obtain();
  EXPECT_EQ(first, second);
  EXPECT_EQ(idle + 1, TestSupport::CountThreads());
  first.reset();
  second.reset();
  EXPECT_EQ(idle, TestSupport::CountThreads());
  first = DiskNotificationProxy::Obtain();
  EXPECT_EQ(idle + 1, TestSupport::CountThreads());
}

using Common::Str;
using SCSI::DiskAttributes;

const String kTemporary = Str(u"Temporary");
const GUID kDisk = [] {
  GUID id;
  GUID::Parse("6000C29A-1B2C-3D4E-5F60-718293A4B5C6", id);
  return id;
}();

// A record as the appliance's other programs write it.
void Record(const String& name, const std::optional<Registry::Value>& value) {
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
  const DiskAttributes stale{{Str(u"stale"), Str(u"x")}};
  const DiskAttributes pairs{{kTemporary, Str(u"1")}, {Str(u"Owner"), Str(u"me")}};
  // `assertion`: the end of the one assertion expected, or none.
  const struct { const char* what; bool record; std::optional<Registry::Value> value; DiskAttributes expected;
                 const char* assertion; } cases[] = {
      {"no record", false, std::nullopt, {}, nullptr},
      {"the first pair of a name wins", true, Strings({u"Temporary", u"1", u"Temporary", u"0", u"Owner", u"me"}),
       pairs, nullptr},
      {"odd count: the last string is ignored", true, Strings({u"Owner", u"me", u"Temporary"}),
       {{Str(u"Owner"), Str(u"me")}}, "attributes, line 119"},
      {"empty multistring", true, Registry::MultiString{}, {}, nullptr},
      {"a number instead", true, uint32_t{1}, {}, "attributes, line 124"},
      {"no default value: unreadable, the attributes left alone", true, std::nullopt, stale, nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    AS_FAKE_MACHINE(m);
    if (c.record) Record(kDisk.ToWideString(), c.value);
    Reports reports;
    DiskAttributes attributes = stale;
    const Common::Error e = SCSI::Detail::LoadDiskAttributes(kDisk, attributes);
    const bool fails = c.record && !c.value;
    EXPECT_EQ(fails ? 0x530040u : 0u, e.GetCode());
    EXPECT_EQ(fails ? 131 : 0, e.GetLocation().line);
    EXPECT_EQ(c.expected, attributes);
    EXPECT_EQ(c.assertion ? 1u : 0u, reports.Count("assert"));
    EXPECT_EQ(reports.Count("assert"), reports.Count("assert", c.assertion ? c.assertion : ""));
    EXPECT_EQ(c.expected.count(kTemporary), SCSI::Detail::DisksWithAttribute(kTemporary).count(kDisk.ToWideString()));
  }
}

// Each orphan is traced and dropped. A corrupt registry fails the sync and stays as it was.
TEST(DiskAttributes, SyncDropsOrphans) {
  AS_FAKE_MACHINE(m);
  for (const char16_t* name : {u"6000C29A-1B2C-3D4E-5F60-718293A4B5C6", u"6000c29a-1b2c-3d4e-5f60-718293a4b5c6",
                               u"FFFFFFFF-0000-0000-0000-000000000000", u"11111111-0000-0000-0000-000000000000"})
    Record(Str(name), Strings({u"Temporary", u"1"}));
  Reports reports;
  SCSI::Detail::SyncDisksAttributes({SCSI::Disk{0, 0, 0, {}, kDisk, false}});
  std::vector<String> left;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().EnumerateChildren(left));
  EXPECT_EQ(std::vector<String>{kDisk.ToWideString()}, left);  // the lower-case twin was an orphan
  EXPECT_EQ(3u, reports.Count("trace 1/83 ", "orphaned"));

  const std::string file = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";
  std::string text = m.ReadFile(file);
  text.resize(text.size() / 2);
  m.WriteFile(file, text);
  const Common::Error e = Thrown([] { SCSI::Detail::SyncDisksAttributes({}); });
  EXPECT_EQ(std::make_pair(0x530040u, 162), std::make_pair(e.GetCode(), e.GetLocation().line));
  EXPECT_EQ(text, m.ReadFile(file));
}

}  // namespace
