#include "private_registry.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

const char PrivateRegistryTest::kMachineFile[] = "/etc/Zemlora/HKEY_LOCAL_MACHINE.xml";

void PrivateRegistryTest::SetUp() {
  std::string why;
  if (!FakeMachineTesting::FakeMachine::Available(&why)) GTEST_SKIP() << why;
  machine_ = std::make_unique<FakeMachineTesting::FakeMachine>();  // a fresh, empty /etc/Zemlora
  machine_->Build();
}

void PrivateRegistryTest::TearDown() { machine_.reset(); }

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
