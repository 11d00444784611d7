#!/usr/bin/env bash
# Configures, builds and runs the whole test suite with warnings as errors.
#   scripts/test.sh             plain build in build/
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer in build-sanitize/
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
extra=()
if [[ "${1:-}" == "--sanitize" ]]; then
  build=build-sanitize
  extra=(-DCORVANE_SANITIZE=ON -DCORVANE_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
  export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
  export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
fi

cmake -S . -B "$build" -DCORVANE_WERROR=ON "${extra[@]}"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
