// Storages on the faked machine: a blank disk prepared, mounted, listed and unmounted,
// names and labels that stay data; the disks and partitions that count as storages.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <future>

#include "core/common/unicode.h"
#include "descriptors.h"
#include "fake_machine.h"
#include "lock_probe.h"
#include "lx_supp.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/attributes.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/notification.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

namespace {

using namespace FakeMachineTesting;
using Common::Str;
using Common::ToUtf8;
using MigrationManagement::StorageConfig;
using Virtualization::Appliance::StoragesManager;
using Devices = std::vector<std::shared_ptr<Virtualization::Appliance::BlockDevice>>;
using Storages = std::vector<StorageConfig::Storage>;

const std::string kState = FakeMachine::StateDir(), kRoot = "/mnt/local_storages";

// A disk on the virtio host 2 (declared again with each: harmless), its target from the name.
DiskSpec& AddDisk(FakeMachine& m, const std::string& name, uint64_t bytes) {
  const unsigned target = static_cast<unsigned>(name.back() - 'a');
  m.Host(2, "virtio_scsi\n");
  return m.Disk(name).At(2, 0, target, 0).Size(bytes).Serial("6000c29a1b2c3d4e5f60718293a4b5c" + std::to_string(target));
}

std::string Output(const std::string& command) {
  std::string out;
  if (FILE* f = ::popen(command.c_str(), "r")) {
    for (char buf[256]; std::fgets(buf, sizeof buf, f);) out += buf;
    ::pclose(f);
  }
  return out;
}

void Format(const std::string& partition, const std::string& label) {
  ASSERT_EQ("", Output("/sbin/mke2fs -q -F -t ext4 -L '" + label + "' /dev/" + partition + " 2>&1"));
}

std::string Text(const Devices::value_type& device) { return ToUtf8(device->GetName()); }
std::string Text(const StorageConfig::Storage& s) { return ToUtf8(s.MountPoint) + "=" + ToUtf8(s.Label); }
template <class List>
std::string Join(const List& list) {
  std::string text;
  for (const auto& item : list) text += Text(item) + ";";
  return text;
}

std::string Chain(Common::Error e) {  // codes and texts of the error and its causes
  std::string text;
  for (char code[16]; e; e = e.GetCause())
    text += (std::snprintf(code, sizeof code, "%X ", e.GetCode()), code) + ToUtf8(e.GetText()) + "\n";
  return text;
}

template <class Call>  // what it returned or threw
Common::Error Caught(Call call) try { return call(); } catch (const Common::Error& e) { return e; }

std::vector<std::string> Writes(const FakeMachine& m) {  // what preparing ran, in order
  std::vector<std::string> writes;
  for (const std::string& call : m.Calls())
    for (const char* tool : {"dd ", "gdisk ", "mke2fs "})
      if (call.rfind(tool, 0) == 0) writes.push_back(call);
  return writes;
}

void ExpectNothingLeft() {
  EXPECT_TRUE(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD) << "a child is left";
  EXPECT_FALSE(TestSupport::FileLockHeld("SCSISubsystemLocker"));
}

TEST(Storages, ABlankDiskIsPreparedMountedListedAndUnmounted) {
  AS_FAKE_MACHINE(m);
  AddDisk(m, "sdc", 12_GiB);
  m.Build();
  const Devices devices = StoragesManager().GetBlockDevices(false);
  ASSERT_EQ("sdc;", Join(devices));
  ASSERT_FALSE(Caught([&] { return devices[0]->CreateBackupPartition(); }));
  const std::vector<std::string> writes = {"dd if=/dev/zero of=/dev/sdc bs=512 count=1", "gdisk /dev/sdc",
                                           "mke2fs -t ext4 /dev/sdc1"};
  EXPECT_EQ(writes, Writes(m));
  EXPECT_EQ("n\n1\n\n\n\nw\ny\n", m.ReadFile(kState + "/gdisk.stdin"));
  EXPECT_EQ("ext4\n", Output("blkid -o value -s TYPE /dev/sdc1"));
  EXPECT_EQ("ZLM\n", Output("e2label /dev/sdc1"));
  ASSERT_EQ(1u, devices[0]->GetPartitions().size());
  const auto partition = devices[0]->GetPartitions()[0];
  const auto before = StorageConfig::GetCurrentStorageConfig();
  ASSERT_FALSE(partition->Mount(Str(u"st1")));
  ASSERT_FALSE(partition->SetLabel(Str(u"data")));
  EXPECT_EQ("/dev/sdc1 " + kRoot + "/st1\n", m.ReadFile(kState + "/mounts"));
  const auto after = StorageConfig::GetCurrentStorageConfig();
  EXPECT_NE(before, after);  // mounting dropped the cached one; the old one still works
  for (const auto& config : {before, after}) {
    Storages list(2);
    ASSERT_FALSE(config->GetStoragesList(list));
    EXPECT_EQ("st1=data;", Join(list));
  }
  ASSERT_FALSE(partition->Unmount());
  EXPECT_FALSE(m.Exists(kRoot + "/st1"));
  Storages list(1);
  ASSERT_FALSE(StorageConfig::GetCurrentStorageConfig()->GetStoragesList(list));
  EXPECT_EQ("", Join(list));
  // Labels and names are data, never shell code, and only single directory names.
  WriteText(kRoot + "/file", "");
  fs::create_directories(kRoot + "/zz");  // for a glob to match
  const int fds = TestSupport::CountOwnFds();
  for (const char* text : {"\"'\\", "$(>/tmp/c)", "`>/tmp/c`", "x;>/tmp/c", "x|>/tmp/c", "x&&>/tmp/c", "x\n>/tmp/c",
                           " * ?", "$HOME!"}) {
    SCOPED_TRACE(text);
    ASSERT_FALSE(partition->SetLabel(Common::FromUtf8(text)));
    EXPECT_EQ(std::string("ZLM") + text + "\n", Output("e2label /dev/sdc1"));
    m.WriteFile(kState + "/mounts", "");
    ASSERT_FALSE(partition->Mount(Common::FromUtf8(text)));
    EXPECT_EQ("/dev/sdc1 " + kRoot + "/" + text + "\n", m.ReadFile(kState + "/mounts"));
    ASSERT_FALSE(partition->Unmount());
    EXPECT_FALSE(m.Exists(kRoot + "/" + text));
    EXPECT_FALSE(m.Exists("/tmp/c"));
  }
  const std::vector<std::string> entries = ListDir(kRoot), mounts = m.Calls("mount");
  for (const String& name : {String(), Str(u"."), Str(u".."), Str(u"a/b"), Str(u"/"), String{'a', 0, 'b'}, Str(u"file")}) {
    SCOPED_TRACE(ToUtf8(name));
    EXPECT_EQ(0x720023u, partition->Mount(name).GetCode());
    EXPECT_TRUE(partition->GetMountPoint().empty());
  }
  EXPECT_EQ(entries, ListDir(kRoot));
  EXPECT_EQ(mounts, m.Calls("mount"));
  EXPECT_EQ(fds, TestSupport::CountOwnFds());
  ExpectNothingLeft();
}

TEST(Storages, PreparationStopsAtTheFirstFailure) {
  const std::string dd = "dd if=/dev/zero of=/dev/sdc bs=512 count=1", gdisk = "gdisk /dev/sdc",
                    mke2fs = "mke2fs -t ext4 /dev/sdc1";
  const struct {  // a storage on sdc1; a GPT on sdc (unmounted storage) is refused as well
    std::string setup;  // where sdc1 is mounted, the tool that fails, or sgdisk's arguments
    uint32_t code;
    std::vector<std::string> writes;
    std::string cause;  // in the cause's text: the command line and its status
  } cases[] = {
      {"/mnt/local_storages/x", 0x720021, {}, ""},
      {"/srv/elsewhere", 0x720021, {}, ""},
      {"-n 1:2048:+1G", 0x720022, {}, ""},
      {"dd", 0x720022, {dd}, "'" + dd + " 2>/dev/null' returns error code 3"},
      {"gdisk", 0x720022, {dd, gdisk}, "'echo -e \"n\\n1\\n\\n\\n\\nw\\ny\" | " + gdisk + "' returns error code 3"},
      {"mke2fs", 0x720022, {dd, gdisk, mke2fs}, "'" + mke2fs + "' returns error code 3"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.setup);
    AS_FAKE_MACHINE(m);
    AddDisk(m, "sdc", 12_GiB).Partition(1, 2048, 2097152);
    m.Build();
    Format("sdc1", "ZLMx");
    if (c.setup[0] == '/') m.WriteFile(kState + "/mounts", "/dev/sdc1 " + c.setup + "\n");
    if (c.setup[0] == '-') { ASSERT_NE("", Output("sgdisk " + c.setup + " /dev/sdc")); }
    if (c.setup[0] != '/' && c.setup[0] != '-') m.WriteFile(kState + "/fail/" + c.setup, "3\n");
    const std::string sector = Output("od -An -tx1 -N512 /dev/sdc");
    const auto device = StoragesManager().GetBlockDevices(false).at(0);
    const Common::Error e = Caught([&] { return device->CreateBackupPartition(); });
    EXPECT_EQ(c.code, e.GetCode()) << Chain(e);
    EXPECT_EQ(c.cause.empty() ? 0u : 0x720004u, e.GetCause().GetCode()) << Chain(e);
    EXPECT_NE(std::string::npos, Chain(e).find(c.cause)) << Chain(e);
    EXPECT_EQ(c.writes, Writes(m));
    if (c.writes.empty()) { EXPECT_EQ(sector, Output("od -An -tx1 -N512 /dev/sdc")); }
    ExpectNothingLeft();
  }
}

// Small, system and temporary disks hold no storages; mounted partitions of the others do.
TEST(Storages, WhichDisksAreOfferedListedAndRescanned) {
  AS_FAKE_MACHINE(m);
  const auto config = StorageConfig::GetCurrentStorageConfig();
  Storages list(1), kept(3);
  ASSERT_FALSE(config->GetStoragesList(list));  // no disk
  EXPECT_TRUE(list.empty());
  AddDisk(m, "sdc", 10_GiB - 512).Partition(1, 2048, 12582912);
  m.Build();
  Format("sdc1", "ZLMsmall");
  ASSERT_FALSE(config->GetStoragesList(list = kept));
  EXPECT_TRUE(list.empty());

  AddDisk(m, "sda", 12_GiB).Partition(1, 2048, 2097152);
  AddDisk(m, "sdb", 10_GiB).Partition(1, 2048, 12582912);
  AddDisk(m, "sdd", 12_GiB).Partition(1, 2048, 12582912);
  AddDisk(m, "sde", 12_GiB).Partition(1, 2048, 12582912).Partition(2, 12584960, 2097152);
  m.Build();
  for (const char* p : {"sda1", "sdb1", "sdd1", "sde1", "sde2"}) Format(p, "ZLMsame");
  GUID sdd;  // temporary
  ASSERT_TRUE(GUID::Parse("6000C29A-1B2C-3D4E-5F60-718293A4B5C3", sdd));
  Registry::Key record;
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(sdd.ToWideString(), record));
  ASSERT_FALSE(record.SetValue(String(), Registry::MultiString{Str(u"Temporary"), Str(u"1")}));
  m.WriteFile(kState + "/mounts", "/dev/sda1 /\n/dev/sdb1 " + kRoot + "/b\n/dev/sdc1 " + kRoot + "/c\n/dev/sdd1 " +
                                      kRoot + "/d\n/dev/sde1 " + kRoot + "/e\n");
  EXPECT_EQ("sdb;sde;", Join(StoragesManager().GetBlockDevices(false)));
  EXPECT_EQ("sdd\n", ToUtf8(StoragesManager().CleanupDiskSubsystem()));
  // Short of descriptors, a listing either fails and leaves the list alone or is whole.
  const int fds = TestSupport::CountOwnFds();
  Common::Error e;
  for (int spare = 0; spare == 0 || (e && spare < 32); ++spare) {
    SCOPED_TRACE(spare);
    TestSupport::DescriptorBudget budget(spare);
    e = config->GetStoragesList(list = kept);
    EXPECT_EQ(e ? Join(kept) : "b=same;e=same;", Join(list)) << Chain(e);
  }
  EXPECT_FALSE(e) << Chain(e);
  EXPECT_EQ(fds, TestSupport::CountOwnFds());

  // A rescan removes only the idle sdg, once the kernel announces it (8:96).
  AddDisk(m, "sdg", 12_GiB);
  m.Build();
  const auto proxy = SCSI::Detail::DiskNotificationProxy::Obtain();
  const LinuxEx::snap_message batch[] = {{LinuxEx::snap_disk_updated, 8, 96, {}}, {LinuxEx::snap_end, 0, 0, {}}};
  auto result = std::async(std::launch::async, [] { return StoragesManager().GetBlockDevices(true); });
  while (result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) proxy->Deliver(batch);
  const Devices devices = result.get();
  EXPECT_EQ("sdb;sde;sdg;", Join(devices));
  std::string deleted;
  for (const std::string d : {"sda", "sdb", "sdc", "sdd", "sde", "sdg"})
    deleted += d + ":" + m.ReadFile("/sys/block/" + d + "/device/delete");
  EXPECT_EQ("sda:sdb:sdc:sdd:sde:sdg:1\n", deleted);
  EXPECT_EQ("- - -\n", m.ReadFile("/sys/class/scsi_host/host2/scan"));
  // A reload keeps the old partition objects first.
  const auto old = devices[1]->GetPartitions();
  AddPartition("sde", {3, 14682112, 2097152});
  Format("sde3", "ZLMnew");
  devices[1]->ReloadPartitions();
  const auto now = devices[1]->GetPartitions();
  ASSERT_EQ(3u, now.size());
  EXPECT_EQ(old, decltype(old)(now.begin(), now.begin() + 2));
  EXPECT_EQ("sde3", ToUtf8(now[2]->GetName()));
  fs::remove("/sys/block/sdg/device/delete");
  e = Caught([] { return StoragesManager().GetBlockDevices(true), Common::Error(); });
  EXPECT_EQ(0x72001Fu, e.GetCode()) << Chain(e);
  EXPECT_EQ(0x530040u, e.GetCause().GetCode()) << Chain(e);  // the removal's
  EXPECT_NE(std::string::npos, ToUtf8(e.GetCause().GetText()).find("sdg")) << Chain(e);

  AddDisk(m, "sdf", 12_GiB).Partition(1, 2048, 2097152);  // no file system: no UUID
  m.Build();
  e = config->GetStoragesList(list = kept);
  EXPECT_EQ(3u, list.size());
  EXPECT_EQ(0x72001Fu, e.GetCode()) << Chain(e);
  EXPECT_EQ(0x720048u, e.GetCause().GetCode()) << Chain(e);
  ExpectNothingLeft();
}

TEST(Storages, PartitionMountStateSizeAndLabel) {
  const uint64_t k5GiB = 10485760;  // sectors
  const struct {
    uint64_t sectors;
    const char *label, *mounted, *root, *point;  // mounted "": not mounted
    bool supported;
    const char* shown;  // by GetLabel
  } cases[] = {
      {2 * k5GiB, "ZLMa", "/boot", "", "/boot", false, "a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages//st1", "/mnt/local_storages", "st1", true, "a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages2/x", "/mnt/local_storages", "2/x", true, "a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages", "/mnt/local_storages", "", true, "a"},
      {k5GiB - 1, "ZLMa", "", "/mnt/local_storages", "", false, "a"},
      {k5GiB, "ZLM", "", "/mnt/local_storages", "", true, ""},
      {k5GiB, "ZLMab\xe9z", "", "/mnt/local_storages", "", true, "ab"},
      {k5GiB, "data", "", "/mnt/local_storages", "", false, "data"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.label) + " " + c.mounted + " " + std::to_string(c.sectors));
    AS_FAKE_MACHINE(m);
    AddDisk(m, "sdb", 12_GiB).Partition(1, 2048, c.sectors);
    m.Build();
    Format("sdb1", c.label);
    if (*c.mounted) m.WriteFile(kState + "/mounts", std::string("/dev/sdb1 ") + c.mounted + "\n");
    const auto p = StoragesManager().GetBlockDevices(false).at(0)->GetPartitions().at(0);
    EXPECT_EQ(c.root, ToUtf8(p->GetMountRoot()));
    EXPECT_EQ(c.point, ToUtf8(p->GetMountPoint()));
    EXPECT_EQ(c.supported, p->IsSupported());
    EXPECT_EQ(c.shown, ToUtf8(p->GetLabel()));
  }
}

}  // namespace
