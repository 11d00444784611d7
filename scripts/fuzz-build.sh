#!/usr/bin/env bash
# Builds the libFuzzer targets in fuzz/ against the image stream library,
# outside the main CMake build (they need clang's fuzzer runtime).
#   scripts/fuzz-build.sh            build into build-fuzz/
#   FUZZ_BUILD_DIR=dir scripts/...   build elsewhere
set -euo pipefail
cd "$(dirname "$0")/.."

cxx=${FUZZ_CXX:-clang++-14}
out=${FUZZ_BUILD_DIR:-build-fuzz}
mkdir -p "$out"
flags=(-std=c++17 -g -O1 -fno-omit-frame-pointer -I.
       -fsanitize=fuzzer,address,undefined -fno-sanitize-recover=all)

for target in fuzz/*_fuzz.cpp; do
  name=$(basename "$target" .cpp)
  "$cxx" "${flags[@]}" "$target" imsubs/*.cpp -o "$out/$name"
  echo "built $out/$name"
done
