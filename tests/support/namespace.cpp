// Entering the private mount namespace once per program, and covering the machine's
// trees with fresh tmpfs for each FakeMachine.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "fake_machine.h"
#include "files.h"

namespace FakeMachineTesting {
namespace {

// Device nodes every machine binds from the real /dev, opened while it is in reach.
const char* const kKeptDevices[] = {"/dev/null", "/dev/zero", "/dev/urandom", "/dev/full"};
std::vector<std::pair<std::string, int>> g_kept;  // path, O_PATH descriptor
bool g_entered = false;
std::string g_why = "the faked machine needs its own mount namespace; main() did not enter it";

void Mount(const std::string& source, const std::string& target, const char* type, unsigned long flags,
           const char* data = nullptr) {
  if (::mount(source.c_str(), target.c_str(), type, flags, data) != 0)
    throw std::runtime_error("mount " + target + ": " + std::strerror(errno));
}

void Enter() {
  if (::geteuid() != 0) throw std::runtime_error("the faked machine needs root (mount namespaces, tmpfs)");
  if (::unshare(CLONE_NEWNS) != 0) throw std::runtime_error(std::string("unshare: ") + std::strerror(errno));
  Mount("none", "/", nullptr, MS_REC | MS_PRIVATE);
  for (const char* path : kKeptDevices) g_kept.emplace_back(path, ::open(path, O_PATH | O_CLOEXEC));
  // The project's trees (fake tools, fixtures, kernel helper) stay reachable where a
  // checkout lies below a covered tree such as /tmp.
  for (const std::string& path : {std::string(AS_SOURCE_ROOT), fs::path(AS_FAKE_MACHINE_KERNEL).parent_path().string()})
    g_kept.emplace_back(path, ::open(path.c_str(), O_PATH | O_CLOEXEC));
  for (const auto& kept : g_kept)
    if (kept.second < 0) throw std::runtime_error("open " + kept.first + ": " + std::strerror(errno));
  // The appliance's /bin/sh is bash; the library's command lines rely on its echo -e.
  Mount("/bin/bash", "/bin/sh", nullptr, MS_BIND);
  // /etc/Zemlora must exist to be mounted on; where the host has none, /etc gets an
  // overlay in this namespace only, and the host's /etc stays untouched.
  if (fs::exists("/etc/Zemlora")) return;
  Mount("none", "/tmp", "tmpfs", 0, "mode=0755");
  fs::create_directories("/tmp/etc_upper");
  fs::create_directories("/tmp/etc_work");
  Mount("overlay", "/etc", "overlay", 0, "lowerdir=/etc,upperdir=/tmp/etc_upper,workdir=/tmp/etc_work");
  ::umount2("/tmp", MNT_DETACH);
  fs::create_directory("/etc/Zemlora");
}

}  // namespace

bool FakeMachine::EnterNamespace() {
  // Every child inherits the fake tools first in PATH and where they keep their state.
  const char* path = std::getenv("PATH");
  ::setenv("PATH", (std::string(AS_FAKE_TOOLS_DIR) + ":" + (path ? path : "/usr/sbin:/usr/bin:/sbin:/bin")).c_str(), 1);
  ::setenv("AS_FAKE_MACHINE_STATE", StateDir().c_str(), 1);
  ::setenv("AS_FAKE_MACHINE_KERNEL", AS_FAKE_MACHINE_KERNEL, 1);
  try {
    Enter();
    g_entered = true;
  } catch (const std::exception& e) {
    g_why = std::string("cannot fake the machine: ") + e.what();
  }
  return g_entered;
}

bool FakeMachine::Available(std::string* why) {
  if (!g_entered && why) *why = g_why;
  return g_entered;
}

std::vector<std::string> FakeMachine::CoverTrees() {
  std::vector<std::string> mounted;
  try {
    for (const char* dir : {"/sys", "/dev", "/mnt", "/etc/Zemlora", "/tmp"}) {
      Mount("none", dir, "tmpfs", MS_NOSUID, "mode=0755");
      mounted.push_back(dir);
    }
    fs::create_directories("/dev/shm");
    for (const auto& [path, fd] : g_kept) {
      const bool device = path.compare(0, 5, "/dev/") == 0;
      const bool covered = std::any_of(mounted.begin(), mounted.end(), [&](const std::string& dir) {
        return path.compare(0, dir.size() + 1, dir + "/") == 0;
      });
      if (!covered || (!device && fs::exists(path + "/."))) continue;
      if (device) WriteText(path, ""); else fs::create_directories(path);
      Mount("/proc/self/fd/" + std::to_string(fd), path, nullptr, MS_BIND | MS_REC);
      mounted.push_back(path);
    }
  } catch (...) {
    UncoverTrees(mounted);
    throw;
  }
  return mounted;
}

void FakeMachine::UncoverTrees(std::vector<std::string>& mounted) {
  for (; !mounted.empty(); mounted.pop_back()) ::umount2(mounted.back().c_str(), MNT_DETACH);
}

}  // namespace FakeMachineTesting
