#pragma once
// The faked machine: a test describes SCSI hosts, disks, partitions and mounts in a
// few lines, and the harness builds them as a sysfs tree, device image files and the
// state of small fake tools, all on tmpfs mounts private to the test process.
//
//   TEST(Disks, Rescan) {
//     AS_FAKE_MACHINE(m);   // skips the test where the machine cannot be faked
//     m.Host(0, "ata_piix\n").Host(2, "virtio_scsi\n");
//     m.Disk("sdb").At(2, 0, 1, 0).Size(12_GiB).Serial("6000c29a1b2c3d4e5f60718293a4b5c6");
//     m.Build();
//     ... run library code ...
//     EXPECT_EQ("- - -\n", m.ReadFile("/sys/class/scsi_host/host2/scan"));
//   }
//
// The process enters its own mount namespace once, in main() (see main.cpp); each
// FakeMachine mounts fresh tmpfs over /sys, /dev, /mnt, /etc/Zemlora and /tmp and
// takes them away again when it goes, so every test starts from nothing. Only one
// FakeMachine may live at a time. Not thread-safe; library code under test may run
// threads of its own.
#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace FakeMachineTesting {

constexpr uint64_t operator""_KiB(unsigned long long n) { return n << 10; }
constexpr uint64_t operator""_MiB(unsigned long long n) { return n << 20; }
constexpr uint64_t operator""_GiB(unsigned long long n) { return n << 30; }

struct ScsiAddress {
  unsigned host = 0, channel = 0, target = 0, lun = 0;
  std::string Text() const;  // "H:C:T:L"
};

struct PartitionSpec {
  unsigned number = 1;
  uint64_t startSector = 2048;
  uint64_t sectors = 0;
};

// One block device. Setters return the description so that a disk is described in one line.
class DiskSpec {
 public:
  explicit DiskSpec(std::string name);

  DiskSpec& At(unsigned host, unsigned channel, unsigned target, unsigned lun);
  DiskSpec& Size(uint64_t bytes);
  DiskSpec& State(std::string text);  // device/state, verbatim ("running\n")
  DiskSpec& Dev(unsigned major, unsigned minor);
  // ID_SCSI_SERIAL that scsi_id prints for the disk, verbatim.
  DiskSpec& Serial(std::string serial);
  // Whole output of scsi_id for the disk, verbatim, replacing the usual lines.
  DiskSpec& ScsiIdOutput(std::string output);
  // scsi_id prints nothing on its standard output and exits with `status`.
  DiskSpec& ScsiIdFails(int status = 1);
  // Entries of device/scsi_disk instead of the disk's own address.
  DiskSpec& ScsiDiskEntries(std::vector<std::string> entries);
  DiskSpec& NoScsiDisk();       // no device/scsi_disk directory
  DiskSpec& NoImage();          // no /dev node at all
  DiskSpec& ImageBytes(uint64_t bytes);  // a /dev image shorter than the disk
  DiskSpec& Partition(unsigned number, uint64_t startSector, uint64_t sectors);

  const std::string& Name() const { return name_; }

 private:
  friend class FakeMachine;
  enum class Kind { Scsi, Virtio, Loop };
  std::string name_;
  Kind kind_ = Kind::Scsi;
  ScsiAddress address_;
  uint64_t bytes_ = 1_GiB;
  std::string state_ = "running\n";
  int major_ = -1, minor_ = -1;
  std::string serial_;
  bool rawScsiId_ = false;
  std::string scsiIdOutput_;
  int scsiIdStatus_ = 0;
  bool hasScsiId_ = false;
  bool scsiDiskDir_ = true;
  std::vector<std::string> scsiDiskEntries_;
  bool image_ = true;
  int64_t imageBytes_ = -1;
  std::vector<PartitionSpec> partitions_;
};

class FakeMachine {
 public:
  // Whether this process could enter its own mount namespace; if not, `why`.
  static bool Available(std::string* why = nullptr);
  // Called once from main() before any thread starts. Returns false when the machine
  // cannot be faked (not root, no namespaces); Available() then says why.
  static bool EnterNamespace();

  FakeMachine();
  ~FakeMachine();
  FakeMachine(const FakeMachine&) = delete;
  FakeMachine& operator=(const FakeMachine&) = delete;

  // A SCSI host whose proc_name holds `procName` verbatim.
  FakeMachine& Host(unsigned number, std::string procName);
  // A host directory without a proc_name file.
  FakeMachine& HostWithoutProcName(unsigned number);
  DiskSpec& Disk(const std::string& name);        // SCSI disk (sd*)
  DiskSpec& VirtioDisk(const std::string& name);  // vda, not SCSI
  DiskSpec& LoopDevice(const std::string& name);  // loop0

  // Writes everything described so far. May be called again after adding more.
  void Build();

  // Replays a tree captured from a real kernel (see README.md) into /sys: its hosts,
  // disks and partitions, with images under /dev of the disks' sizes.
  void Replay(const std::string& fixtureDir);

  // The kernel's side of a partition-table re-read: the GPT on /dev/<disk> decides
  // the partitions under /sys/block/<disk> and their /dev images.
  void RereadPartitions(const std::string& disk);
  // The kernel forgets the disk: sysfs entries and /dev node go away.
  void RemoveDisk(const std::string& disk);

  // A mount the fake lsblk, mount and umount know about.
  void Mounted(const std::string& device, const std::string& mountPoint);
  std::vector<std::pair<std::string, std::string>> Mounts() const;
  // The next runs of `tool` (scsi_id, lsblk, mount, umount, gdisk) exit with
  // `status`, printing nothing to standard output; a negative status ends that.
  void FailTool(const std::string& tool, int status);
  // Command lines the fake tools were run with ("mount -t auto /dev/sdb1 /mnt/x"),
  // in order; only those of `tool` when it is given.
  std::vector<std::string> Calls(const std::string& tool = "") const;

  std::string ReadFile(const std::string& path) const;  // "" and a failure if missing
  void WriteFile(const std::string& path, const std::string& text) const;
  bool Exists(const std::string& path) const;

  // Where the fake tools keep their state.
  static std::string StateDir();

 private:
  void BuildHost(unsigned number, const std::string* procName);
  void BuildDisk(DiskSpec& disk);
  void BuildPartition(const DiskSpec& disk, const std::string& blockDir, const PartitionSpec& p);

  std::vector<std::string> mounts_;
  std::map<unsigned, std::unique_ptr<std::string>> hosts_;  // null: no proc_name
  std::vector<std::unique_ptr<DiskSpec>> disks_;
  std::vector<std::string> built_;
};

// While it lives, the process has no free descriptor: pipe() and open() fail with
// EMFILE, which is how a test makes a tool fail to start.
class NoFreeDescriptors {
 public:
  NoFreeDescriptors();
  ~NoFreeDescriptors();

 private:
  rlim_t soft_ = 0;
};

}  // namespace FakeMachineTesting

// Declares `name` as the test's FakeMachine, or skips the test with the reason.
#define AS_FAKE_MACHINE(name)                                              \
  std::string name##_unavailable;                                          \
  if (!::FakeMachineTesting::FakeMachine::Available(&name##_unavailable))  \
    GTEST_SKIP() << name##_unavailable;                                    \
  ::FakeMachineTesting::FakeMachine name
