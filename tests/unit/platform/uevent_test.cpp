// Uevent datagrams as kernels send them, and damaged ones.
#include "uevent.h"

#include <gtest/gtest.h>

#include <string>

namespace LinuxEx {
namespace Uevent {
namespace {

using namespace std::string_literals;

struct Case {
  const char* what;
  std::string datagram;
  bool parsed;
  uint32_t major, minor;
};

// A SCSI disk deleted through device/delete and brought back by a host scan, as the
// appliance VM's kernel reports them, with the events around them that are not disks.
const std::string kSdbPath = "/devices/pci0000:00/0000:00:04.0/virtio1/host2/target2:0:1/2:0:1:0/block/sdb";

TEST(Uevent, KernelDatagrams) {
  const Case cases[] = {
      {"disk removed",
       "remove@" + kSdbPath + "\0ACTION=remove\0DEVPATH="s + kSdbPath +
           "\0SUBSYSTEM=block\0MAJOR=8\0MINOR=16\0DEVNAME=sdb\0DEVTYPE=disk\0DISKSEQ=3\0SEQNUM=1612\0"s,
       true, 8, 16},
      {"disk added",
       "add@" + kSdbPath + "\0ACTION=add\0DEVPATH="s + kSdbPath +
           "\0SUBSYSTEM=block\0MAJOR=8\0MINOR=16\0DEVNAME=sdb\0DEVTYPE=disk\0DISKSEQ=9\0SEQNUM=1630\0"s,
       true, 8, 16},
      {"loop device changed (this host)",
       "change@/devices/virtual/block/loop0\0ACTION=change\0DEVPATH=/devices/virtual/block/loop0\0"
       "SUBSYSTEM=block\0MAJOR=7\0MINOR=0\0DEVNAME=loop0\0DEVTYPE=disk\0DISKSEQ=11\0SEQNUM=821\0"s,
       true, 7, 0},
      {"media change keeps the numbers",
       "change@/devices/virtual/block/loop1\0ACTION=change\0DEVPATH=/devices/virtual/block/loop1\0"
       "SUBSYSTEM=block\0DISK_MEDIA_CHANGE=1\0MAJOR=7\0MINOR=1\0DEVNAME=loop1\0DEVTYPE=disk\0SEQNUM=9\0"s,
       true, 7, 1},
      {"large numbers",
       "add@/x\0ACTION=add\0SUBSYSTEM=block\0DEVTYPE=disk\0MAJOR=4095\0MINOR=1048575\0"s, true, 4095, 1048575},
      {"no final NUL",
       "add@/x\0ACTION=add\0SUBSYSTEM=block\0DEVTYPE=disk\0MAJOR=8\0MINOR=32"s, true, 8, 32},
      {"partition",
       "add@" + kSdbPath + "/sdb1\0ACTION=add\0SUBSYSTEM=block\0MAJOR=8\0MINOR=17\0DEVNAME=sdb1\0"
       "DEVTYPE=partition\0PARTN=1\0"s,
       false, 0, 0},
      {"SCSI device, not a block device",
       "add@/devices/pci0000:00/0000:00:04.0/virtio1/host2/target2:0:1/2:0:1:0\0ACTION=add\0"
       "SUBSYSTEM=scsi\0DEVTYPE=scsi_device\0MODALIAS=scsi:t-0x00\0"s,
       false, 0, 0},
      {"bdi", "add@/devices/virtual/bdi/8:16\0ACTION=add\0SUBSYSTEM=bdi\0"s, false, 0, 0},
      {"bind is not a change of the disk",
       "bind@/x\0ACTION=bind\0SUBSYSTEM=block\0DEVTYPE=disk\0MAJOR=8\0MINOR=16\0"s, false, 0, 0},
      {"udev's own format",
       "libudev\0\xfe\xed\xca\xfe\0ACTION=add\0SUBSYSTEM=block\0DEVTYPE=disk\0MAJOR=8\0MINOR=16\0"s, false, 0, 0},
      {"no minor", "add@/x\0ACTION=add\0SUBSYSTEM=block\0DEVTYPE=disk\0MAJOR=8\0"s, false, 0, 0},
      {"minor beyond 32 bits",
       "add@/x\0ACTION=add\0SUBSYSTEM=block\0DEVTYPE=disk\0MAJOR=8\0MINOR=4294967296\0"s, false, 0, 0},
      {"signed minor", "add@/x\0ACTION=add\0SUBSYSTEM=block\0DEVTYPE=disk\0MAJOR=8\0MINOR=-1\0"s, false, 0, 0},
      {"minor with a space", "add@/x\0ACTION=add\0SUBSYSTEM=block\0DEVTYPE=disk\0MAJOR=8\0MINOR= 1\0"s, false, 0, 0},
      {"empty", ""s, false, 0, 0},
      {"header only", "add@/x"s, false, 0, 0},
      {"binary", "\xff\x00\x01=\x02@\x00MAJOR=\xff"s, false, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    DiskChange change;
    change.major = 99;
    change.minor = 99;
    ASSERT_EQ(c.parsed, ParseDiskChange(c.datagram.data(), c.datagram.size(), change));
    if (c.parsed) {
      EXPECT_EQ(c.major, change.major);
      EXPECT_EQ(c.minor, change.minor);
    } else {
      EXPECT_EQ(99u, change.major) << "left alone";
    }
  }
}

// Every prefix of a real datagram is read without running past its end.
TEST(Uevent, TruncatedDatagrams) {
  std::string datagram = "remove@" + kSdbPath + "\0ACTION=remove\0SUBSYSTEM=block\0MAJOR=8\0MINOR=16\0DEVTYPE=disk\0"s;
  for (size_t size = 0; size < datagram.size(); ++size) {
    std::string copy = datagram.substr(0, size);  // exact-size heap block: ASan sees overruns
    DiskChange change;
    ParseDiskChange(copy.data(), copy.size(), change);
  }
}

}  // namespace
}  // namespace Uevent
}  // namespace LinuxEx
