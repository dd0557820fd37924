// Storages on the faked machine: a disk prepared, mounted, listed, unmounted; which disks and partitions count.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <cstdlib>
#include <fstream>
#include <future>
#include <optional>
#include <set>
#include <sstream>
#include <tuple>

#include "core/common/assert.h"
#include "../../support/shell.h"
#include "lx_supp.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/notification.h"
#include "storage_checks.h"

namespace {

using namespace StorageChecks;
using MigrationManagement::StorageConfig;

using TestSupport::Output;
constexpr auto npos = std::string::npos;

void Format(const std::string& partition, const std::string& label) {
  ASSERT_EQ("", Output("/sbin/mke2fs -q -F -t ext4 -L '" + label + "' /dev/" + partition + " 2>&1"));
}

// /bin/sh fails while this lives (unless it is bash, which the fake tools need), and so whatever needs a shell.
struct NoShell {
  const fs::path path = fs::canonical("/bin/sh");
  const bool bound = path.filename() != "bash" && ::mount("/bin/false", path.c_str(), nullptr, MS_BIND, nullptr) == 0;
  ~NoShell() { if (bound) ::umount2(path.c_str(), MNT_DETACH); }
};

std::string Ran(const FakeMachine& m) {  // the tools that write to a disk that ran
  std::string ran;
  for (const std::string tool : {"dd", "gdisk", "mke2fs"}) ran += m.Calls(tool).empty() ? "" : tool + " ";
  return ran;
}

// With no working /bin/sh: the tools get their arguments as vectors.
TEST(Storages, ABlankDiskIsPreparedMountedListedAndUnmounted) {
  AS_FAKE_MACHINE(m);
  AddDisk(m, "sdc");
  m.Build();
  const NoShell noShell;
  ASSERT_TRUE(noShell.bound || noShell.path.filename() == "bash") << noShell.path;
  const Devices devices = StoragesManager().GetBlockDevices(false);
  ASSERT_EQ("sdc;", Codes(devices));
  ASSERT_EQ("ok", Outcome([&] { return devices[0]->CreateBackupPartition(); }));
  EXPECT_EQ("n\n1\n\n\n\nw\ny\n", m.ReadFile(kState + "/gdisk.stdin"));
  const auto partition = devices[0]->GetPartitions().at(0);
  const auto before = StorageConfig::GetCurrentStorageConfig();
  ASSERT_FALSE(partition->Mount(Str(u"st1")));
  ASSERT_FALSE(partition->SetLabel(Str(u"data")));
  EXPECT_NE(before, StorageConfig::GetCurrentStorageConfig());  // mounting dropped the cached one
  EXPECT_EQ("ok[st1=data;] ok[st1=data;]", List(before) + " " + List());  // the old one still works
  ASSERT_FALSE(partition->Unmount());
  EXPECT_EQ("ok[]", List());
  EXPECT_EQ((std::vector<std::string>{"dd if=/dev/zero of=/dev/sdc bs=512 count=1", "gdisk /dev/sdc",
                                      "mke2fs -t ext4 -L ZLM /dev/sdc1", "mount -t auto /dev/sdc1 /mnt/local_storages/st1",
                                      "umount /dev/sdc1"}),
            m.Calls());  // tune2fs is the real one, and a listing runs none
  // Labels and names are data, never shell code, and only single directory names (an injection would make /tmp/c).
  WriteText(kRoot + "/file", "");
  fs::create_directories(kRoot + "/zz");  // for a glob to match
  const fs::path cwd = fs::current_path();
  fs::current_path("/tmp");
  const int fds = TestSupport::CountOwnFds();
  for (const char* text : {"\"'\\", "$(>c)", "`>c`", "x;>c", "x|>c", "x&&>c", " * ?", "$HOME!", "x\n>c"}) {
    SCOPED_TRACE(text);
    ASSERT_FALSE(partition->SetLabel(Common::FromUtf8(text)));
    EXPECT_EQ(std::string("ZLM") + text + "\n", LinuxEx::RunTool({"e2label", "/dev/sdc1"}).output);
    ASSERT_FALSE(partition->Mount(Common::FromUtf8(text)));
    EXPECT_EQ(text, ToUtf8(StoragesManager().GetBlockDevices(false).at(0)->GetPartitions().at(0)->GetMountPoint()));  // unescaped
    ASSERT_FALSE(partition->Unmount());
    EXPECT_FALSE(m.Exists("/tmp/c"));
  }
  const std::vector<std::string> entries = ListDir(kRoot), mounts = m.Calls("mount");
  for (const auto& name : {String(), Str(u"."), Str(u".."), Str(u"a/b"), Str(u"/"), String{'a', 0, 'b'}})
    EXPECT_EQ("0x720023@277>0x720049@266", Codes(partition->Mount(name))) << ToUtf8(name);
  EXPECT_EQ("0x720023@277>0x40013>0xFFF1(" + std::to_string(ENOTDIR) + ")", Codes(partition->Mount(Str(u"file"))));
  EXPECT_EQ(entries, ListDir(kRoot));
  EXPECT_EQ(mounts, m.Calls("mount"));
  WriteText(kRoot + "/zz/left", "");  // under the mount: the directory stays, and says why
  ASSERT_FALSE(partition->Mount(Str(u"zz")));
  EXPECT_EQ("0x720024@299>0x40016>0xFFF1(" + std::to_string(ENOTEMPTY) + ")", Codes(partition->Unmount()));
  fs::current_path(cwd);
  ExpectNothingLeft(fds);
}

TEST(Storages, PreparationRefusesDataAndStopsAtTheFirstFailure) {
  // What sdc holds or where it is mounted, or the tool that fails; codes; writing tools run. A refused disk stays as it was.
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"/dev/sdc1 /mnt/local_storages/x", "0x720021@440", ""},
      {"/dev/sdc1 /tmp/elsewhere", "0x720021@440", ""},
      {"/dev/sdc /tmp/whole", "0x720021@440", ""},
      {"no descriptors", "0x720022@452>0x40010>0xFFF1(" + std::to_string(EMFILE) + ")", ""},  // no mount table
      {"storage", "0x720022@447>0x72004A@448", ""},  // unmounted, but data all the same
      {"mkswap -q /dev/sdc1", "0x720022@447>0x72004A@448", ""},
      {"echo 2048,8192,83 | sfdisk -q /dev/sdc1", "0x720022@447>0x72004A@448", ""},  // a disk image in sdc1
      {"mke2fs -q -F /dev/sdc", "0x720022@447>0x72004A@448", ""},  // no table, a file system on the disk
      {"sgdisk -Z -n 1:2048:+1G -n 2:0:+1G /dev/sdc", "0x720022@447>0x72004A@448", ""},
      // A DOS table the kernel does not show, with a file system in its partition.
      {"sgdisk -Z /dev/sdc && echo 2048,2097152,83 | sfdisk -q /dev/sdc && "
       "mke2fs -q -F -E offset=1048576 /dev/sdc 262144", "0x720022@447>0x72004A@448", ""},
      {"sgdisk -Z /dev/sdc && echo 2048,2097152,83 | sfdisk -q /dev/sdc && truncate -s 4M /tmp/image && "
       "echo 2048,4096,83 | sfdisk -q /tmp/image && /usr/bin/dd status=none if=/tmp/image of=/dev/sdc bs=512 seek=2048 count=1 conv=notrunc",
       "0x720022@447>0x72004A@448", ""},  // and a disk image in that partition
      {"sgdisk -Z -n 1:2048:0 /dev/sdc", "ok", "dd gdisk mke2fs "},  // what an interrupted preparation leaves
      {"sgdisk -Z -o /dev/sdc", "ok", "dd gdisk mke2fs "},
      {"dd", "0x720022@474>0x720004(3)@474", "dd "},
      {"gdisk", "0x720022@481>0x720004(3)@481", "dd gdisk "},
      {"mke2fs", "0x720022@488>0x720004(3)@488", "dd gdisk mke2fs "},
  };
  for (const auto& [setup, codes, ran] : cases) {
    SCOPED_TRACE(setup);
    AS_FAKE_MACHINE(m);
    AddDisk(m, "sdc").Partition(1, 2048, 2097152);
    m.Build();
    const bool shell = setup.find(" /dev/sdc") != npos, fails = setup.find(' ') == npos && setup != "storage";
    if (!shell && !fails) Format("sdc1", "ZLMx");
    if (setup[0] == '/') m.Mount(setup.substr(0, setup.find(' ')), setup.substr(setup.find(' ') + 1));
    if (shell) { ASSERT_EQ("", Output("PATH=/usr/sbin:/sbin:$PATH; (" + setup + ") 2>&1 >/dev/null")); }
    if (shell && setup[0] == 's') RereadPartitionTable("sdc");
    if (fails) fs::resize_file("/dev/sdc1", 0), m.WriteFile(kState + "/fail/" + setup, "3\n");  // no file system there yet
    const auto image = [] { return EdgeDigest("/dev/sdc") + " " + EdgeDigest("/dev/sdc1"); };
    const std::string before = image();
    const int fds = TestSupport::CountOwnFds();
    const auto device = StoragesManager().GetBlockDevices(false).at(0);
    std::optional<TestSupport::DescriptorBudget> budget;
    if (setup == "no descriptors") budget.emplace(0);
    EXPECT_EQ(codes, Outcome([&] { return device->CreateBackupPartition(); }));
    budget.reset();
    EXPECT_EQ(ran, Ran(m));
    if (ran.empty()) { EXPECT_EQ(before, image()); }
    if (codes == "ok") { EXPECT_EQ("ZLM ext4\n", Output("blkid -p -o value -s TYPE -s LABEL /dev/sdc1 | xargs")); }
    ExpectNothingLeft(fds);
  }
}

// Small, system and temporary disks hold no storages; mounted partitions of the others do.
TEST(Storages, WhichDisksAreOfferedListedAndRescanned) {
  AS_FAKE_MACHINE(m);
  const auto config = StorageConfig::GetCurrentStorageConfig();
  EXPECT_EQ("ok[]", List(config));  // no disk
  AddDisk(m, "sdc", 10_GiB - 512).Partition(1, 2048, 12582912);
  m.Build();
  Format("sdc1", "ZLMsmall");
  EXPECT_EQ("ok[]", List(config));
  AddDisk(m, "sda").Partition(1, 2048, 2097152);
  AddDisk(m, "sdb", 10_GiB).Partition(1, 2048, 12582912);
  AddDisk(m, "sde").Partition(1, 2048, 12582912).Partition(2, 12584960, 2097152);
  m.Build();
  for (const char* p : {"sda1", "sdb1", "sde1", "sde2"}) Format(p, "ZLMsame");
  m.Mount("/dev/sda1", "/");
  for (const char* disk : {"b", "c", "e"}) m.Mount(std::string("/dev/sd") + disk + "1", kRoot + "/" + disk);
  EXPECT_EQ("sdb;sde;", Codes(StoragesManager().GetBlockDevices(false)));
  EXPECT_EQ("ok[b=same;e=same;]", List(config));
  // A rescan removes only the idle sdg, once the kernel announces it (8:96).
  AddDisk(m, "sdg");
  m.Build();
  const auto proxy = SCSI::Detail::DiskNotificationProxy::Obtain();
  const LinuxEx::snap_message batch[] = {{LinuxEx::snap_disk_updated, 8, 96, {}}, {LinuxEx::snap_end, 0, 0, {}}};
  auto result = std::async(std::launch::async, [] { return StoragesManager().GetBlockDevices(true); });
  while (result.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) proxy->Deliver(batch);
  const Devices devices = result.get();
  EXPECT_EQ("sdb;sde;sdg;", Codes(devices));
  for (const std::string d : {"sda", "sdb", "sdc", "sde", "sdg"})
    EXPECT_EQ(d == "sdg" ? "1\n" : "", m.ReadFile("/sys/block/" + d + "/device/delete")) << d;
  // A reload keeps the old partition objects first.
  const auto old = devices[1]->GetPartitions();
  AddPartition("sde", {3, 14682112, 2097152});
  Format("sde3", "ZLMnew");
  devices[1]->ReloadPartitions();
  const auto now = devices[1]->GetPartitions();
  ASSERT_EQ(3u, now.size());
  EXPECT_EQ(old, decltype(old)(now.begin(), now.begin() + 2));
  fs::remove("/sys/block/sdg/device/delete");  // the removal fails
  const auto rescan = [] { return StoragesManager().GetBlockDevices(true); };
  EXPECT_EQ("0x72001F@577>0x530040>0x5300C6>0x40010>0xFFF1(" + std::to_string(ENOENT) + ")", Outcome(rescan));
  // A partition without a file system is listed, unsupported, and hides nothing.
  AddDisk(m, "sdf").Partition(1, 2048, 2097152).Partition(2, 2099200, 2097152);
  m.Build();
  EXPECT_EQ("ok[b=same;e=same;]", List(config));
  const auto blank = StoragesManager().GetBlockDevices(false).at(2)->GetPartitions();  // sdb, sde, sdf, sdg
  std::set<std::string> names;  // unidentified, so told apart by name
  for (const auto& p : blank)
    if (p->GetUuid().IsNull() && !p->IsSupported()) names.insert(ToUtf8(p->GetName()));
  EXPECT_EQ((std::set<std::string>{"sdf1", "sdf2"}), names);
  // Out of descriptors anywhere on the way: the listing fails or is whole, never short.
  for (int spare = 0; spare < 8; ++spare) {
    TestSupport::DescriptorBudget budget(spare);
    const std::string got = List(config);
    EXPECT_TRUE(got == "ok[b=same;e=same;]" || got.rfind("0x72001F@577>", 0) == 0) << spare << ": " << got;
  }
  // A partition that the kernel shows and that cannot be read fails the listing.
  fs::remove("/sys/block/sdb/sdb1/size");
  fs::create_directory("/sys/block/sdb/sdb1/size");
  EXPECT_EQ("0x72001F@577>0x40011>0xFFF1(" + std::to_string(EISDIR) + ")", List(config));
  ExpectNothingLeft(TestSupport::CountOwnFds());
}

TEST(Storages, PartitionMountStateSizeAndLabel) {
  const uint64_t k5GiB = 10485760;  // sectors
  // sectors, label, where mounted in turn ("": not) or what befalls the partition ("iso9660": a CD's signature
  // too; "dropped": the kernel drops it midway; "no node": its /dev node gone); root|point|supported|label shown
  const std::tuple<uint64_t, const char*, const char*, const char*> cases[] = {
      {2 * k5GiB, "ZLMa", "/tmp/boot", "|/tmp/boot|0|a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages//st1", "/mnt/local_storages|st1|1|a"},
      {2 * k5GiB, "ZLMa", "/tmp/boot;/mnt/local_storages/st1", "/mnt/local_storages|st1|1|a"},  // the later mount, as lsblk
      {2 * k5GiB, "ZLMa", "/mnt/local_storages/st1;/tmp/boot", "|/tmp/boot|0|a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages2/x", "/mnt/local_storages|2/x|1|a"},
      {2 * k5GiB, "ZLMa", "/mnt/local_storages", "/mnt/local_storages||1|a"},
      {2 * k5GiB, "ZLMa", "bind", "/mnt/local_storages|st1|1|a"},  // only a subdirectory of it is mounted
      {2 * k5GiB, "ZLMa", "iso9660", "/mnt/local_storages||0|a"},
      {2 * k5GiB, "ZLMa", "dropped", "/mnt/local_storages||0|a"},
      {2 * k5GiB, "ZLMa", "no node", "/mnt/local_storages||0|"},
      {k5GiB - 1, "ZLMa", "", "/mnt/local_storages||0|a"},
      {k5GiB, "ZLM", "", "/mnt/local_storages||1|"},
      {k5GiB, "ZLMab\xe9z", "", "/mnt/local_storages||1|ab"},
      {k5GiB, "data", "", "/mnt/local_storages||0|data"},
      {0 /* a size that is no number */, "ZLMa", "", "/mnt/local_storages||0|a"},
  };
  setenv("ZEMLORA_SAFE_ASSERT", "event", 1);  // read at this program's first assertion, below
  static std::string assertions;  // the place is the one the appliance's support tooling knows
  Common::SetAssertEventCallback([](int, int, int, const char* text) { assertions += text + std::string("|"); });
  for (const auto& [sectors, label, mounted, expected] : cases) {
    SCOPED_TRACE(std::string(label) + " " + mounted + " " + std::to_string(sectors));
    AS_FAKE_MACHINE(m);
    AddDisk(m, "sdb").Partition(1, 2048, sectors ? sectors : k5GiB);
    m.Build();
    Format("sdb1", label);
    if (sectors == 0) m.WriteFile("/sys/block/sdb/sdb1/size", "5G\n");
    if (std::string(mounted) == "iso9660")
      std::fstream("/dev/sdb1", std::ios::in | std::ios::out | std::ios::binary).seekp(32768) << "\1CD001\1";
    if (std::string(mounted) == "dropped") fs::remove("/sys/block/sdb/sdb1/partition");  // read after the size
    if (std::string(mounted) == "no node") fs::remove("/dev/sdb1");
    if (std::string(mounted) == "bind") {
      m.Mount("/dev/sdb1", "/tmp/whole");
      fs::create_directories("/tmp/whole/sub"), fs::create_directories(kRoot + "/st1");
      ::mount("/tmp/whole/sub", (kRoot + "/st1").c_str(), nullptr, MS_BIND, nullptr), ::umount2("/tmp/whole", MNT_DETACH);
    }
    std::istringstream dirs(*mounted == '/' ? mounted : "");
    for (std::string dir; std::getline(dirs, dir, ';');) m.Mount("/dev/sdb1", dir);
    const auto p = StoragesManager().GetBlockDevices(false).at(0)->GetPartitions().at(0);
    EXPECT_EQ(expected, ToUtf8(p->GetMountRoot()) + "|" + ToUtf8(p->GetMountPoint()) + "|" +
                            std::to_string(p->IsSupported()) + "|" + ToUtf8(p->GetLabel()));
    EXPECT_EQ(sectors ? "" : "Assertion failed: !\"Invalid size type\", file "
                             "virtualization/common/storage/storage_manager, line 137|", assertions);
  }
  Common::SetAssertEventCallback(nullptr);
}

}  // namespace
