// What a long-running service keeps: GetStoragesList and GetBlockDevices(false) in a
// loop on the faked machine (one mounted storage among four disks), malloc's bytes in
// use after the first round and after every tenth of the rounds. Run as root:
// bench_memory [ROUNDS] (10000 by default).
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "fake_machine.h"
#include "virtualization/common/storage/storage_config.h"
#include "virtualization/common/storage/storage_manager.h"

using namespace FakeMachineTesting;

namespace {

size_t InUse() { return mallinfo2().uordblks; }

// Both listings, checked: the storage is there, and so are the disks.
bool Round() {
  std::vector<MigrationManagement::StorageConfig::Storage> storages;
  if (MigrationManagement::StorageConfig::GetCurrentStorageConfig()->GetStoragesList(storages) || storages.size() != 1)
    return false;
  return Virtualization::Appliance::StoragesManager().GetBlockDevices(false).size() == 4;
}

}  // namespace

int main(int argc, char** argv) {
  const long rounds = argc > 1 ? std::atol(argv[1]) : 10000;
  std::string why;
  if (!FakeMachine::EnterNamespace() || !FakeMachine::Available(&why)) {
    std::fprintf(stderr, "bench_memory: %s\n", why.c_str());
    return 1;
  }
  FakeMachine m;
  m.Host(2, "virtio_scsi\n");
  for (char d = 'b'; d <= 'e'; ++d) {
    const std::string serial = "6000c2900000000000000000000000" + std::string(2, d);
    DiskSpec& disk = m.Disk(std::string("sd") + d).At(2, 0, static_cast<unsigned>(d - 'a'), 0).Size(12_GiB).Serial(serial);
    if (d == 'b') disk.Partition(1, 2048, 20971520);  // 10 GiB
  }
  m.Build();
  if (std::system("/sbin/mke2fs -q -F -t ext4 -L ZLMdata /dev/sdb1") != 0) return 1;
  m.Mount("/dev/sdb1", "/mnt/local_storages/st1");
  if (!Round()) return std::fprintf(stderr, "bench_memory: the first round listed wrong\n"), 1;
  const size_t first = InUse();
  std::printf("round 1: %zu bytes in use\n", first);
  for (long i = 2; i <= rounds; ++i) {
    if (!Round()) return std::fprintf(stderr, "bench_memory: round %ld listed wrong\n", i), 1;
    if (i % (rounds / 10 > 0 ? rounds / 10 : 1) == 0) std::printf("round %ld: %zu bytes in use\n", i, InUse());
  }
  const size_t last = InUse();
  std::printf("kept per round after the first: %.1f bytes\n",
              rounds > 1 ? (static_cast<double>(last) - static_cast<double>(first)) / static_cast<double>(rounds - 1)
                         : 0.0);
  return 0;
}
