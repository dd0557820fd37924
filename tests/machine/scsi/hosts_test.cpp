// SCSI hosts: which drivers count, how hosts are numbered, and the scan command.
#include <gtest/gtest.h>

#include "core/common/unicode.h"
#include "fake_machine.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/host.h"
#include "recorders.h"

namespace {

using namespace FakeMachineTesting;
using SCSI::Detail::HostTable;

TEST(ScsiHosts, EveryKnownDriverGetsItsKind) {
  const std::vector<std::pair<std::string, int>> drivers = {
      {"mptspi\n", 1},      {"mptsas\n", 2}, {"BusLogic\n", 3},  {"ata_piix\n", 5},    {"vmw_pvscsi\n", 4},
      {"virtio_scsi\n", 6}, {"ahci\n", 7},   {"sym53c8xx\n", 8}, {"megaraid_sas\n", 9}};
  AS_FAKE_MACHINE(m);
  for (size_t i = 0; i < drivers.size(); ++i) m.Host(static_cast<unsigned>(i), drivers[i].first);
  m.Build();
  HostTable hosts;
  SCSI::Detail::EnumerateHosts(hosts);
  ASSERT_EQ(drivers.size(), hosts.size());
  for (size_t i = 0; i < drivers.size(); ++i) {
    SCOPED_TRACE(drivers[i].first);
    EXPECT_EQ(drivers[i].second, hosts[static_cast<unsigned>(i)]);
  }
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
  EXPECT_EQ(1u, asserts.Count("Assertion failed: !\"Unknown scsi host type\", "
                              "file quillenmark/raw/common/scsi_disk_helpers/impl/host, line 115"));
  EXPECT_EQ(2u, asserts.Count("Assertion failed: !\"No hostN/proc_name entry\", "
                              "file quillenmark/raw/common/scsi_disk_helpers/impl/host, line 121"));
  EXPECT_EQ(3u, asserts.Texts().size());
}

TEST(ScsiHosts, NoHostDirectoryMeansNoHosts) {
  AS_FAKE_MACHINE(m);
  m.Build();
  HostTable hosts{{1, SCSI::HostTypeAhci}};
  SCSI::Detail::EnumerateHosts(hosts);
  EXPECT_TRUE(hosts.empty());
}

TEST(ScsiHosts, RefreshWritesTheScanCommand) {
  AS_FAKE_MACHINE(m);
  m.Host(3, "virtio_scsi\n");
  m.Build();
  SCSI::Detail::RefreshHost(3);
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/class/scsi_host/host3/scan"));
  try {
    SCSI::Detail::RefreshHost(4);
    FAIL() << "no host4";
  } catch (const Common::Error& e) {
    EXPECT_EQ(0x530040u, e.GetCode());
    EXPECT_EQ("An internal error.", Common::ToUtf8(e.GetText()));
    EXPECT_EQ(137, e.GetLocation().line);
    EXPECT_EQ(0x5300C6u, e.GetCause().GetCode());
    EXPECT_EQ("Failed to write command '- - -\n' to file '/sys/class/scsi_host/host4/scan'.",
              Common::ToUtf8(e.GetCause().GetText()));
  }
}

}  // namespace
