#pragma once
// The process-wide part of the faked machine: its own mount namespace, entered once.
#include <string>
#include <vector>

namespace FakeMachineTesting {

// Where the fake tools keep their state (below the fake /tmp).
inline const char* FakeMachineStateDir() { return "/tmp/.fake_machine"; }

// Must run before the process starts any thread. False with `why` where it cannot.
bool EnterMachineNamespace(std::string& why);
bool MachineNamespaceEntered(std::string* why);
void SetMachineUnavailable(const std::string& why);

// Fresh tmpfs over the machine's trees and the kept device nodes bound into /dev;
// returns the mount points, last mounted last.
std::vector<std::string> CoverMachineTrees();
void UncoverMachineTrees(std::vector<std::string>& mounted);

}  // namespace FakeMachineTesting
