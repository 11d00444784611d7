#!/usr/bin/env bash
# Configures, builds and runs the whole test suite with warnings as errors.
#   scripts/test.sh             plain build in build/, then the suite once more
#                               under every BLAS kernel this processor can run
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer in
#                               build-sanitize/, default kernel only
# The tests are switched on explicitly: the demo may have configured build/
# without them, and a run that finds no test fails instead of passing.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
extra=()
kernels=1
for arg in "$@"; do
  case "$arg" in
    --sanitize)
      build=build-sanitize
      extra=(-DCORVANE_SANITIZE=ON -DCORVANE_BUILD_BENCH=OFF -DCMAKE_BUILD_TYPE=Debug)
      export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
      export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
      kernels=0
      ;;
    *) echo "test.sh: unknown argument $arg" >&2; exit 2 ;;
  esac
done

cmake -S . -B "$build" -DCORVANE_WERROR=ON -DCORVANE_BUILD_TESTS=ON "${extra[@]}"
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure --no-tests=error -j"$(nproc)"

# The BLAS picks its kernels by processor, so the suite must pass with each
# kernel family, not only the one this machine picks. A kernel needs the
# instructions it is written in.
if ((kernels)); then
  flags=$(grep -m1 '^flags' /proc/cpuinfo || true)
  for kernel in Prescott Haswell Zen SkylakeX; do
    case "$kernel" in
      Haswell|Zen) [[ $flags == *" avx2 "* && $flags == *" fma "* ]] || continue ;;
      SkylakeX) [[ $flags == *" avx512f "* ]] || continue ;;
    esac
    echo "== the suite with OPENBLAS_CORETYPE=$kernel"
    OPENBLAS_CORETYPE=$kernel ctest --test-dir "$build" --output-on-failure --no-tests=error -j"$(nproc)"
  done
fi
