// Power cuts while disk B becomes a storage, one per boot (VM_BOOT, ../boots), A a storage
// throughout; each boot finds what the last cut left, brings B into use, wipes it, cuts again.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "core/linex/linux_misc.h"
#include "disk_view.h"

namespace {

namespace fs = std::filesystem;
using Common::FromUtf8, Common::ToUtf8;
using namespace VmTest;
const std::string kRoot = "/mnt/local_storages/", kBin = "/tmp/cut_bin";

// The marker first (the run share reaches the host at once), then a reset that syncs nothing.
const std::string kCut = "echo \"$POINT\" > /run/vm/powercut; echo b > /proc/sysrq-trigger; exit 1\n";
const std::string kReal = "PATH=${PATH#*:}\n";  // the real tools from here on

const struct Point {
  std::string name, tool, wrapper;  // a wrapper of `tool` put first in PATH; none: the program cuts
  std::string found;                // what the next boot finds on the disk
} kPoints[] = {
    {"after zeroing", "gdisk", kCut, ""},
    {"after partitioning", "mke2fs", kCut, "gpt"},
    // mke2fs, too quick to hit, frozen after its inode tables, before journal and superblocks.
    {"during formatting", "mke2fs",
     kReal + "mkfifo /tmp/out || exit\nstdbuf -oL mke2fs \"$@\" > /tmp/out &\n"
             "while read -r line; do case $line in 'Writing inode tables'*) kill -STOP $! && break; esac; done < /tmp/out\n"
             "[ -n \"$line\" ] || { echo mke2fs went by >&2; exit 1; }\n" + kCut,
     "gpt"},
    {"after formatting", "mke2fs", kReal + "mke2fs \"$@\" || exit\n" + kCut, "gpt 1:ext4:ZLM"},
    {"right after success", "", "", "gpt 1:ext4:ZLM"},
};

// Cuts the power, now or inside the preparation of `disk`.
void CutAt(const Point& point, const Device& disk) {
  ASSERT_FALSE(testing::Test::HasFailure()) << "no cut after a failure";
  setenv("POINT", point.name.c_str(), 1);
  if (!point.tool.empty()) {
    fs::create_directories(kBin);
    std::ofstream(kBin + "/" + point.tool) << "#!/bin/sh\n" << point.wrapper;
    fs::permissions(kBin + "/" + point.tool, fs::perms::owner_all);
    setenv("PATH", (kBin + ":" + std::getenv("PATH")).c_str(), 1);
  }
  std::fflush(nullptr);  // the cut loses what is not written out
  const std::string codes = Prepare(disk);
  if (point.tool.empty() && codes == "ok") {
    std::ofstream("/run/vm/powercut") << point.name << "\n";
    std::ofstream("/proc/sysrq-trigger") << "b" << std::flush;
  }
  FAIL() << "no power cut " << point.name << ": " << codes;
}

TEST(PowerCut, APreparationCutAtAnyPointLeavesADiskThatComesIntoUse) {
  const char* boot_text = std::getenv("VM_BOOT");
  if (!boot_text) GTEST_SKIP() << "VM_BOOT is not set: run by ../boots";
  const size_t boot = std::strtoul(boot_text, nullptr, 10);
  ASSERT_TRUE(boot >= 1 && boot <= std::size(kPoints) + 1) << boot_text;
  const std::vector<Device> disks = List();
  ASSERT_EQ(2u, disks.size());
  const Device &a = disks[0], &b = disks[1];
  const std::string name = ToUtf8(b->GetName());
  if (boot == 1) {
    ASSERT_EQ("ok", Prepare(a));
    ASSERT_EQ("ok", ChainCodes(a->GetPartitions().at(0)->Mount(FromUtf8("a"))));
    ASSERT_EQ(0, RunCommand("echo kept > " + kRoot + "a/kept && sync"));  // kept through the cut
    return CutAt(kPoints[0], b);
  }
  const Point& cut = kPoints[boot - 2];
  SCOPED_TRACE("cut " + cut.name);
  ASSERT_EQ(1u, a->GetPartitions().size());
  ASSERT_EQ("ok", ChainCodes(a->GetPartitions()[0]->Mount(FromUtf8("a"))));
  EXPECT_EQ("kept\n", Read(kRoot + "a/kept"));
  EXPECT_EQ("a |", Storages());  // the half-prepared disk does not stop listings
  EXPECT_EQ(cut.found, VmTest::Blkid(name));
  EXPECT_EQ(cut.found, VmTest::Signatures(*b));
  ASSERT_EQ(cut.found.empty() ? 0u : 1u, b->GetPartitions().size());
  if (cut.found.find("ZLM") != std::string::npos) {  // a storage
    const auto partition = b->GetPartitions()[0];
    EXPECT_TRUE(partition->IsSupported());
    EXPECT_EQ("ZLM", ToUtf8(partition->GetLabelImpl()));
    EXPECT_EQ("0x720022@447>0x72004A@448", Prepare(b));  // it may hold data by now
  } else {
    for (const auto& p : b->GetPartitions()) EXPECT_FALSE(p->IsSupported());
    ASSERT_EQ("ok", Prepare(b));
    EXPECT_EQ("gpt 1:ext4:ZLM", VmTest::Blkid(name));
  }
  ASSERT_EQ(1u, b->GetPartitions().size());
  const auto partition = b->GetPartitions()[0];
  ASSERT_EQ("ok", ChainCodes(partition->Mount(FromUtf8("b"))));
  std::ofstream(kRoot + "b/new") << "new";
  EXPECT_EQ("new", Read(kRoot + "b/new"));
  EXPECT_EQ("a |b |", Storages());
  ASSERT_EQ("ok", ChainCodes(partition->Unmount()));
  EXPECT_EQ("ok", ChainCodes(b->WipeSignatures()));
  EXPECT_EQ("", VmTest::Blkid(name));
  if (boot <= std::size(kPoints)) CutAt(kPoints[boot - 1], b);
}

}  // namespace
