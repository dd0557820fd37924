// Entering the private mount namespace and covering the machine's trees with tmpfs.
#include "namespace.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "files.h"

namespace FakeMachineTesting {
namespace {

// Device nodes the machine keeps from the real /dev, held open from the start because
// the real /dev is out of reach once covered.
const char* const kKeptDevices[] = {"null", "zero", "urandom", "full"};
int g_kept[4] = {-1, -1, -1, -1};
bool g_entered = false;

// The project's trees (the fake tools, the fixtures, the kernel helper) stay reachable
// when a checkout lies below a tree the machine covers, such as a clone under /tmp.
struct KeptTree {
  std::string path;
  int fd;
};
std::vector<KeptTree> g_trees;
std::string g_why = "the faked machine needs its own mount namespace; main() did not enter it";

std::string Errno(const std::string& what) { return what + ": " + std::strerror(errno); }

bool Mount(const char* source, const char* target, const char* type, unsigned long flags,
           const char* data, std::string& why) {
  if (::mount(source, target, type, flags, data) == 0) return true;
  why = Errno(std::string("mount ") + target);
  return false;
}

// /etc/Zemlora must exist to be mounted on; where the host has none, /etc gets an
// overlay in this namespace only, so that the host's /etc stays untouched.
bool PrepareEtcZemlora(std::string& why) {
  if (PathExists("/etc/Zemlora")) return true;
  if (!Mount("none", "/tmp", "tmpfs", 0, "mode=0755", why)) return false;
  MakeDirs("/tmp/etc_upper");
  MakeDirs("/tmp/etc_work");
  bool ok = Mount("overlay", "/etc", "overlay", 0,
                  "lowerdir=/etc,upperdir=/tmp/etc_upper,workdir=/tmp/etc_work", why);
  if (ok && ::mkdir("/etc/Zemlora", 0755) != 0) {
    why = Errno("mkdir /etc/Zemlora");
    ok = false;
  }
  ::umount2("/tmp", MNT_DETACH);
  return ok;
}

}  // namespace

// The fake tools come first in PATH and find the machine's state and the kernel helper
// through the environment, which every child inherits.
void PrepareEnvironment() {
  const char* path = std::getenv("PATH");
  std::string tools = AS_FAKE_TOOLS_DIR;
  ::setenv("PATH", (tools + ":" + (path ? path : "/usr/sbin:/usr/bin:/sbin:/bin")).c_str(), 1);
  ::setenv("AS_FAKE_MACHINE_STATE", FakeMachineStateDir(), 1);
  ::setenv("AS_FAKE_MACHINE_KERNEL", AS_FAKE_MACHINE_KERNEL, 1);
}

bool EnterMachineNamespace(std::string& why) {
  PrepareEnvironment();
  if (::geteuid() != 0) {
    why = "the faked machine needs root (mount namespaces and tmpfs mounts)";
    return false;
  }
  if (::unshare(CLONE_NEWNS) != 0) {
    why = Errno("unshare(CLONE_NEWNS)");
    return false;
  }
  if (!Mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr, why)) return false;
  for (int i = 0; i < 4; ++i) {
    std::string path = std::string("/dev/") + kKeptDevices[i];
    g_kept[i] = ::open(path.c_str(), O_PATH | O_CLOEXEC);
    if (g_kept[i] < 0) {
      why = Errno("open " + path);
      return false;
    }
  }
  for (const std::string& tree : {std::string(AS_SOURCE_ROOT), Dirname(AS_FAKE_MACHINE_KERNEL)}) {
    const int fd = ::open(tree.c_str(), O_PATH | O_CLOEXEC);
    if (fd < 0) {
      why = Errno("open " + tree);
      return false;
    }
    g_trees.push_back({tree, fd});
  }
  // The appliance's /bin/sh is bash; the library's command lines rely on its echo -e.
  if (!Mount("/bin/bash", "/bin/sh", nullptr, MS_BIND, nullptr, why)) return false;
  try {
    if (!PrepareEtcZemlora(why)) return false;
  } catch (const std::exception& e) {
    why = e.what();
    return false;
  }
  g_entered = true;
  return true;
}

bool MachineNamespaceEntered(std::string* why) {
  if (!g_entered && why) *why = g_why;
  return g_entered;
}

void SetMachineUnavailable(const std::string& why) { g_why = why; }

std::vector<std::string> CoverMachineTrees() {
  std::vector<std::string> mounted;
  std::string why;
  for (const char* dir : {"/sys", "/dev", "/mnt", "/etc/Zemlora", "/tmp"}) {
    if (!Mount("none", dir, "tmpfs", MS_NOSUID, "mode=0755", why)) {
      UncoverMachineTrees(mounted);
      throw std::runtime_error(why);
    }
    mounted.push_back(dir);
  }
  for (int i = 0; i < 4; ++i) {
    std::string path = std::string("/dev/") + kKeptDevices[i];
    std::string source = "/proc/self/fd/" + std::to_string(g_kept[i]);
    WriteText(path, "");
    if (!Mount(source.c_str(), path.c_str(), nullptr, MS_BIND, nullptr, why)) {
      UncoverMachineTrees(mounted);
      throw std::runtime_error(why);
    }
    mounted.push_back(path);
  }
  MakeDirs("/dev/shm");
  for (const KeptTree& tree : g_trees) {
    bool covered = false;
    for (const std::string& dir : mounted) covered = covered || tree.path.compare(0, dir.size() + 1, dir + "/") == 0;
    if (!covered || PathExists(tree.path + "/.")) continue;
    MakeDirs(tree.path);
    const std::string source = "/proc/self/fd/" + std::to_string(tree.fd);
    if (!Mount(source.c_str(), tree.path.c_str(), nullptr, MS_BIND | MS_REC, nullptr, why)) {
      UncoverMachineTrees(mounted);
      throw std::runtime_error(why);
    }
    mounted.push_back(tree.path);
  }
  return mounted;
}

void UncoverMachineTrees(std::vector<std::string>& mounted) {
  while (!mounted.empty()) {
    ::umount2(mounted.back().c_str(), MNT_DETACH);
    mounted.pop_back();
  }
}

}  // namespace FakeMachineTesting
