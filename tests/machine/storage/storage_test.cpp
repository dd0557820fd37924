// Storages on the faked machine: a blank disk prepared, mounted, listed and unmounted,
// names and labels that stay data; the disks and partitions that count as storages.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <future>
#include <tuple>

#include "core/common/unicode.h"
#include "descriptors.h"
#include "error_text.h"
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
  return m.Disk(name).At(2, 0, target, 0).Size(bytes).Serial(std::string(31, 'a') + std::to_string(target));
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

template <class Call>  // what it returned or threw
Common::Error Caught(Call call) try { return call(); } catch (const Common::Error& e) { return e; }

std::vector<std::string> Writes(const FakeMachine& m) {  // what preparing ran, in order
  std::vector<std::string> writes;
  for (const std::string& call : m.Calls())
    if (call.rfind("dd ", 0) == 0 || call.rfind("gdisk ", 0) == 0 || call.rfind("mke2fs ", 0) == 0)
      writes.push_back(call);
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
  EXPECT_EQ((std::vector<std::string>{"dd if=/dev/zero of=/dev/sdc bs=512 count=1", "gdisk /dev/sdc",
                                      "mke2fs -t ext4 /dev/sdc1"}), Writes(m));
  EXPECT_EQ("n\n1\n\n\n\nw\ny\n", m.ReadFile(kState + "/gdisk.stdin"));
  EXPECT_EQ("ext4\n", Output("blkid -o value -s TYPE /dev/sdc1"));
  EXPECT_EQ("ZLM\n", Output("e2label /dev/sdc1"));
  ASSERT_EQ(1u, devices[0]->GetPartitions().size());
  const auto partition = devices[0]->GetPartitions()[0];
  const auto before = StorageConfig::GetCurrentStorageConfig();
  ASSERT_FALSE(partition->Mount(Str(u"st1")));
  ASSERT_FALSE(partition->SetLabel(Str(u"data")));
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
  // Labels and names are data, never shell code, and only single directory names. The
  // tools run in /tmp, where an injection would create the file c.
  WriteText(kRoot + "/file", "");
  fs::create_directories(kRoot + "/zz");  // for a glob to match
  const fs::path cwd = fs::current_path();
  fs::current_path("/tmp");
  const int fds = TestSupport::CountOwnFds();
  for (const char* text : {"\"'\\", "$(>c)", "`>c`", "x;>c", "x|>c", "x&&>c", " * ?", "$HOME!", "x\n>c"}) {
    SCOPED_TRACE(text);
    ASSERT_FALSE(partition->SetLabel(Common::FromUtf8(text)));
    EXPECT_EQ(std::string("ZLM") + text + "\n", Output("e2label /dev/sdc1"));
    ASSERT_FALSE(partition->Mount(Common::FromUtf8(text)));
    EXPECT_EQ("/dev/sdc1 " + kRoot + "/" + text + "\n", m.ReadFile(kState + "/mounts"));
    ASSERT_FALSE(partition->Unmount());
    EXPECT_FALSE(m.Exists("/tmp/c"));
  }
  const std::vector<std::string> entries = ListDir(kRoot), mounts = m.Calls("mount");
  for (const auto& name : {String(), Str(u"."), Str(u".."), Str(u"a/b"), Str(u"/"), String{'a', 0, 'b'}, Str(u"file")})
    EXPECT_EQ(0x720023u, partition->Mount(name).GetCode()) << ToUtf8(name);
  EXPECT_EQ(entries, ListDir(kRoot));
  EXPECT_EQ(mounts, m.Calls("mount"));
  EXPECT_EQ(fds, TestSupport::CountOwnFds());
  fs::current_path(cwd);
  ExpectNothingLeft();
}

TEST(Storages, PreparationStopsAtTheFirstFailure) {
  const std::string dd = "dd if=/dev/zero of=/dev/sdc bs=512 count=1", gdisk = "gdisk /dev/sdc",
                    mke2fs = "mke2fs -t ext4 /dev/sdc1";
  // A storage on sdc1. Where it is mounted, the tool that fails, or sgdisk's arguments (a
  // GPT on sdc); the codes of the error and its cause; what ran; what the cause's text holds.
  const std::tuple<std::string, uint32_t, uint32_t, std::vector<std::string>, std::string> cases[] = {
      {"/mnt/local_storages/x", 0x720021, 0, {}, ""},
      {"/srv/elsewhere", 0x720021, 0, {}, ""},
      {"-n 1:2048:+1G", 0x720022, 0x72004A, {}, ""},
      {"dd", 0x720022, 0x720004, {dd}, "'" + dd + " 2>/dev/null' returns error code 3"},
      {"gdisk", 0x720022, 0x720004, {dd, gdisk},
       "'echo -e \"n\\n1\\n\\n\\n\\nw\\ny\" | " + gdisk + "' returns error code 3"},
      {"mke2fs", 0x720022, 0x720004, {dd, gdisk, mke2fs}, "'" + mke2fs + "' returns error code 3"},
  };
  for (const auto& [setup, code, cause, writes, mentions] : cases) {
    SCOPED_TRACE(setup);
    AS_FAKE_MACHINE(m);
    AddDisk(m, "sdc", 12_GiB).Partition(1, 2048, 2097152);
    m.Build();
    Format("sdc1", "ZLMx");
    if (setup[0] == '/') m.WriteFile(kState + "/mounts", "/dev/sdc1 " + setup + "\n");
    else if (setup[0] == '-') Output("sgdisk " + setup + " /dev/sdc");
    else m.WriteFile(kState + "/fail/" + setup, "3\n");
    const std::string sector = Output("od -An -tx1 -N512 /dev/sdc");
    const auto device = StoragesManager().GetBlockDevices(false).at(0);
    const Common::Error e = Caught([&] { return device->CreateBackupPartition(); });
    EXPECT_EQ(code, e.GetCode()) << TestSupport::ChainText(e);
    EXPECT_EQ(cause, e.GetCause().GetCode()) << TestSupport::ChainText(e);
    EXPECT_NE(std::string::npos, TestSupport::ChainText(e).find(mentions)) << TestSupport::ChainText(e);
    EXPECT_EQ(writes, Writes(m));
    if (writes.empty()) { EXPECT_EQ(sector, Output("od -An -tx1 -N512 /dev/sdc")); }
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
  Registry::Key record;  // sdd is temporary
  const String sdd = Str(u"AAAAAAAA-AAAA-AAAA-AAAA-AAAAAAAAAAA3");
  ASSERT_FALSE(SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(sdd, record));
  ASSERT_FALSE(record.SetValue(String(), Registry::MultiString{Str(u"Temporary"), Str(u"1")}));
  m.WriteFile(kState + "/mounts", "/dev/sda1 /\n/dev/sdb1 " + kRoot + "/b\n/dev/sdc1 " + kRoot + "/c\n/dev/sdd1 " +
                                      kRoot + "/d\n/dev/sde1 " + kRoot + "/e\n");
  EXPECT_EQ("sdb;sde;", Join(StoragesManager().GetBlockDevices(false)));
  EXPECT_EQ("sdd\n", ToUtf8(StoragesManager().CleanupDiskSubsystem()));
  ASSERT_FALSE(config->GetStoragesList(list));
  EXPECT_EQ("b=same;e=same;", Join(list));
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
  fs::remove("/sys/block/sdg/device/delete");
  Common::Error e = Caught([] { return StoragesManager().GetBlockDevices(true), Common::Error(); });
  EXPECT_EQ(0x72001Fu, e.GetCode()) << TestSupport::ChainText(e);
  EXPECT_EQ(0x530040u, e.GetCause().GetCode()) << TestSupport::ChainText(e);  // the removal's error
  AddDisk(m, "sdf", 12_GiB).Partition(1, 2048, 2097152);  // no file system: no UUID
  m.Build();
  e = config->GetStoragesList(list = kept);
  EXPECT_EQ(3u, list.size());
  EXPECT_EQ(0x72001Fu, e.GetCode()) << TestSupport::ChainText(e);
  EXPECT_EQ(0x720048u, e.GetCause().GetCode()) << TestSupport::ChainText(e);
  ExpectNothingLeft();
}

TEST(Storages, PartitionMountStateSizeAndLabel) {
  const uint64_t k5GiB = 10485760;  // sectors
  // sectors, label, where mounted ("": not); mount root|point|supported|label shown
  const std::tuple<uint64_t, const char*, const char*, const char*> cases[] = {
      {2 * k5GiB, "ZLMa", "/boot", "|/boot|0|a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages//st1", "/mnt/local_storages|st1|1|a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages2/x", "/mnt/local_storages|2/x|1|a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages", "/mnt/local_storages||1|a"},
      {k5GiB - 1, "ZLMa", "", "/mnt/local_storages||0|a"},
      {k5GiB, "ZLM", "", "/mnt/local_storages||1|"},
      {k5GiB, "ZLMab\xe9z", "", "/mnt/local_storages||1|ab"},
      {k5GiB, "data", "", "/mnt/local_storages||0|data"},
  };
  for (const auto& [sectors, label, mounted, expected] : cases) {
    SCOPED_TRACE(std::string(label) + " " + mounted + " " + std::to_string(sectors));
    AS_FAKE_MACHINE(m);
    AddDisk(m, "sdb", 12_GiB).Partition(1, 2048, sectors);
    m.Build();
    Format("sdb1", label);
    if (*mounted) m.WriteFile(kState + "/mounts", std::string("/dev/sdb1 ") + mounted + "\n");
    const auto p = StoragesManager().GetBlockDevices(false).at(0)->GetPartitions().at(0);
    EXPECT_EQ(expected, ToUtf8(p->GetMountRoot()) + "|" + ToUtf8(p->GetMountPoint()) + "|" +
                            std::to_string(p->IsSupported()) + "|" + ToUtf8(p->GetLabel()));
  }
}

}  // namespace
