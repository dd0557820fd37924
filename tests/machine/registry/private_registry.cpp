#include "private_registry.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

const char PrivateRegistryTest::kMachineFile[] = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";

namespace {

// Empty when the process is in a private mount namespace, else why not.
const std::string& EnterPrivateNamespace() {
  static const std::string failure = []() -> std::string {
    if (::unshare(CLONE_NEWNS) != 0) return std::string("unshare(CLONE_NEWNS): ") + std::strerror(errno);
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
      return std::string("making / private: ") + std::strerror(errno);
    if (::mkdir("/etc/Zemlora", 0755) != 0 && errno != EEXIST)
      return std::string("mkdir /etc/Zemlora: ") + std::strerror(errno);
    return std::string();
  }();
  return failure;
}

}  // namespace

void PrivateRegistryTest::SetUp() {
  const std::string& failure = EnterPrivateNamespace();
  if (!failure.empty()) GTEST_SKIP() << "needs root and a private mount namespace: " << failure;
  ASSERT_EQ(::mount("tmpfs", "/etc/Zemlora", "tmpfs", 0, "mode=0755"), 0) << std::strerror(errno);
  mounted_ = true;
}

void PrivateRegistryTest::TearDown() {
  if (mounted_) ::umount2("/etc/Zemlora", MNT_DETACH);
}

Registry::Key PrivateRegistryTest::Machine() {
  Registry::Key key;
  EXPECT_FALSE(Registry::Key::OpenPredefined(Registry::HKEY_LOCAL_MACHINE, key));
  return key;
}

std::string ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

pid_t Spawn(const std::function<int()>& body) {
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  return pid;
}

int Reap(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}
