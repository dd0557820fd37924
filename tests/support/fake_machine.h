#pragma once
// The faked machine: a test describes SCSI hosts, disks, partitions and mounts in a few
// lines; the harness builds them as a sysfs tree, device image files and the state of
// small fake tools, on tmpfs mounts private to the test process (see README.md).
//
//   AS_FAKE_MACHINE(m);   // skips the test where the machine cannot be faked
//   m.Host(2, "virtio_scsi\n");
//   m.Disk("sdb").At(2, 0, 1, 0).Size(12_GiB).Serial("6000c29a1b2c3d4e5f60718293a4b5c6");
//   m.Build();
//
// One FakeMachine at a time; not thread-safe, though the code under test may run threads.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "sysfs.h"

namespace FakeMachineTesting {

constexpr uint64_t operator""_KiB(unsigned long long n) { return n << 10; }
constexpr uint64_t operator""_MiB(unsigned long long n) { return n << 20; }
constexpr uint64_t operator""_GiB(unsigned long long n) { return n << 30; }

// One block device, described in one line.
class DiskSpec {
 public:
  explicit DiskSpec(std::string name) : name_(std::move(name)) {}

  DiskSpec& At(unsigned host, unsigned channel, unsigned target, unsigned lun) {
    address_ = {host, channel, target, lun};
    return *this;
  }
  DiskSpec& Size(uint64_t bytes) { return Set(bytes_, bytes); }
  DiskSpec& State(std::string text) { return Set(state_, std::move(text)); }  // verbatim
  DiskSpec& Dev(unsigned major, unsigned minor) {
    return Set(dev_, std::to_string(major) + ":" + std::to_string(minor));
  }
  DiskSpec& Serial(const std::string& serial);  // the ID_SCSI_SERIAL that scsi_id prints
  DiskSpec& ScsiIdOutput(std::string output) { scsiIdStatus_ = 0; return Set(scsiId_, std::move(output)); }
  DiskSpec& ScsiIdFails(int status = 1) { scsiIdStatus_ = status; return Set(scsiId_, std::string()); }
  // Entries of device/scsi_disk instead of the disk's own address; none: no directory.
  DiskSpec& ScsiDiskEntries(std::vector<std::string> entries) { return Set(scsiDisk_, std::move(entries)); }
  DiskSpec& NoScsiDisk() { return Set(scsiDisk_, std::vector<std::string>{}); }
  DiskSpec& NoImage() { return Set(image_, false); }                      // no /dev node
  DiskSpec& ImageBytes(uint64_t bytes) { return Set(imageBytes_, bytes); }  // shorter than the disk
  DiskSpec& Partition(unsigned number, uint64_t startSector, uint64_t sectors) {
    partitions_.push_back({number, startSector, sectors});
    return *this;
  }

 private:
  friend class FakeMachine;
  template <class T, class V>
  DiskSpec& Set(T& field, V&& value) {
    field = std::forward<V>(value);
    return *this;
  }

  std::string name_;
  std::vector<unsigned> address_ = {0, 0, 0, 0};
  uint64_t bytes_ = 1_GiB;
  std::string state_ = "running\n";
  std::string dev_;  // "" for the kernel's numbering
  std::optional<std::string> scsiId_;
  int scsiIdStatus_ = 0;
  std::optional<std::vector<std::string>> scsiDisk_;  // unset: the disk's own address
  bool image_ = true;
  std::optional<uint64_t> imageBytes_;  // unset: the disk's size
  std::vector<GptPartition> partitions_;
};

class FakeMachine {
 public:
  // Called once from main() before any thread starts; false where the machine cannot
  // be faked (not root, no namespaces), and Available() then says why.
  static bool EnterNamespace();
  static bool Available(std::string* why = nullptr);

  FakeMachine();
  ~FakeMachine();
  FakeMachine(const FakeMachine&) = delete;
  FakeMachine& operator=(const FakeMachine&) = delete;

  FakeMachine& Host(unsigned number, std::optional<std::string> procName) {  // verbatim
    hosts_.emplace_back(number, std::move(procName));
    return *this;
  }
  FakeMachine& HostWithoutProcName(unsigned number) { return Host(number, std::nullopt); }
  // The name decides the kind: sdX a SCSI disk, vdX a virtio disk, loopN a loop device.
  DiskSpec& Disk(const std::string& name) { return *disks_.emplace_back(std::make_unique<DiskSpec>(name)); }
  // Writes everything described since the last call.
  void Build();
  // A capture of the appliance VM (tests/vm/fixtures/NAME, relative to the checkout).
  void Replay(const std::string& fixture);

  void RereadPartitions(const std::string& disk);  // the kernel's partition-table re-read
  void RemoveDisk(const std::string& disk);        // the kernel forgets the disk

  // Mounts as the fake lsblk, mount and umount see them.
  void Mounted(const std::string& device, const std::string& mountPoint);
  std::vector<std::pair<std::string, std::string>> Mounts() const;
  // The next runs of `tool` exit with `status` and print nothing; negative: no more.
  void FailTool(const std::string& tool, int status);
  // Command lines the fake tools were run with, in order; only `tool`'s when given.
  std::vector<std::string> Calls(const std::string& tool = "") const;

  std::string ReadFile(const std::string& path) const;  // "" and a failure if missing
  void WriteFile(const std::string& path, const std::string& text) const;
  bool Exists(const std::string& path) const;
  static std::string StateDir() { return "/tmp/.fake_machine"; }

 private:
  void BuildDisk(const DiskSpec& disk);
  static std::vector<std::string> CoverTrees();
  static void UncoverTrees(std::vector<std::string>& mounted);

  std::vector<std::string> mounts_;
  std::vector<std::pair<unsigned, std::optional<std::string>>> hosts_;
  std::vector<std::unique_ptr<DiskSpec>> disks_;
  size_t builtHosts_ = 0, builtDisks_ = 0;
};

}  // namespace FakeMachineTesting

// Declares `name` as the test's FakeMachine, or skips the test with the reason.
#define AS_FAKE_MACHINE(name)                                              \
  std::string name##_unavailable;                                          \
  if (!::FakeMachineTesting::FakeMachine::Available(&name##_unavailable))  \
    GTEST_SKIP() << name##_unavailable;                                    \
  ::FakeMachineTesting::FakeMachine name
