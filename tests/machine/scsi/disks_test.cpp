// SCSI hosts and disks: listing, changes, notifications, the lock, failures, attribute records.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <future>
#include <mutex>
#include <set>

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

using Common::Str;
using SCSI::Detail::DiskNotificationProxy;

// While it lives: traces as "trace LEVEL/CODE text", assertions as "assert text".
struct Reports : TraceTools::TraceSubscriber {
  Reports() {
    current = this;
    TraceTools::Subscribe(this);
    Common::SetAssertEventCallback([](int, int, int, const char* t) { current->Add(std::string("assert ") + t); });
  }
  ~Reports() override { Common::SetAssertEventCallback(nullptr); TraceTools::Unsubscribe(this); }
  bool WantsEveryEvent() const override { return true; }
  void OnTraceEvent(const TraceTools::TraceEvent& e) override {
    Add("trace " + std::to_string(e.level) + "/" + std::to_string(e.code) + " " + Common::ToUtf8(e.text, e.length));
  }
  void Add(const std::string& report) { std::lock_guard<std::mutex> lock(mutex); all.push_back(report); }
  // Those that begin with `prefix` and contain `part`.
  size_t Count(const std::string& prefix, const std::string& part = "") {
    std::lock_guard<std::mutex> lock(mutex);
    return std::count_if(all.begin(), all.end(),
                         [&](auto& r) { return r.rfind(prefix, 0) == 0 && r.find(part) != r.npos; });
  }
  static inline Reports* current = nullptr;
  std::mutex mutex;
  std::vector<std::string> all;
};

Common::Error Thrown(const std::function<void()>& call) {
  try { call(); } catch (const Common::Error& e) { return e; }
  return Common::Error();
}

std::vector<SCSI::Disk> List() {
  std::vector<SCSI::Disk> disks;
  const Common::Error e = SCSI::CreateDiskSubsystem()->Enumerate(disks);
  EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  return disks;
}

// Only SCSI disks on known hosts, by kind, host and target; an unknown driver is reported once per
// process (this test enumerates first). The id: the first ID_SCSI_SERIAL, dashed or 32 hex digits.
TEST(Enumerate, HostsDisksAndIdentifiers) {
  using SCSI::Detail::HostTable;
  AS_FAKE_MACHINE(m);
  Reports reports;
  m.Host(2, "virtio_scsi\n").Host(1, "vmw_pvscsi\n").Host(9, "mptspi\n").Host(4, "mptspi\n").Host(10, "ata_piix\n");
  m.Host(3, "nvme\n").Host(5, "ahci").Host(6, "ATA_PIIX\n").HostWithoutProcName(8);
  m.Disk("sda").At(9, 0, 0, 0).State("offline\n").NoImage();  // never opened
  m.Disk("sdb").At(2, 0, 1, 0).State("blocked\n");            // an unknown state counts as online
  m.Disk("sdc").At(2, 0, 2, 0).NoScsiDisk();
  m.Disk("sde").At(3, 0, 0, 0);  // a host of no known kind
  m.Disk("sdf").At(2, 0, 9, 0).ScsiDiskEntries({"bogus", "7:0:3:0", "2:x:4:0", "2:0:5:1:0", "2:1:6:7"});
  m.Disk("sdg").At(1, 0, 0, 0).State("running\n").ImageBytes(100);  // fewer than 512 bytes
  m.Disk("sdh").At(4, 0, 7, 0).State("transport-offline\n").NoImage();
  m.Disk("sdi").At(4, 0, 2, 0);
  const char* outputs[] = {  // of scsi_id for sdj, sdk, ... on host 10
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6\n",
      "ID_SCSI=1\nID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C6\nID_SCSI_SERIAL=0\n",
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6",
      "ID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C6",   // 36 with dashes, no feed
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c\n",      // 31 digits: the feed makes 32
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c",        // 31 digits
      "ID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C\n",  // 35 with dashes
      "ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5cz\n",     // not hex
      "ID_VENDOR=QEMU\n"};
  for (unsigned target = 0; target < std::size(outputs); ++target)
    m.Disk(std::string("sd") + char('j' + target)).At(10, 0, target, 0).ScsiIdOutput(outputs[target]);
  m.Disk("vda");
  m.Build();
  FakeMachineTesting::fs::create_directories("/sys/block/vda/device/scsi_disk/2:0:3:0");  // not an sd name
  HostTable hosts{{99, SCSI::HostTypeAhci}};  // replaced, not merged
  SCSI::Detail::EnumerateHosts(hosts);
  EXPECT_EQ((HostTable{{1, SCSI::HostTypePvScsi}, {2, SCSI::HostTypeVirtioScsi}, {4, SCSI::HostTypeMptSpi},
                       {9, SCSI::HostTypeMptSpi}, {10, SCSI::HostTypeAtaPiix}}),
            hosts);
  const std::vector<SCSI::Disk> disks = List();
  std::string listed;  // ! unreadable, =id the serial above, =other another
  for (const auto& d : disks)
    listed += Common::ToUtf8(d.name) + (d.readable ? "" : "!") +
              (d.id.IsNull() ? " " : d.id.ToString() == "6000C29A-1B2C-3D4E-5F60-718293A4B5C6" ? "=id " : "=other ");
  ASSERT_EQ("sdi sdh! sda! sdg! sdj=id sdk=id sdl=id sdm=id sdn sdo sdp sdq sdr sdb sdf ", listed);
  EXPECT_EQ(6u, disks[14].target);  // the first entry that qualifies; channel and LUN ignored
  EXPECT_EQ(1u, reports.Count("assert", "impl/host, line 115"));
  EXPECT_EQ(2u, reports.Count("assert", "impl/host, line 121"));
  EXPECT_EQ(3u, reports.Count("assert"));
  // Neither an unknown state nor a disk without serial fails the listing: each is traced.
  EXPECT_EQ(1u, reports.Count("trace 2/83 ", "'blocked\n'"));
  EXPECT_EQ(1u, reports.Count("trace 2/83 ", "'/dev/sdi'"));

  // The device path reaches scsi_id as one word.
  const std::string path = "/dev/sd'b' $(touch /tmp/ran)";
  GUID id = GUID::FromBytes({1});
  EXPECT_FALSE(SCSI::CreateDiskSubsystem()->GetScsiSerialID(Common::FromUtf8(path), id));
  EXPECT_TRUE(id.IsNull());
  EXPECT_FALSE(m.Exists("/tmp/ran"));
  EXPECT_EQ("scsi_id --page=0x83 --export --whitelisted --device=" + path, m.Calls("scsi_id").back());
}

// Every controller kind as a real kernel showed them; ATA serials are too short to be identifiers.
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

void Deliver(std::initializer_list<std::array<uint32_t, 3>> records) {  // kind, major, minor
  std::vector<LinuxEx::snap_message> batch;
  for (const auto& r : records) batch.push_back({r[0], r[1], r[2], {}});
  DiskNotificationProxy::Obtain()->Deliver(batch.data());
}

// Announces the disk until the call is done: its handler may attach after any announcement.
Common::Error AnnounceUntilDone(uint32_t major, uint32_t minor, const std::function<Common::Error()>& call) {
  const auto proxy = DiskNotificationProxy::Obtain();
  auto result = std::async(std::launch::async, call);
  while (result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready)
    Deliver({{LinuxEx::snap_disk_updated, major, minor}, {LinuxEx::snap_end, 0, 0}});
  return result.get();
}

// Adding or removing a disk touches only it and ends on its announcement; the lock lives with its holder.
TEST(Subsystem, RefreshAddRemoveAndLock) {
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
  EXPECT_EQ(Str(u"sdb"), sdb.name);
  EXPECT_FALSE(AnnounceUntilDone(8, 16, [&] { return subsystem->RemoveDisk(sdb); }));
  EXPECT_EQ("||||||1\n|", written());
  EXPECT_EQ(0u, reports.Count("trace", "DiskSubsystemImpl::"));  // a normal exit is not timed
  auto holder = subsystem->Lock();
  subsystem.reset();
  EXPECT_TRUE(TestSupport::FileLockHeld("SCSISubsystemLocker"));  // as another process sees it
  holder.reset();
  EXPECT_FALSE(TestSupport::FileLockHeld("SCSISubsystemLocker"));
}

// Failures leave the list alone; each cause has its code and place (0: any); a timed call left by a throw traces.
TEST(Subsystem, Failures) {
  SCSI::Disk unknown{0, 9, 0, Str(u"sdz"), {}, false};
  std::vector<SCSI::Disk> disks;
  const auto subsystem = [] { return SCSI::CreateDiskSubsystem(); };
  // Room for the walk's directories but not the pipe to scsi_id (gaps among held descriptors vary).
  const auto starved = [&] {
    auto s = subsystem();  // before the budget
    Common::Error e;
    for (int spare = 1; spare <= 8 && e.GetCause().GetCode() != 0x530113u; ++spare) {
      disks.assign(3, SCSI::Disk());
      TestSupport::DescriptorBudget budget(spare);
      e = s->Enumerate(disks);
    }
    return e;
  };
  const struct {
    const char* removed;  // a file taken away first
    std::function<Common::Error()> call;
    std::vector<std::pair<uint32_t, int>> chain;  // code, place's line
    bool timed;              // traces how long it took
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

// Claims nothing; records the SCSI disks (major 8) offered: the host may announce loop devices.
struct Recorder : SCSI::Detail::DiskSubsystemHandler {
  bool Execute(uint32_t) override { return false; }
  bool OnDeviceEvent(uint32_t major, uint32_t minor) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (major == 8) offered += std::to_string(minor) + " ";
    return false;
  }
  std::mutex mutex;
  std::string offered;
};

// Devices up to the end record go to the handlers in order, the first claim ends the batch; a repeat
// is claimed but the answer stays. One listener thread runs exactly while any handler is attached.
TEST(Notifications, HandlersClaimTheirOwnDiskInTurn) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0);  // 8:16
  m.Disk("sdc").At(2, 0, 2, 0);  // 8:32
  m.Disk("sdd").At(2, 0, 3, 0);  // 8:48
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();  // the disk library is initialised
  const int idle = TestSupport::CountThreads();
  auto add = std::make_shared<SCSI::Detail::AddDiskHandler>(dsk_supp::UnixVolID{{}, 0, 0, 2, 0, 3, 0});  // 2:0:3:0
  auto remove = std::make_shared<SCSI::Detail::RemoveDiskHandler>(Str(u"sdc"), 8, 32);
  auto behind = std::make_shared<Recorder>();
  {
    SCSI::Detail::AttachedHandler attachedAdd(add), attachedRemove(remove), attachedBehind(behind);
    EXPECT_EQ(idle + 1, TestSupport::CountThreads());
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
  }
  EXPECT_EQ(idle, TestSupport::CountThreads());
  const auto again = DiskNotificationProxy::Obtain();
  EXPECT_EQ(idle + 1, TestSupport::CountThreads());
  std::lock_guard<std::mutex> lock(behind->mutex);
  EXPECT_EQ("240 16 33 ", behind->offered);
}

using SCSI::DiskAttributes;

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

// How records read, which carry an attribute, which a sync drops; a corrupt registry fails it unchanged.
TEST(DiskAttributes, ReadListedAndSynced) {
  AS_FAKE_MACHINE(m);
  const String kTemporary = Str(u"Temporary");
  GUID kept;
  GUID::Parse("6000C29A-1B2C-3D4E-5F60-718293A4B5C6", kept);
  const DiskAttributes stale{{Str(u"stale"), Str(u"x")}};
  // `assertion`: the end of the one assertion expected, or none.
  const struct { const char* what; bool record; std::optional<Registry::Value> value; DiskAttributes expected;
                 const char* assertion; } cases[] = {
      {"the first pair of a name wins", true, Strings({u"Temporary", u"1", u"Temporary", u"0", u"Owner", u"me"}),
       {{kTemporary, Str(u"1")}, {Str(u"Owner"), Str(u"me")}}, nullptr},
      {"no record", false, std::nullopt, {}, nullptr},
      {"odd count: the last string is ignored", true, Strings({u"Owner", u"me", u"Temporary"}),
       {{Str(u"Owner"), Str(u"me")}}, "attributes, line 119"},
      {"empty multistring", true, Registry::MultiString{}, {}, nullptr},
      {"a number instead", true, uint32_t{1}, {}, "attributes, line 124"},
      {"no default value: unreadable, the attributes left alone", true, std::nullopt, stale, nullptr},
  };
  std::set<String> temporary;
  for (uint8_t i = 0; i < std::size(cases); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE(c.what);
    const GUID id = i ? GUID::FromBytes({i}) : kept;
    if (c.record) Record(id.ToWideString(), c.value);
    Reports reports;
    DiskAttributes attributes = stale;
    const Common::Error e = SCSI::Detail::LoadDiskAttributes(id, attributes);
    const bool fails = c.record && !c.value;
    EXPECT_EQ(fails ? 0x530040u : 0u, e.GetCode());
    EXPECT_EQ(fails ? 131 : 0, e.GetLocation().line);
    EXPECT_EQ(c.expected, attributes);
    EXPECT_EQ(c.assertion ? 1u : 0u, reports.Count("assert"));
    EXPECT_EQ(reports.Count("assert"), reports.Count("assert", c.assertion ? c.assertion : ""));
    if (c.expected.count(kTemporary)) temporary.insert(id.ToWideString());
  }
  EXPECT_EQ(temporary, SCSI::Detail::DisksWithAttribute(kTemporary));

  // Each orphan is traced and dropped; a lower-case twin of a present disk's record is one.
  Record(Str(u"6000c29a-1b2c-3d4e-5f60-718293a4b5c6"), Strings({u"Temporary", u"1"}));
  Reports reports;
  SCSI::Detail::SyncDisksAttributes({SCSI::Disk{0, 0, 0, {}, kept, false}});
  std::vector<String> left;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().EnumerateChildren(left));
  EXPECT_EQ(std::vector<String>{kept.ToWideString()}, left);
  EXPECT_EQ(5u, reports.Count("trace 1/83 ", "orphaned"));

  const std::string file = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";
  std::string text = m.ReadFile(file);
  text.resize(text.size() / 2);
  m.WriteFile(file, text);
  const Common::Error e = Thrown([] { SCSI::Detail::SyncDisksAttributes({}); });
  EXPECT_EQ(std::make_pair(0x530040u, 162), std::make_pair(e.GetCode(), e.GetLocation().line));
  EXPECT_EQ(text, m.ReadFile(file));
}

}  // namespace
