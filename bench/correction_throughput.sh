#!/usr/bin/env bash
# Correction throughput: how fast `corvane correction` turns a stack into its
# corrected copy, against a plain `cp` of the same input file in the same run.
#
#   bench/correction_throughput.sh [BUILD_DIR]     (default: build/ of the repo)
#
# Needs corvane and corvane-synth built in BUILD_DIR. Generates, in a temporary
# directory that is removed at the end, a 4-channel 1024 x 1024 x 32 specimen
# (16-bit) with its true parameter file for the radial model, and one for the
# linear model. The Z offsets are 0, so every channel writes all 32 sections.
# Each correction and the cp run three times; the table shows the best wall
# time with the user time of that run, and:
#   MP/s   channels x sections x 1024 x 1024 pixels / best wall time, in 10^6
#          pixels per second (one of the four channels is the reference
#          channel, which is copied and not resampled)
#   MB/s   input file size / best wall time, in 10^6 bytes per second; the
#          corrected file is twice the input's size (float pixels)
#   x cp   this run's wall time over the cp's: how many times longer than a
#          bare copy of the input the run takes
# Neither the correction nor cp syncs its output, so both write into the page
# cache, and the input is read from the cache after its first use. The machine
# load (uptime) is printed before and after: other work on the cores shows up
# directly in the wall times.
set -euo pipefail

# shellcheck source=bench/bench_common.sh
source "$(dirname "$0")/bench_common.sh"

readonly size=1024
readonly sections=32
readonly channels=4
readonly repeats=3
readonly seed=11
# Two 16-bit inputs of 256 MiB, a float output of 512 MiB and a copy of 256 MiB.
readonly needed_mb=1400

bench_setup correction_throughput.sh "$needed_mb" "${1:-}"

# Prints "wall user" in seconds of the fastest of $repeats runs of the command;
# `rm -f "$work/out"` before each run keeps every run writing a new file.
best_time() {
  local best_wall="" best_user="" t wall user
  local TIMEFORMAT='%3R %3U'
  for ((i = 0; i < repeats; ++i)); do
    rm -f "$work/out"
    t=$( { time "$@" > /dev/null 2> "$work/stderr"; } 2>&1 ) || {
      echo "correction_throughput.sh: failed: $*" >&2
      cat "$work/stderr" >&2
      exit 1
    }
    read -r wall user <<< "$t"
    if [[ -z "$best_wall" ]] || awk -v a="$wall" -v b="$best_wall" 'BEGIN { exit !(a < b) }'; then
      best_wall=$wall
      best_user=$user
    fi
  done
  rm -f "$work/out"
  echo "$best_wall $best_user"
}

generate() {
  local model=$1
  "$synth" --what specimen --model "$model" --size "$size" --sections "$sections" \
    --channels "$channels" --max-z-offset 0 --seed "$seed" --quiet "$work/$model"
}

echo "load before: $(uptime)"
generate radial
generate linear
input_bytes=$(stat -c %s "$work/radial/specimen.qf")
pixels=$((channels * sections * size * size))

# Command substitutions, so that a failed run stops the script.
cp_times=$(best_time cp "$work/radial/specimen.qf" "$work/out")
radial_times=$(best_time "$corvane" correction \
  "$work/radial/specimen.qf" "$work/radial/truth.txt" "$work/out")
linear_times=$(best_time "$corvane" correction \
  "$work/linear/specimen.qf" "$work/linear/truth.txt" "$work/out")
read -r cp_wall cp_user <<< "$cp_times"
read -r radial_wall radial_user <<< "$radial_times"
read -r linear_wall linear_user <<< "$linear_times"
echo "load after:  $(uptime)"

echo
echo "stack: $channels channels x $sections sections x $size x $size, 16-bit," \
  "$((input_bytes / 1000000)) MB; best of $repeats"
row() {
  awk -v name="$1" -v wall="$2" -v user="$3" -v pixels="$pixels" -v bytes="$input_bytes" \
    -v cp="$cp_wall" 'BEGIN {
      printf "%-18s %8.3f %8.3f %8.1f %9.1f %8.1f\n", name, wall, user,
        pixels / wall / 1e6, bytes / wall / 1e6, wall / cp
    }'
}
printf "%-18s %8s %8s %8s %9s %8s\n" "run" "wall s" "user s" "MP/s" "MB/s" "x cp"
row "correction radial" "$radial_wall" "$radial_user"
row "correction linear" "$linear_wall" "$linear_user"
row "cp" "$cp_wall" "$cp_user"
