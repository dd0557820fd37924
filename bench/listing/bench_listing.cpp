// GetStoragesList and GetBlockDevices(false) on the faked machine with 1 to 256 disks,
// each holding one mounted ext4 storage, against the tool command lines that the library
// runs for them, started one after another by posix_spawn.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/common/unicode.h"
#include "core/linex/linux_misc.h"
#include "fake_machine.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

extern char** environ;

namespace {

using namespace FakeMachineTesting;
using MigrationManagement::StorageConfig;
using Virtualization::Appliance::StoragesManager;

constexpr int kSizes[] = {1, 8, 32, 128, 256};
constexpr int kMaxDisks = 256;

// sda, ..., sdz, sdaa, ...: the kernel's bijective base 26.
std::string DiskName(int index) {
  std::string letters;
  for (int n = index + 1; n > 0; n = (n - 1) / 26) letters.insert(letters.begin(), static_cast<char>('a' + (n - 1) % 26));
  return "sd" + letters;
}

std::string MountDir(int index) { return "/mnt/local_storages/st" + std::to_string(index); }

void Run(const std::string& line) {
  if (RunCommand(line) != 0) throw std::runtime_error("failed: " + line);
}

// Every disk 12 GiB with an 11 GiB partition holding the same ext4 image, labelled
// "ZLMstore" and mounted below the storages root. Disks past the wanted number lose
// their /sys/block entry, which is where the library and lsblk find disks.
class Machine {
 public:
  Machine() {
    machine_.Host(2, "virtio_scsi\n");
    for (int i = 0; i < kMaxDisks; ++i) {
      char serial[40];
      std::snprintf(serial, sizeof serial, "6000c29a1b2c3d4e5f607182%08x", static_cast<unsigned>(i));
      machine_.Disk(DiskName(i)).At(2, 0, static_cast<unsigned>(i), 0).Size(12_GiB).Serial(serial)
          .Partition(1, 2048, (11_GiB) / 512);
    }
    machine_.Build();
    const std::string image = "/tmp/storage.img";  // the machine's own /tmp
    SparseFile(image, 11_GiB);
    Run("mke2fs -q -F -t ext4 -E lazy_itable_init=1,lazy_journal_init=1 -L ZLMstore " + image);
    std::string mounts;
    for (int i = 0; i < kMaxDisks; ++i) {
      const std::string disk = DiskName(i);
      Run("cp --sparse=always " + image + " /dev/" + disk + "1");
      fs::create_directories(MountDir(i));
      mounts += "/dev/" + disk + "1 " + MountDir(i) + "\n";
      links_.push_back(fs::read_symlink("/sys/block/" + disk));
    }
    fs::remove(image);
    machine_.WriteFile(FakeMachine::StateDir() + "/mounts", mounts);
  }

  void Show(int disks) {
    for (; shown_ < disks; ++shown_) fs::create_symlink(links_[shown_], "/sys/block/" + DiskName(shown_));
    for (; shown_ > disks; --shown_) fs::remove("/sys/block/" + DiskName(shown_ - 1));
  }

 private:
  FakeMachine machine_;
  std::vector<fs::path> links_;  // each disk's /sys/block link target
  int shown_ = kMaxDisks;
};

Machine* g_machine = nullptr;

// "/bin/sh -c LINE" with its standard output read to the end; the output, or "" and
// false when it did not end with status 0.
bool Spawn(const std::string& line, std::string& out) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
  char* argv[] = {const_cast<char*>("/bin/sh"), const_cast<char*>("-c"), const_cast<char*>(line.c_str()), nullptr};
  pid_t pid = -1;
  const int started = posix_spawn(&pid, "/bin/sh", &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  close(fds[1]);
  out.clear();
  char buffer[4096];
  for (ssize_t n; started == 0 && (n = read(fds[0], buffer, sizeof buffer)) > 0;) out.append(buffer, n);
  close(fds[0]);
  int status = 0;
  return started == 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Seconds per disk: constant when the time grows linearly with the disks.
void PerDisk(benchmark::State& state) {
  state.counters["per_disk"] =
      benchmark::Counter(static_cast<double>(state.range(0)), benchmark::Counter::kIsIterationInvariantRate |
                                                                  benchmark::Counter::kInvert);
}

// The library's lines for `disks` disks: scsi_id per disk, then blkid and lsblk per
// partition, then (for the storage list) e2label per partition. The disks' outputs
// must say what the library needs: a serial, a UUID, the mount point and the label.
void Baseline(benchmark::State& state, bool labels) {
  const int disks = static_cast<int>(state.range(0));
  g_machine->Show(disks);
  std::string out;
  bool ok = true;
  for (auto _ : state) {
    for (int i = 0; i < disks; ++i) {
      ok &= Spawn("scsi_id --page=0x83 --export --whitelisted --device=/dev/" + DiskName(i), out);
      ok &= out.find("ID_SCSI_SERIAL=") != std::string::npos;
    }
    for (int i = 0; i < disks; ++i) {
      const std::string partition = "/dev/" + DiskName(i) + "1";
      ok &= Spawn("blkid -o export " + partition, out) && out.find("UUID=") != std::string::npos;
      ok &= Spawn("lsblk -n -o mountpoint " + partition, out) && out == MountDir(i) + "\n";
    }
    for (int i = 0; labels && i < disks; ++i)
      ok &= Spawn("e2label /dev/" + DiskName(i) + "1", out) && out == "ZLMstore\n";
  }
  if (!ok) state.SkipWithError("a tool failed or printed something else");
  PerDisk(state);
}

void StoragesList(benchmark::State& state) {
  const size_t disks = static_cast<size_t>(state.range(0));
  g_machine->Show(static_cast<int>(disks));
  const std::shared_ptr<StorageConfig> config = StorageConfig::GetCurrentStorageConfig();
  std::vector<StorageConfig::Storage> storages;
  bool ok = true;
  for (auto _ : state) {
    storages.clear();
    ok &= !config->GetStoragesList(storages) && storages.size() == disks;
    for (size_t i = 0; ok && i < disks; ++i)
      ok &= Common::ToUtf8(storages[i].Label) == "store" &&
            "/mnt/local_storages/" + Common::ToUtf8(storages[i].MountPoint) == MountDir(static_cast<int>(i));
  }
  if (!ok) state.SkipWithError("not the machine's storages");
  PerDisk(state);
}

void BlockDevices(benchmark::State& state) {
  const size_t disks = static_cast<size_t>(state.range(0));
  g_machine->Show(static_cast<int>(disks));
  const StoragesManager manager;
  bool ok = true;
  try {
    for (auto _ : state) {
      const auto devices = manager.GetBlockDevices(false);
      ok &= devices.size() == disks;
      for (size_t i = 0; ok && i < disks; ++i)
        ok &= Common::ToUtf8(devices[i]->GetName()) == DiskName(static_cast<int>(i)) &&
              devices[i]->GetPartitions().size() == 1;
    }
  } catch (const Common::Error& e) {
    return state.SkipWithError(("GetBlockDevices: " + Common::ToUtf8(e.GetText())).c_str());
  }
  if (!ok) state.SkipWithError("not the machine's disks");
  PerDisk(state);
}

}  // namespace

int main(int argc, char** argv) {
  FakeMachine::EnterNamespace();  // before anything starts a thread
  std::string why;
  if (!FakeMachine::Available(&why)) {
    std::fprintf(stderr, "%s\n", why.c_str());
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Machine machine;
  g_machine = &machine;
  // Each size's four cases side by side; wall time, since the work is in the children.
  for (const int disks : kSizes) {
    const auto add = [&](const char* name, auto function) {
      benchmark::RegisterBenchmark(name, function)->Arg(disks)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    add("GetStoragesList", StoragesList);
    add("GetStoragesList_baseline", [](benchmark::State& s) { Baseline(s, true); });
    add("GetBlockDevices", BlockDevices);
    add("GetBlockDevices_baseline", [](benchmark::State& s) { Baseline(s, false); });
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
