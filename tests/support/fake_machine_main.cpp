// main() of the machine tests: the namespace is entered before anything starts a thread.
#include "fake_machine.h"

int main(int argc, char** argv) {
  FakeMachineTesting::FakeMachine::EnterNamespace();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
