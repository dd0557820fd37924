#!/usr/bin/env bash
# The main job: build the library and show it at work.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/build.sh release -DAS_BUILD_TESTS=OFF -DAS_BUILD_BENCH=OFF
cmake --build build/release --target as_identity
build/release/tools/identity/as_identity
