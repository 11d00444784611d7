#!/usr/bin/env bash
# Builds the tool and the suites that run it as a user would (app, correction)
# with clang's UndefinedBehaviorSanitizer, float-to-integer overflow included:
# GCC's sanitizer doesn't check that conversion, and hostile files and
# arguments reach it. Runs both suites; any report fails the run.
#   scripts/test-clang-ubsan.sh      build in build-clang-ubsan/
set -euo pipefail
cd "$(dirname "$0")/.."

build=${CLANG_UBSAN_BUILD_DIR:-build-clang-ubsan}
sanitize="-fsanitize=undefined,float-cast-overflow -fno-sanitize-recover=all -fno-omit-frame-pointer"
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1

CC=clang-14 CXX=clang++-14 cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug \
  -DCORVANE_BUILD_BENCH=OFF -DCMAKE_CXX_FLAGS="$sanitize" \
  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=undefined"
cmake --build "$build" -j"$(nproc)" --target corvane app_tests correction_tests
"$build"/tests/app_tests
"$build"/tests/correction_tests
