// Runs a command (pytest) on a faked machine: sdb holds the storage "st1" labelled
// "data", sdc is blank, sdd has no serial. Exit status 77 when the machine cannot be
// made here (not root, no mount namespace), with the reason.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "child.h"
#include "fake_machine.h"

using namespace FakeMachineTesting;

int main(int argc, char** argv) {
  std::string why;
  if (!FakeMachine::EnterNamespace() || !FakeMachine::Available(&why)) {
    std::printf("skipped: %s\n", why.c_str());
    return 77;
  }
  if (argc < 2) return std::fprintf(stderr, "usage: python_machine COMMAND [ARGS...]\n"), 2;
  FakeMachine m;
  m.Host(2, "virtio_scsi\n");
  m.Disk("sdb").At(2, 0, 1, 0).Size(12_GiB).Serial("6000c2900000000000000000000000b0").Partition(1, 2048, 20971520);
  m.Disk("sdc").At(2, 0, 2, 0).Size(16_GiB).Serial("6000c2900000000000000000000000c0");
  m.Disk("sdd").At(2, 0, 3, 0).Size(12_GiB);
  m.Build();
  if (std::system("/usr/sbin/mke2fs -q -F -t ext4 -L ZLMdata /dev/sdb1") != 0) return 1;
  m.Mount("/dev/sdb1", "/mnt/local_storages/st1");
  // A child, so that the machine is torn down after it.
  return TestSupport::RunInChild([&] { return execvp(argv[1], argv + 1), std::perror(argv[1]), 127; });
}
