// SCSI hosts and disks: which count, how they are listed, rescanned, added and removed,
// the lock between processes, and what each failure reports.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <future>

#include "descriptors.h"
#include "fake_machine.h"
#include "files.h"
#include "lx_supp.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/host.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/notification.h"
#include "recorders.h"

namespace {

using FakeMachineTesting::FakeMachine;
using SCSI::Detail::HostTable;

const char kSerial[] = "6000c29a1b2c3d4e5f60718293a4b5c6";

std::vector<SCSI::Disk> List() {
  std::vector<SCSI::Disk> disks;
  const Common::Error e = SCSI::CreateDiskSubsystem()->Enumerate(disks);
  EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  return disks;
}

std::string Names(const std::vector<SCSI::Disk>& disks) {
  std::string names;
  for (const auto& d : disks) names += Common::ToUtf8(d.name) + " ";
  return names;
}

// Announces the disk `major`:`minor` to the waiting call until it is done, as the
// kernel would; the call's handler may attach after any one announcement.
Common::Error AnnounceUntilDone(uint32_t major, uint32_t minor, const std::function<Common::Error()>& call) {
  auto proxy = SCSI::Detail::DiskNotificationProxy::Obtain();
  const LinuxEx::snap_message batch[] = {{LinuxEx::snap_disk_updated, major, minor, {}}, {LinuxEx::snap_end, 0, 0, {}}};
  auto result = std::async(std::launch::async, call);
  while (result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) proxy->Deliver(batch);
  return result.get();
}

TEST(ScsiHosts, UnknownDriversAreLeftOutAndReportedOnce) {
  AS_FAKE_MACHINE(m);
  AssertRecorder asserts;
  m.Host(0, "ata_piix\n").Host(10, "ata_piix\n").Host(3, "ahci").Host(4, "nvme\n").Host(5, "ATA_PIIX\n");
  m.HostWithoutProcName(6);
  m.Build();
  HostTable hosts{{99, SCSI::HostTypeAhci}};  // replaced, not merged
  SCSI::Detail::EnumerateHosts(hosts);
  SCSI::Detail::EnumerateHosts(hosts);
  EXPECT_EQ((HostTable{{0, SCSI::HostTypeAtaPiix}, {10, SCSI::HostTypeAtaPiix}}), hosts);
  // Once per process for unknown drivers (this program's only such test), every time
  // for a host without proc_name.
  const std::string file = "\", file quillenmark/raw/common/scsi_disk_helpers/impl/host, line ";
  EXPECT_EQ(1u, asserts.Count("\"Unknown scsi host type" + file + "115"));
  EXPECT_EQ(2u, asserts.Count("\"No hostN/proc_name entry" + file + "121"));
  EXPECT_EQ(3u, asserts.Count());
}

TEST(Enumerate, OnlyScsiDisksOnKnownHostsSortedByKindHostAndTarget) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n").Host(3, "nvme\n").Host(1, "vmw_pvscsi\n").Host(9, "mptspi\n").Host(4, "mptspi\n");
  m.Disk("sda").At(9, 0, 0, 0);
  m.Disk("sdb").At(2, 0, 1, 0).Serial(kSerial);
  m.Disk("sdc").At(2, 0, 2, 0).NoScsiDisk();
  m.Disk("sdd").At(7, 0, 0, 0);  // no such host
  m.Disk("sde").At(3, 0, 0, 0);  // a host of no known kind
  m.Disk("sdf").At(2, 0, 9, 0).ScsiDiskEntries({"bogus", "7:0:3:0", "2:x:4:0", "2:0:5:1:0", "2:1:6:7"});
  m.Disk("sdg").At(1, 0, 0, 0);
  m.Disk("sdh").At(4, 0, 7, 0);
  m.Disk("sdi").At(4, 0, 2, 0);
  m.Disk("vda");
  m.Disk("loop0");
  m.Build();
  const std::vector<SCSI::Disk> disks = List();
  ASSERT_EQ("sdi sdh sda sdg sdb sdf ", Names(disks));
  EXPECT_EQ(SCSI::HostTypeVirtioScsi, disks[4].type);
  EXPECT_EQ(2u, disks[4].host);
  EXPECT_EQ(1u, disks[4].target);
  EXPECT_EQ("6000C29A-1B2C-3D4E-5F60-718293A4B5C6", disks[4].id.ToString());
  EXPECT_TRUE(disks[4].readable);
  EXPECT_EQ(6u, disks[5].target);  // the first entry that qualifies; channel and LUN ignored
}

TEST(Enumerate, StateDecidesWhetherTheDeviceIsRead) {
  AS_FAKE_MACHINE(m);
  TraceRecorder traces;
  m.Host(0, "mptspi\n");
  m.Disk("sda").At(0, 0, 0, 0).State("offline\n").NoImage();  // never opened
  m.Disk("sdb").At(0, 0, 1, 0).State("blocked\n");
  m.Disk("sdc").At(0, 0, 2, 0).State("running\n").ImageBytes(100);
  m.Disk("sdd").At(0, 0, 3, 0).State("transport-offline\n").NoImage();
  m.Build();
  const std::vector<SCSI::Disk> disks = List();
  ASSERT_EQ("sda sdb sdc sdd ", Names(disks));
  EXPECT_FALSE(disks[0].readable);
  EXPECT_TRUE(disks[1].readable);   // an unknown state counts as online
  EXPECT_FALSE(disks[2].readable);  // fewer than 512 bytes
  EXPECT_FALSE(disks[3].readable);
  const auto unknown = traces.Containing("'sdb'");
  ASSERT_EQ(1u, unknown.size());
  EXPECT_EQ(2, unknown[0].level);
  EXPECT_EQ(83, unknown[0].code);
  for (const char* part : {"'blocked\n'", "0x530040", "IsDiskOffline(120)"})
    EXPECT_NE(std::string::npos, unknown[0].text.find(part)) << part;
}

TEST(Enumerate, SerialForms) {
  const struct {
    const char* output;  // what scsi_id prints
    const char* id;      // "" for zero and an "empty" trace
  } cases[] = {
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6\n", "6000C29A-1B2C-3D4E-5F60-718293A4B5C6"},
      {"ID_SCSI=1\nID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C6\n", "6000C29A-1B2C-3D4E-5F60-718293A4B5C6"},
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6", "6000C29A-1B2C-3D4E-5F60-718293A4B5C6"},
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c\n", ""},      // 31 digits: the feed makes 32
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c", ""},        // 31 digits
      {"ID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C\n", ""},  // 35 with dashes
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5cz\n", ""},     // not hex
      {"ID_VENDOR=QEMU\n", ""},                                      // no serial at all
      {"", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.output);
    AS_FAKE_MACHINE(m);
    TraceRecorder traces;
    m.Host(0, "ahci\n");
    m.Disk("sdb").At(0, 0, 0, 0).ScsiIdOutput(c.output);
    m.Build();
    const std::vector<SCSI::Disk> disks = List();
    ASSERT_EQ(1u, disks.size());  // listed either way
    EXPECT_EQ(*c.id ? c.id : "00000000-0000-0000-0000-000000000000", disks[0].id.ToString());
    const auto empty = traces.Containing("GetScsiSerialID(538)");
    ASSERT_EQ(*c.id ? 0u : 1u, empty.size());
    if (!empty.empty()) {
      EXPECT_EQ(std::make_pair(2, 83), std::make_pair(empty[0].level, empty[0].code));
      EXPECT_NE(std::string::npos, empty[0].text.find("'/dev/sdb'"));
    }
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

// Machines as a real kernel showed them: every controller kind of the appliance VM,
// sorted by kind; ATA disks report a serial too short to be an identifier.
TEST(Enumerate, KernelFixtures) {
  const struct {
    const char* fixture;
    const char* listed;  // name kind host:target id
  } cases[] = {
      {"several_controllers",
       "sdf 2 4:0 D15C0000-0000-0000-0000-000000000006\n"
       "sde 4 3:0 D15C0000-0000-0000-0000-000000000005\n"
       "sdh 5 11:0 00000000-0000-0000-0000-000000000000\n"
       "sda 6 0:0 5A4C4D00-0000-0000-0000-000000000001\n"
       "sdb 6 0:1 5A4C4D00-0000-0000-0000-000000000002\n"
       "sdg 7 5:0 00000000-0000-0000-0000-000000000000\n"
       "sdc 8 1:0 D15C0000-0000-0000-0000-000000000003\n"
       "sdd 9 2:0 D15C0000-0000-0000-0000-000000000004\n"},
      {"virtio_storage",
       "sda 6 0:0 5A4C4D00-0000-0000-0000-000000000001\n"
       "sdb 6 0:1 5A4C4D00-0000-0000-0000-000000000002\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.fixture);
    AS_FAKE_MACHINE(m);
    m.Replay(std::string("tests/vm/fixtures/") + c.fixture);
    std::string listed;
    for (const SCSI::Disk& d : List())
      listed += Common::ToUtf8(d.name) + " " + std::to_string(d.type) + " " + std::to_string(d.host) + ":" +
                std::to_string(d.target) + " " + d.id.ToString() + (d.readable ? "" : " unreadable") + "\n";
    EXPECT_EQ(c.listed, listed);
  }
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
  for (const char* file : {"/sys/class/scsi_host/host0/scan", "/sys/class/scsi_host/host2/scan",
                           "/sys/class/scsi_host/host5/scan", "/sys/block/sda/device/rescan",
                           "/sys/block/sdb/device/rescan", "/sys/block/sdc/device/rescan",
                           "/sys/block/sda/device/delete"})
    written += m.ReadFile(file) + "|";
  EXPECT_EQ("- - -\n|- - -\n||- - -\n|- - -\n|||", written);
}

// Each call waits for the kernel's announcement of the disk it changes.
TEST(Subsystem, AddAndRemoveCompleteOnTheDisksAnnouncement) {
  AS_FAKE_MACHINE(m);
  TraceRecorder traces;
  m.Host(0, "ata_piix\n").Host(2, "virtio_scsi\n");
  m.Disk("sdd").At(2, 0, 3, 0);
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();
  SCSI::Disk disk;
  disk.host = 2;
  disk.target = 3;
  // Twice: the finished call unregistered, and the next one registers again.
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
  const auto updated = traces.Containing("Updated disk device 8:48.");
  ASSERT_FALSE(updated.empty());
  EXPECT_EQ(83, updated[0].code);
  EXPECT_TRUE(traces.Containing("DiskSubsystemImpl::").empty());  // a normal exit is not timed
}

TEST(Subsystem, TheLockIsRecursiveAndHeldWhileAnyHolderLives) {
  AS_FAKE_MACHINE(m);
  const auto held = [] {  // from outside, as another process would see it
    const int fd = ::open("/tmp/.SharedMutex_SCSISubsystemLocker", O_RDWR | O_CLOEXEC);
    const bool busy = fd >= 0 && ::flock(fd, LOCK_EX | LOCK_NB) != 0;
    ::close(fd);
    return busy;
  };
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

// Each failure names what failed, and every level of its cause chain has its code and,
// where the line is fixed, its line.
TEST(Subsystem, Failures) {
  const auto init = [] {
    try {
      SCSI::CreateDiskSubsystem();
      return Common::Error();
    } catch (const Common::Error& e) {
      return e;
    }
  };
  SCSI::Disk unknownHost;
  unknownHost.host = 9;
  unknownHost.target = 4;
  SCSI::Disk unknownDisk;
  unknownDisk.name = Common::Str(u"sdz");
  std::vector<SCSI::Disk> disks;
  // Room for the directories of the walk and nothing more: the pipe to scsi_id cannot
  // be made. How many that takes depends on the gaps among the descriptors already
  // held; too few starve the walk itself.
  const auto starved = [&] {
    auto subsystem = SCSI::CreateDiskSubsystem();
    Common::Error e;
    for (int spare = 1; spare <= 8 && e.GetCause().GetCode() != 0x530113u; ++spare) {
      disks.assign(3, SCSI::Disk());
      TestSupport::DescriptorBudget budget(spare);
      e = subsystem->Enumerate(disks);
    }
    return e;
  };
  const struct {
    const char* what;
    const char* removed;  // a file taken away first
    std::function<Common::Error()> call;
    std::vector<std::pair<uint32_t, int>> chain;  // code, line (0: any)
    const char* mentions;                        // in the texts of the chain
    const char* trace;                           // a trace of code 83 expected, or none
  } cases[] = {
      {"refresh", "/sys/class/scsi_host/host1/scan", [] { return SCSI::CreateDiskSubsystem()->Refresh(); },
       {{0x530040, 366}, {0x530040, 137}, {0x5300C6, 0}}, "'/sys/class/scsi_host/host1/scan'", nullptr},
      {"enumerate", "/sys/block/sda/device/state", [&] { return SCSI::CreateDiskSubsystem()->Enumerate(disks); },
       {{0x530040, 430}, {0x530123, 0}}, "'/sys/block/sda/device/state'", nullptr},
      {"scsi_id cannot start", nullptr, starved, {{0x530040, 430}, {0x530113, 499}}, "'/dev/sda'", nullptr},
      {"add", nullptr, [&] { return SCSI::CreateDiskSubsystem()->AddDisk(unknownHost, unknownDisk.name); },
       {{0x530040, 456}, {0x530040, 137}, {0x5300C6, 0}}, "host9/scan", "DiskSubsystemImpl::AddDisk"},
      {"remove", nullptr, [&] { return SCSI::CreateDiskSubsystem()->RemoveDisk(unknownDisk); },
       {{0x530040, 490}, {0x530040, 474}}, "sdz", nullptr},
      {"init", "/sys/dev/block", init, {{0x530040, 333}}, "", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    AS_FAKE_MACHINE(m);
    TraceRecorder traces;
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
    if (c.trace) {
      const auto traced = traces.Containing(c.trace);
      ASSERT_EQ(1u, traced.size());
      EXPECT_EQ(83, traced[0].code);
    }
  }
}

}  // namespace
