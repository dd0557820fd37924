// GetStoragesList and GetBlockDevices(false) on the faked machine with 1 to 256 disks,
// each holding one mounted ext4 storage, against the tool command lines that the library
// ran for them before it read the facts itself, started one after another by posix_spawn.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/common/guid.h"
#include "core/common/unicode.h"
#include "core/linex/linux_misc.h"
#include "../counters.h"
#include "fake_machine.h"
#include "quillenmark/raw/common/scsi_disk_helpers/impl/attributes.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

extern char** environ;

namespace {

using namespace FakeMachineTesting;
using BenchCounters::CpuSeconds;
using BenchCounters::ProcessesMade;
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
// "ZLMstore" and mounted below the storages root; with `records`, every disk also has
// an attribute record in the registry. Disks past the wanted number lose their
// /sys/block entry, which is where the library finds disks.
class Machine {
 public:
  explicit Machine(bool records) {
    machine_.Host(2, "virtio_scsi\n");
    for (int i = 0; i < kMaxDisks; ++i) {
      char serial[40];
      std::snprintf(serial, sizeof serial, "6000c29a1b2c3d4e5f607182%08x", static_cast<unsigned>(i));
      machine_.Disk(DiskName(i)).At(2, 0, static_cast<unsigned>(i), 0).Size(12_GiB).Serial(serial)
          .Partition(1, 2048, (11_GiB) / 512);
      if (records) AddRecord(serial);
    }
    machine_.Build();
    const std::string image = "/tmp/storage.img";  // the machine's own /tmp
    SparseFile(image, 11_GiB);
    Run("mke2fs -q -F -t ext4 -E lazy_itable_init=1,lazy_journal_init=1 -L ZLMstore " + image);
    for (int i = 0; i < kMaxDisks; ++i) {
      const std::string disk = DiskName(i);
      Run("cp --sparse=always " + image + " /dev/" + disk + "1");
      machine_.Mount("/dev/" + disk + "1", MountDir(i));
      links_.push_back(fs::read_symlink("/sys/block/" + disk));
    }
    fs::remove(image);
  }

  void Show(int disks) {
    for (; shown_ < disks; ++shown_) fs::create_symlink(links_[shown_], "/sys/block/" + DiskName(shown_));
    for (; shown_ > disks; --shown_) fs::remove("/sys/block/" + DiskName(shown_ - 1));
  }

 private:
  // What other programs of the appliance keep per disk; none hides it.
  static void AddRecord(const std::string& serial) {
    const std::string dashed = serial.substr(0, 8) + "-" + serial.substr(8, 4) + "-" + serial.substr(12, 4) + "-" +
                               serial.substr(16, 4) + "-" + serial.substr(20);
    GUID id;
    Registry::Key record;
    if (!GUID::Parse(dashed, id) ||
        SCSI::Detail::OpenAttributesRoot().CreateKeyRecursive(id.ToWideString(), record) ||
        record.SetValue(String(), Registry::MultiString{Common::FromUtf8("Owner"), Common::FromUtf8("backup")}))
      throw std::runtime_error("cannot write the attribute record of " + serial);
  }

  FakeMachine machine_;
  std::vector<fs::path> links_;  // each disk's /sys/block link target
  int shown_ = kMaxDisks;
};

Machine* g_machine = nullptr;

// "/bin/sh -c LINE" with its standard output read to the end into `out`; true when
// it ended with status 0.
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

// The lines the library ran for `disks` disks: scsi_id per disk, then blkid and lsblk per
// partition, then (for the storage list) e2label per partition. The disks' outputs
// must say what the library needs: a serial, a UUID, the mount point and the label.
// findmnt stands in for lsblk, which finds no block devices here: the same table read
// by the same library in a tool of its own.
bool Baseline(int disks, bool labels) {
  std::string out;
  bool ok = true;
  for (int i = 0; i < disks; ++i) {
    ok &= Spawn("scsi_id --page=0x83 --export --whitelisted --device=/dev/" + DiskName(i), out);
    ok &= out.find("ID_SCSI_SERIAL=") != std::string::npos;
  }
  for (int i = 0; i < disks; ++i) {
    const std::string partition = "/dev/" + DiskName(i) + "1";
    ok &= Spawn("blkid -o export " + partition, out) && out.find("UUID=") != std::string::npos;
    ok &= Spawn("findmnt -n -o TARGET -S " + partition, out) && out == MountDir(i) + "\n";
  }
  for (int i = 0; labels && i < disks; ++i)
    ok &= Spawn("e2label /dev/" + DiskName(i) + "1", out) && out == "ZLMstore\n";
  return ok;
}

bool StoragesList(int disks) {
  std::vector<StorageConfig::Storage> storages;
  if (StorageConfig::GetCurrentStorageConfig()->GetStoragesList(storages) || storages.size() != size_t(disks))
    return false;
  for (int i = 0; i < disks; ++i)
    if (Common::ToUtf8(storages[i].Label) != "store" ||
        "/mnt/local_storages/" + Common::ToUtf8(storages[i].MountPoint) != MountDir(i))
      return false;
  return true;
}

bool BlockDevices(int disks) {
  static const StoragesManager manager;
  const auto devices = manager.GetBlockDevices(false);
  if (devices.size() != size_t(disks)) return false;
  for (int i = 0; i < disks; ++i)
    if (Common::ToUtf8(devices[i]->GetName()) != DiskName(i) || devices[i]->GetPartitions().size() != 1) return false;
  return true;
}

struct Side {
  double wall = 0, self = 0, tools = 0;  // seconds summed over the iterations
  uint64_t processes = UINT64_MAX;       // the fewest the machine made during one run
};

bool Timed(bool (*run)(int), int disks, Side& side) {
  const double self = CpuSeconds(RUSAGE_SELF), tools = CpuSeconds(RUSAGE_CHILDREN);
  const uint64_t made = ProcessesMade();
  const auto start = std::chrono::steady_clock::now();
  const bool ok = run(disks);
  side.wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  side.processes = std::min(side.processes, ProcessesMade() - made);
  side.self += CpuSeconds(RUSAGE_SELF) - self;
  side.tools += CpuSeconds(RUSAGE_CHILDREN) - tools;
  return ok;
}

// Each iteration runs the library's listing and the baseline back to back, in turns
// first, so that other work on the machine weighs on both alike. The time is the
// library's; the counters give the baseline's, the ratios (wall time; CPU time of the
// process and its tools, which other work on the machine hardly changes), the
// library's wall time per disk (constant when the time grows linearly) and the CPU
// time per disk that the program itself spends on either side, outside the tools.
void Paired(benchmark::State& state, bool (*library)(int), bool (*baseline)(int)) {
  static bool libraryFirst = true;
  const int disks = static_cast<int>(state.range(0));
  g_machine->Show(disks);
  Side lib, base;
  bool ok = true;
  try {
    for (auto _ : state) {
      const double before = lib.wall;
      ok &= !libraryFirst || Timed(library, disks, lib);
      ok &= Timed(baseline, disks, base);
      ok &= libraryFirst || Timed(library, disks, lib);
      libraryFirst = !libraryFirst;
      state.SetIterationTime(lib.wall - before);
    }
  } catch (const Common::Error& e) {
    return state.SkipWithError(("the library threw: " + Common::ToUtf8(e.GetText())).c_str());
  }
  if (!ok) return state.SkipWithError("the library or a tool did not report the machine's storages");
  using C = benchmark::Counter;
  state.counters["baseline_ms"] = C(base.wall * 1e3, C::kAvgIterations);
  state.counters["ratio"] = lib.wall / base.wall;
  state.counters["cpu_ratio"] = (lib.self + lib.tools) / (base.self + base.tools);
  state.counters["per_disk_ms"] = C(lib.wall * 1e3 / disks, C::kAvgIterations);
  state.counters["self_us"] = C(lib.self * 1e6 / disks, C::kAvgIterations);
  state.counters["base_self_us"] = C(base.self * 1e6 / disks, C::kAvgIterations);
  state.counters["processes"] = static_cast<double>(lib.processes);
  state.counters["base_processes"] = static_cast<double>(base.processes);
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
  const bool records = argc > 1 && std::string(argv[1]) == "--attribute_records";
  if (benchmark::ReportUnrecognizedArguments(argc - records, argv + records)) return 1;
  std::unique_ptr<Machine> machine;
  try {
    machine = std::make_unique<Machine>(records);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "cannot build the machine: %s\n", e.what());
    return 1;
  }
  g_machine = machine.get();
  for (const int disks : kSizes) {
    benchmark::RegisterBenchmark("GetStoragesList", Paired, StoragesList, [](int n) { return Baseline(n, true); })
        ->Arg(disks)->UseManualTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("GetBlockDevices", Paired, BlockDevices, [](int n) { return Baseline(n, false); })
        ->Arg(disks)->UseManualTime()->Unit(benchmark::kMillisecond);
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
