#!/usr/bin/env bash
# Same bytes on every thread count: runs `corvane correction` (radial, linear
# and linear with high-order terms) and `corvane calibration` (radial, linear
# with high order) on small generated stacks with 1, 2, 3 and 8 threads, and
# compares every output and every console log with `cmp` against a reference
# build's run of the same case.
#
#   bench/identical_output.sh REFERENCE_BUILD_DIR [BUILD_DIR]
#
# REFERENCE_BUILD_DIR holds the corvane to compare with (for example a build
# of an earlier commit); BUILD_DIR defaults to build/ of the repository. Exits
# 1 at the first difference, 0 when everything matched.
set -euo pipefail

# shellcheck source=bench/bench_common.sh
source "$(dirname "$0")/bench_common.sh"

readonly thread_counts=(1 2 3 8)
reference_build=${1:?usage: identical_output.sh REFERENCE_BUILD_DIR [BUILD_DIR]}
reference_corvane="$reference_build/app/corvane"
bench_setup identical_output.sh 400 "${2:-}" "$reference_corvane"

generate() {
  local dir=$1
  shift
  "$synth" --quiet "$@" "$work/$dir" > /dev/null
}
generate radial --model radial --size 512 --sections 12 --times 2 --channels 3 --seed 5
generate linear --model linear --size 600x500 --sections 9 --channels 4 --seed 7 --float \
  --what specimen
generate high --model linear --high-order --size 512x384 --sections 10 --channels 3 --seed 6

checked=0
# compare NAME COMMAND... : runs the command with the reference build, then
# with this build on every thread count, and compares output file and log.
# The placeholder OUT in the command stands for the output path.
compare() {
  local name=$1
  shift
  local args=("${@//OUT/$work/out.ref}")
  OMP_NUM_THREADS=1 "$reference_corvane" "${args[@]}" > "$work/log.ref"
  local threads
  for threads in "${thread_counts[@]}"; do
    args=("${@//OUT/$work/out.new}")
    rm -f "$work/out.new"
    OMP_NUM_THREADS=$threads "$corvane" "${args[@]}" > "$work/log.new"
    if ! cmp "$work/out.ref" "$work/out.new" || ! cmp "$work/log.ref" "$work/log.new"; then
      echo "DIFFERENT: $name with $threads threads" >&2
      exit 1
    fi
    checked=$((checked + 1))
  done
  rm -f "$work/out.ref"
  echo "identical: $name (threads ${thread_counts[*]})"
}

compare "correction radial" correction "$work/radial/specimen.qf" "$work/radial/truth.txt" OUT
compare "correction linear, float input" correction "$work/linear/specimen.qf" \
  "$work/linear/truth.txt" OUT
compare "correction linear, high order" correction "$work/high/specimen.qf" \
  "$work/high/truth.txt" OUT
compare "calibration radial" calibration "$work/radial/target.qf" OUT
compare "calibration linear, high order" calibration "$work/high/target.qf" OUT \
  -doLinearModelFitting -doHighOrderModelFitting
compare "correction with -zShift" correction "$work/high/specimen.qf" \
  "$work/high/truth.txt" OUT -zShift 0:1:2
echo "all $checked runs identical"
