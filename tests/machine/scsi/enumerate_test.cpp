// Listing the disks: which block devices count, their address, state, readability,
// serial identifier and order, and what a failure leaves behind.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "core/common/unicode.h"
#include "fake_machine.h"
#include "quillenmark/raw/common/scsi_disk_helpers/disk.h"
#include "recorders.h"

namespace {

using namespace FakeMachineTesting;

const char kSerial[] = "6000c29a1b2c3d4e5f60718293a4b5c6";

// While it lives, only `spare` more descriptors can be opened.
class DescriptorBudget {
 public:
  explicit DescriptorBudget(int spare) {
    getrlimit(RLIMIT_NOFILE, &saved_);
    const int lowest = dup(0);
    close(lowest);
    rlimit limited = saved_;
    limited.rlim_cur = static_cast<rlim_t>(lowest + spare);
    setrlimit(RLIMIT_NOFILE, &limited);
  }
  ~DescriptorBudget() { setrlimit(RLIMIT_NOFILE, &saved_); }

 private:
  rlimit saved_{};
};

std::vector<SCSI::Disk> List(Common::Error* error = nullptr) {
  std::vector<SCSI::Disk> disks;
  Common::Error e = SCSI::CreateDiskSubsystem()->Enumerate(disks);
  if (error) *error = e;
  else
    EXPECT_FALSE(e) << Common::ToUtf8(e.GetText());
  return disks;
}

std::vector<std::string> Names(const std::vector<SCSI::Disk>& disks) {
  std::vector<std::string> names;
  for (const auto& d : disks) names.push_back(Common::ToUtf8(d.name));
  return names;
}

TEST(Enumerate, OnlyScsiDisksOnKnownHosts) {
  AS_FAKE_MACHINE(m);
  m.Host(2, "virtio_scsi\n").Host(3, "nvme\n");
  m.Disk("sdb").At(2, 0, 1, 0).Serial(kSerial);
  m.Disk("sdc").At(2, 0, 2, 0).NoScsiDisk();
  m.Disk("sdd").At(7, 0, 0, 0);  // no such host
  m.Disk("sde").At(3, 0, 0, 0);  // a host of no known kind
  m.Disk("sdf").At(2, 0, 9, 0).ScsiDiskEntries({"bogus", "7:0:3:0", "2:x:4:0", "2:0:5:1:0", "2:1:6:7"});
  m.VirtioDisk("vda");
  m.LoopDevice("loop0");
  m.Build();
  const std::vector<SCSI::Disk> disks = List();
  ASSERT_EQ((std::vector<std::string>{"sdb", "sdf"}), Names(disks));
  EXPECT_EQ(SCSI::HostTypeVirtioScsi, disks[0].type);
  EXPECT_EQ(2u, disks[0].host);
  EXPECT_EQ(1u, disks[0].target);
  EXPECT_EQ("6000C29A-1B2C-3D4E-5F60-718293A4B5C6", disks[0].id.ToString());
  EXPECT_TRUE(disks[0].readable);
  EXPECT_EQ(6u, disks[1].target);  // the first entry that qualifies; channel and LUN ignored
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
  ASSERT_EQ((std::vector<std::string>{"sda", "sdb", "sdc", "sdd"}), Names(disks));
  EXPECT_FALSE(disks[0].readable);
  EXPECT_TRUE(disks[1].readable);   // unknown state counts as online
  EXPECT_FALSE(disks[2].readable);  // fewer than 512 bytes
  EXPECT_FALSE(disks[3].readable);
  const auto unknown = traces.Containing("has unknown state");
  ASSERT_EQ(1u, unknown.size());
  EXPECT_EQ(2, unknown[0].level);
  EXPECT_EQ(83, unknown[0].code);
  EXPECT_NE(std::string::npos, unknown[0].text.find("SCSI disk 'sdb' has unknown state 'blocked\n'."));
  EXPECT_NE(std::string::npos, unknown[0].text.find("0x530040"));
}

TEST(Enumerate, SerialForms) {
  struct Case {
    const char* output;  // what scsi_id prints
    const char* id;      // "" for zero and an "empty" trace
  } cases[] = {
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6\n", "6000C29A-1B2C-3D4E-5F60-718293A4B5C6"},
      {"ID_SCSI=1\nID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C6\n", "6000C29A-1B2C-3D4E-5F60-718293A4B5C6"},
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c6", "6000C29A-1B2C-3D4E-5F60-718293A4B5C6"},
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c\n", ""},        // 31 digits: the feed makes 32
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5c", ""},          // 31 digits
      {"ID_SCSI_SERIAL=6000C29A-1B2C-3D4E-5F60-718293A4B5C\n", ""},    // 35 with dashes
      {"ID_SCSI_SERIAL=6000c29a1b2c3d4e5f60718293a4b5cz\n", ""},       // not hex
      {"ID_VENDOR=QEMU\n", ""},                                        // no serial at all
      {"", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.output);
    AS_FAKE_MACHINE(m);
    TraceRecorder traces;
    m.Host(0, "ahci\n");
    m.Disk("sdb").At(0, 0, 0, 0).ScsiIdOutput(c.output);
    m.Build();
    const std::vector<SCSI::Disk> disks = List();
    ASSERT_EQ(1u, disks.size());  // listed either way
    if (*c.id) {
      EXPECT_EQ(c.id, disks[0].id.ToString());
      EXPECT_TRUE(traces.Containing("is empty").empty());
    } else {
      EXPECT_TRUE(disks[0].id.IsNull());
      const auto empty = traces.Containing("The SCSI ID of device '/dev/sdb' is empty.");
      ASSERT_EQ(1u, empty.size());
      EXPECT_EQ(2, empty[0].level);
    }
  }
}

TEST(Enumerate, ADevicePathReachesScsiIdAsOneWord) {
  AS_FAKE_MACHINE(m);
  m.Build();
  const std::string path = "/dev/sd'b' $(touch /tmp/ran)";
  GUID id = GUID::FromBytes({1});
  EXPECT_FALSE(SCSI::CreateDiskSubsystem()->GetScsiSerialID(Common::FromUtf8(path), id));
  EXPECT_TRUE(id.IsNull());
  EXPECT_FALSE(m.Exists("/tmp/ran"));
  EXPECT_EQ((std::vector<std::string>{"scsi_id --page=0x83 --export --whitelisted --device=" + path}), m.Calls("scsi_id"));
}

TEST(Enumerate, SortedByKindThenHostThenTarget) {
  AS_FAKE_MACHINE(m);
  m.Host(1, "vmw_pvscsi\n").Host(9, "mptspi\n").Host(4, "mptspi\n");
  m.Disk("sda").At(1, 0, 0, 0);
  m.Disk("sdb").At(9, 0, 0, 0);
  m.Disk("sdc").At(4, 0, 7, 0);
  m.Disk("sdd").At(4, 0, 2, 0);
  m.Build();
  EXPECT_EQ((std::vector<std::string>{"sdd", "sdc", "sdb", "sda"}), Names(List()));
}

TEST(Enumerate, FailuresLeaveTheListAlone) {
  AS_FAKE_MACHINE(m);
  m.Host(0, "ahci\n");
  m.Disk("sda").At(0, 0, 0, 0);
  m.Build();
  auto subsystem = SCSI::CreateDiskSubsystem();
  std::vector<SCSI::Disk> disks(3);
  disks[0].name = Common::Str(u"kept");

  {
    // Room for the directories of the walk and nothing more: the pipe to scsi_id
    // cannot be made. How many that takes depends on the gaps among the descriptors
    // the program already holds; too few starve the walk itself.
    Common::Error e;
    for (int spare = 1; spare <= 8 && e.GetCause().GetCode() != 0x530113u; ++spare) {
      disks.assign(3, SCSI::Disk());
      disks[0].name = Common::Str(u"kept");
      DescriptorBudget budget(spare);
      e = subsystem->Enumerate(disks);
    }
    ASSERT_TRUE(e);
    EXPECT_EQ(0x530040u, e.GetCode());
    EXPECT_EQ("Failed to enumerate disks in SCSI subsystem.", Common::ToUtf8(e.GetText()));
    EXPECT_STREQ("quillenmark/raw/common/scsi_disk_helpers/impl/disk", e.GetLocation().file);
    EXPECT_EQ(430, e.GetLocation().line);
    EXPECT_EQ(0x530113u, e.GetCause().GetCode());
    EXPECT_EQ("Failed to get the SCSI ID of device '/dev/sda'.", Common::ToUtf8(e.GetCause().GetText()));
  }
  EXPECT_EQ(3u, disks.size());
  EXPECT_EQ(Common::Str(u"kept"), disks[0].name);

  // The disk vanishes between the walk and the state read.
  ASSERT_EQ(0, unlink("/sys/block/sda/device/state"));
  const Common::Error e = subsystem->Enumerate(disks);
  ASSERT_TRUE(e);
  EXPECT_EQ(0x530123u, e.GetCause().GetCode());
  EXPECT_EQ("Failed to open file '/sys/block/sda/device/state'.", Common::ToUtf8(e.GetCause().GetText()));
  EXPECT_EQ(3u, disks.size());
}

// A machine as a real kernel showed it: every controller kind of the appliance VM,
// sorted by kind; ATA disks report a serial too short to be an identifier.
TEST(Enumerate, KernelFixture) {
  AS_FAKE_MACHINE(m);
  m.Replay("tests/vm/fixtures/several_controllers");
  std::string listed;
  for (const SCSI::Disk& d : List())
    listed += Common::ToUtf8(d.name) + " " + std::to_string(d.type) + " " + std::to_string(d.host) + ":" +
              std::to_string(d.target) + " " + d.id.ToString() + (d.readable ? "" : " unreadable") + "\n";
  EXPECT_EQ(
      "sdf 2 4:0 D15C0000-0000-0000-0000-000000000006\n"
      "sde 4 3:0 D15C0000-0000-0000-0000-000000000005\n"
      "sdh 5 11:0 00000000-0000-0000-0000-000000000000\n"
      "sda 6 0:0 5A4C4D00-0000-0000-0000-000000000001\n"
      "sdb 6 0:1 5A4C4D00-0000-0000-0000-000000000002\n"
      "sdg 7 5:0 00000000-0000-0000-0000-000000000000\n"
      "sdc 8 1:0 D15C0000-0000-0000-0000-000000000003\n"
      "sdd 9 2:0 D15C0000-0000-0000-0000-000000000004\n",
      listed);
}

}  // namespace
