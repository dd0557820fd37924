#pragma once
// The shell runner of the common child helper, under the name this folder's tests use.
#include "../../support/child.h"

namespace FakeMachineTesting {
using TestSupport::RunShell;
}
