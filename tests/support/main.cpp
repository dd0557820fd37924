// main() of every machine test: the mount namespace is entered before anything can
// start a thread, since only the calling thread would move into it.
#include <gtest/gtest.h>

#include "fake_machine.h"

int main(int argc, char** argv) {
  FakeMachineTesting::FakeMachine::EnterNamespace();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
