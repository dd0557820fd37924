// The listing on the appliance VM's real kernel against lsblk, which reports the same facts of
// the same disks in one process. Runs as root in a guest with 16 disks of at least 10 GiB
// (bench/vm_listing/run boots it): makes the first 8 mounted storages, then takes turns at
// GetStoragesList, GetBlockDevices(false) and lsblk, ROUNDS times each, and prints medians,
// the ratios to lsblk, and what one listing costs in CPU time and started processes.
// bench_vm_listing [ROUNDS]: 10 by default. bench_vm_listing --once storages|devices|lsblk:
// one listing, for strace or perf.
#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "../counters.h"
#include "core/common/unicode.h"
#include "core/linex/linux_misc.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

extern char** environ;

namespace {

constexpr size_t kDisks = 16, kStorages = 8;

struct Sample {
  double wall = 0, self = 0, children = 0;  // seconds
  long processes = 0;                       // forks and clones, the guest's own included
};

bool Storages() {
  std::vector<MigrationManagement::StorageConfig::Storage> list;
  return !MigrationManagement::StorageConfig::GetCurrentStorageConfig()->GetStoragesList(list) &&
         list.size() == kStorages;
}

std::vector<std::shared_ptr<Virtualization::Appliance::BlockDevice>> Devices() try {
  return Virtualization::Appliance::StoragesManager().GetBlockDevices(false);
} catch (const Common::Error& e) {
  std::fprintf(stderr, "bench_vm_listing: %s\n", Common::ToUtf8(e.GetText()).c_str());
  return {};
}

// The baseline: one lsblk with the listing's facts, its output discarded.
bool Lsblk() {
  static const char* argv[] = {"lsblk", "-J", "-o", "NAME,SIZE,UUID,LABEL,MOUNTPOINT,SERIAL", nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  pid_t pid = 0;
  int status = -1;
  const int e = posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  return e == 0 && waitpid(pid, &status, 0) == pid && status == 0;
}

struct Contender {
  const char* name;
  std::function<bool()> run;
  std::vector<Sample> samples;
};

Sample Measure(Contender& c) {
  const long processes = static_cast<long>(BenchCounters::ProcessesMade());
  const double self = BenchCounters::CpuSeconds(RUSAGE_SELF), children = BenchCounters::CpuSeconds(RUSAGE_CHILDREN);
  const auto start = std::chrono::steady_clock::now();
  if (!c.run()) {
    std::fprintf(stderr, "bench_vm_listing: %s listed wrong\n", c.name);
    std::exit(1);
  }
  const std::chrono::duration<double> wall = std::chrono::steady_clock::now() - start;
  return {wall.count(), BenchCounters::CpuSeconds(RUSAGE_SELF) - self, BenchCounters::CpuSeconds(RUSAGE_CHILDREN) - children, static_cast<long>(BenchCounters::ProcessesMade()) - processes};
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

template <class F>
double Median(const std::vector<Sample>& samples, F field) {
  std::vector<double> v;
  for (const Sample& s : samples) v.push_back(field(s));
  return Median(v);
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<Contender> contenders = {
      {"GetStoragesList", Storages, {}},
      {"GetBlockDevices(false)", [] { return Devices().size() == kDisks; }, {}},
      {"lsblk -J", Lsblk, {}}};
  if (argc == 3 && std::strcmp(argv[1], "--once") == 0) {
    const std::string what = argv[2];
    const size_t i = what == "storages" ? 0 : what == "devices" ? 1 : 2;
    const Sample s = Measure(contenders[i]);
    std::printf("%s: %.3f s, self %.3f s, children %.3f s, %ld processes\n", contenders[i].name, s.wall, s.self,
                s.children, s.processes);
    return 0;
  }
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 10;
  const auto devices = Devices();
  if (devices.size() != kDisks || rounds < 1) {
    std::fprintf(stderr, "bench_vm_listing: %zu disks listed, %zu wanted; %d rounds\n", devices.size(), kDisks,
                 rounds);
    return 1;
  }
  // The storages, made with the tools: faster than preparing under TCG, and the same on disk.
  std::string make;
  for (size_t i = 0; i < kStorages; ++i) {
    const std::string disk = "/dev/" + Common::ToUtf8(devices[i]->GetName()), n = std::to_string(i);
    if (devices[i]->GetPartitions().empty())
      make += "echo , | sfdisk -q -X gpt " + disk + " && mke2fs -q -t ext4 -L ZLMst" + n + " " + disk +
              "1 && mkdir -p /mnt/local_storages/st" + n + " && mount " + disk + "1 /mnt/local_storages/st" + n + " && ";
  }
  if (RunCommand(make + "true") != 0) return std::fprintf(stderr, "bench_vm_listing: preparing failed\n"), 1;
  for (Contender& c : contenders) Measure(c);  // caches filled, the tools' pages read once
  for (int r = 0; r < rounds; ++r)
    for (size_t k = 0; k < contenders.size(); ++k) {  // each goes first in turn
      Contender& c = contenders[(r + k) % contenders.size()];
      c.samples.push_back(Measure(c));
    }
  const double base = Median(contenders[2].samples, [](const Sample& s) { return s.wall; });
  std::printf("%d rounds, %zu disks, %zu storages; medians\n", rounds, kDisks, kStorages);
  std::printf("%-24s %9s %9s %11s %9s %9s %12s\n", "listing", "wall s", "self s", "children s", "processes",
              "/ lsblk", "range");
  for (const Contender& c : contenders) {
    std::vector<double> ratios;
    for (size_t r = 0; r < c.samples.size(); ++r) ratios.push_back(c.samples[r].wall / contenders[2].samples[r].wall);
    std::sort(ratios.begin(), ratios.end());
    std::printf("%-24s %9.3f %9.3f %11.3f %9.0f %9.2f %5.2f-%-6.2f\n", c.name,
                Median(c.samples, [](const Sample& s) { return s.wall; }),
                Median(c.samples, [](const Sample& s) { return s.self; }),
                Median(c.samples, [](const Sample& s) { return s.children; }),
                Median(c.samples, [](const Sample& s) { return static_cast<double>(s.processes); }),
                Median(c.samples, [](const Sample& s) { return s.wall; }) / base, ratios.front(), ratios.back());
  }
  return 0;
}
