#!/usr/bin/env bash
# The main job: build the library and show it at work.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh demo -DAS_BUILD_TESTS=OFF -DAS_BUILD_BENCH=OFF
cmake --build build/demo --target as_identity
build/demo/tools/identity/as_identity
