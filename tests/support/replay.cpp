#include "fake_machine.h"

#include <stdexcept>

namespace FakeMachineTesting {

void FakeMachine::Replay(const std::string& fixtureDir) {
  throw std::runtime_error("no fixture format yet: " + fixtureDir);
}

}  // namespace FakeMachineTesting
