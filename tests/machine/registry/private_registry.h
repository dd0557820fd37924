#pragma once
// Registry tests run on the faked machine: a fresh tmpfs over /etc/Zemlora for each
// test, so that the library works unchanged on its real paths and nothing reaches
// the host's registry. Needs root; skips where it cannot.
#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "fake_machine.h"
#include "registry/key.h"

class PrivateRegistryTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // HKEY_LOCAL_MACHINE, opened.
  Registry::Key Machine();

  static const char kMachineFile[];

 private:
  std::unique_ptr<FakeMachineTesting::FakeMachine> machine_;
};

std::string ReadBytes(const std::string& path);
void WriteBytes(const std::string& path, const std::string& bytes);
// Runs `body` in a child process that exits with its result.
pid_t Spawn(const std::function<int()>& body);
// Waits for `pid`; its wait status.
int Reap(pid_t pid);
