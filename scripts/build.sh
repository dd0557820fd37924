#!/usr/bin/env bash
# scripts/build.sh NAME [cmake options...]: configures and builds build/NAME.
set -euo pipefail
cd "$(dirname "$0")/.."
name=$1; shift
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "build/$name" -G Ninja "${launcher[@]}" "$@" >/dev/null
