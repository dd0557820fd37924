#!/usr/bin/env bash
# Builds and runs every test: the plain build (unit, faked machine, VM, install),
# then AddressSanitizer + UndefinedBehaviorSanitizer, ThreadSanitizer on the threaded
# tests, and the fuzzers for a bounded time.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
export CCACHE_DIR=${CCACHE_DIR:-$HOME/.cache/ccache}
step() { printf '\n=== %s (%s) ===\n' "$1" "$(date +%T)"; }
ctest_run() { ctest --test-dir "$1" --output-on-failure -j "$jobs" "${@:2}"; }

step "plain build"
scripts/build.sh release
cmake --build build/release -j "$jobs"
ctest_run build/release -LE vm
if ctest --test-dir build/release -N -L vm | grep -q "Total Tests: [1-9]"; then
  step "appliance VM"
  ctest --test-dir build/release --output-on-failure -L vm
fi

step "install and use as a package"
tests/install/check_install.sh build/release

step "AddressSanitizer + UndefinedBehaviorSanitizer"
scripts/build.sh asan -DCMAKE_BUILD_TYPE=Debug -DAS_SANITIZE=address,undefined -DAS_BUILD_BENCH=OFF
cmake --build build/asan -j "$jobs"
UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1 \
  ctest_run build/asan -LE vm

step "ThreadSanitizer (threaded tests)"
scripts/build.sh tsan -DCMAKE_BUILD_TYPE=Debug -DAS_SANITIZE=thread -DAS_BUILD_BENCH=OFF
mapfile -t threaded < <(ctest --test-dir build/tsan -N -L threaded | sed -n 's/^ *Test *#[0-9]*: //p')
if [ ${#threaded[@]} -gt 0 ]; then
  cmake --build build/tsan -j "$jobs" --target "${threaded[@]}"
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest_run build/tsan -L threaded
fi

if [ -f fuzz/CMakeLists.txt ]; then
  step "fuzzers (bounded)"
  scripts/build.sh fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DAS_SANITIZE=address,undefined -DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link \
    -DAS_BUILD_FUZZ=ON -DAS_BUILD_TESTS=OFF -DAS_BUILD_BENCH=OFF
  cmake --build build/fuzz -j "$jobs"
  ctest_run build/fuzz -L fuzz
fi
step "all tests passed"
