#!/usr/bin/env bash
# Builds the libFuzzer targets in fuzz/ outside the main CMake build (they
# need clang's fuzzer runtime), with AddressSanitizer and the undefined
# behaviour checks, float-to-integer overflow and the integer checks among
# them. Unsigned wrap-around and implicit sign changes are left out: both are
# defined, the library's byte arithmetic relies on the first, and libFuzzer's
# own input splitter (FuzzedDataProvider) does the second by design.
#   scripts/fuzz-build.sh            build every target into build-fuzz/
#   scripts/fuzz-build.sh NAME...    build only the named targets
#   FUZZ_BUILD_DIR=dir scripts/...   build elsewhere
set -euo pipefail
cd "$(dirname "$0")/.."

cxx=${FUZZ_CXX:-clang++-14}
out=${FUZZ_BUILD_DIR:-build-fuzz}
mkdir -p "$out"
flags=(-std=c++17 -g -O1 -fno-omit-frame-pointer -I.
       -fsanitize=fuzzer,address,undefined,float-cast-overflow,integer
       -fno-sanitize=unsigned-integer-overflow,unsigned-shift-base,implicit-integer-sign-change
       -fno-sanitize-recover=all)

# The sources each target links besides its own file.
sources_of() {
  case "$1" in
    command_line_fuzz) echo "app/settings.cpp -Wl,--wrap=exit" ;;
    parameter_file_fuzz) echo "model/parameter_file.cpp model/parameter_units.cpp model/run_stop.cpp imsubs/*.cpp" ;;
    *) echo "imsubs/*.cpp" ;;
  esac
}

targets=("$@")
if [[ ${#targets[@]} -eq 0 ]]; then
  for target in fuzz/*_fuzz.cpp; do targets+=("$(basename "$target" .cpp)"); done
fi
for name in "${targets[@]}"; do
  # shellcheck disable=SC2046 # the source list is meant to split and glob
  "$cxx" "${flags[@]}" "fuzz/$name.cpp" $(sources_of "$name") -o "$out/$name"
  echo "built $out/$name"
done
