#pragma once
// The faked machine: SCSI hosts, disks and partitions described in a few lines,
// built as a sysfs tree, device images and fake tools' state on tmpfs mounts private to
// the test program (see README.md). One FakeMachine at a time.
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files.h"

namespace FakeMachineTesting {

constexpr uint64_t operator""_GiB(unsigned long long n) { return n << 30; }

class DiskSpec {
 public:
  explicit DiskSpec(std::string name) : name_(std::move(name)) {}

  DiskSpec& At(unsigned host, unsigned channel, unsigned target, unsigned lun) {
    return Set(address_, {host, channel, target, lun});
  }
  DiskSpec& Size(uint64_t bytes) { return Set(bytes_, bytes); }
  DiskSpec& State(std::string text) { return Set(state_, std::move(text)); }  // verbatim
  // The ID_SCSI_SERIAL that scsi_id prints, and the kernel's copy of the page it comes from.
  DiskSpec& Serial(const std::string& serial);
  DiskSpec& ScsiIdOutput(std::string output) {  // verbatim, and no page: only scsi_id knows
    unitSerial_.reset();
    return Set(scsiId_, std::move(output));
  }
  // Entries of device/scsi_disk instead of the disk's own address; none: no directory.
  DiskSpec& ScsiDiskEntries(std::vector<std::string> entries) { return Set(scsiDisk_, std::move(entries)); }
  DiskSpec& NoScsiDisk() { return Set(scsiDisk_, std::vector<std::string>{}); }
  DiskSpec& NoImage() { return Set(image_, false); }                      // no /dev node
  DiskSpec& ImageBytes(uint64_t bytes) { return Set(imageBytes_, bytes); }  // shorter than the disk
  DiskSpec& Partition(unsigned number, uint64_t start, uint64_t sectors) {
    return partitions_.push_back({number, start, sectors}), *this;
  }

 private:
  friend class FakeMachine;
  template <class T>
  DiskSpec& Set(T& field, std::decay_t<T> value) { return field = std::move(value), *this; }

  std::string name_;
  std::vector<unsigned> address_ = {0, 0, 0, 0};
  uint64_t bytes_ = 1_GiB;
  std::string state_ = "running\n";
  std::optional<std::string> scsiId_;
  std::optional<std::string> unitSerial_;  // device/vpd_pg80
  std::optional<std::vector<std::string>> scsiDisk_;  // unset: the disk's own address
  bool image_ = true;
  std::optional<uint64_t> imageBytes_;  // unset: the disk's size
  std::vector<GptPartition> partitions_;
};

class FakeMachine {
 public:
  // Called once from main() before any thread starts; Available() says why it failed.
  static bool EnterNamespace();
  static bool Available(std::string* why = nullptr);

  FakeMachine();
  ~FakeMachine();
  FakeMachine(const FakeMachine&) = delete;
  FakeMachine& operator=(const FakeMachine&) = delete;

  FakeMachine& Host(unsigned number, std::optional<std::string> procName) {  // verbatim
    return hosts_.emplace_back(number, std::move(procName)), *this;
  }
  FakeMachine& HostWithoutProcName(unsigned number) { return Host(number, std::nullopt); }
  // The name decides the kind: sdX a SCSI disk, vdX a virtio disk, loopN a loop device.
  DiskSpec& Disk(const std::string& name) { return *disks_.emplace_back(std::make_unique<DiskSpec>(name)); }
  void Build();  // writes everything described since the last call
  // A capture of the appliance VM (tests/vm/fixtures/NAME, relative to the checkout).
  void Replay(const std::string& fixture);
  void RemoveDisk(const std::string& disk) { RemoveBlockDevice(disk); }  // the kernel forgets it
  // Mounts `device` on `dir` as the fake mount does (a small tmpfs with the device as
  // source), whatever the device holds and however often. `dir` is created when missing:
  // keep it inside the machine's trees (/mnt, /tmp); "/" covers the root mount.
  void Mount(const std::string& device, const std::string& dir) const;

  // Command lines the fake tools were run with, in order; only `tool`'s when given.
  std::vector<std::string> Calls(const std::string& tool = "") const;

  std::string ReadFile(const std::string& path) const;  // "" and a failure if missing
  void WriteFile(const std::string& path, const std::string& text) const { WriteText(path, text); }
  bool Exists(const std::string& path) const { return fs::exists(fs::symlink_status(path)); }
  static std::string StateDir() { return "/tmp/.fake_machine"; }

 private:
  void BuildDisk(const DiskSpec& disk);

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
