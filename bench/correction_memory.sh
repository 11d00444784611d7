#!/usr/bin/env bash
# Correction memory: the peak resident memory of `corvane correction` must not
# grow with the number of sections, since the correction holds a fixed number
# of sections (one read ahead, one resampled, one written behind).
#
#   bench/correction_memory.sh [BUILD_DIR]     (default: build/ of the repo)
#
# Needs corvane and corvane-synth built in BUILD_DIR, and GNU time at
# /usr/bin/time (package time). Generates, in a temporary directory that is
# removed at the end, a 2-channel 1024 x 1024 specimen (16-bit) with 8 and
# then with 128 sections; the second channel is resampled, the first (the
# reference) copied. Corrects each with its true parameter file under
# `/usr/bin/time -v`, prints the "Maximum resident set size" of both side by
# side, and exits with status 1 if they differ by more than 8 MB. Each stack
# and its output are deleted before the next is made: the larger pair takes
# 512 MB of input and 1 GB of output.
set -euo pipefail

# shellcheck source=bench/bench_common.sh
source "$(dirname "$0")/bench_common.sh"

readonly size=1024
readonly channels=2
readonly section_counts=(8 128)
readonly limit_kb=$((8 * 1024))
readonly seed=11
# 128 sections of 2 channels: 512 MiB of 16-bit input, 1 GiB of float output.
readonly needed_mb=1700

bench_setup correction_memory.sh "$needed_mb" "${1:-}" /usr/bin/time
df -h "$work"

# Prints the peak resident set size in kB of a correction of a stack with the
# given number of sections, and removes the stack and the output afterwards.
peak_rss_kb() {
  local sections=$1
  local dir="$work/z$sections"
  "$synth" --what specimen --size "$size" --sections "$sections" --channels "$channels" \
    --max-z-offset 0 --seed "$seed" --quiet "$dir" >&2
  if ! /usr/bin/time -v -o "$dir/time.txt" "$corvane" correction "$dir/specimen.qf" \
    "$dir/truth.txt" "$dir/out.qf" > "$dir/stdout.txt"; then
    echo "correction_memory.sh: correction of $sections sections failed" >&2
    cat "$dir/stdout.txt" "$dir/time.txt" >&2
    exit 1
  fi
  awk -F': ' '/Maximum resident set size/ { print $2 }' "$dir/time.txt"
  rm -rf "$dir"
}

echo "load before: $(uptime)"
peaks=()
for sections in "${section_counts[@]}"; do
  # A command substitution, so that a failed run stops the script.
  peak=$(peak_rss_kb "$sections")
  peaks+=("$peak")
done
echo "load after:  $(uptime)"

echo
echo "stack: $channels channels x N sections x $size x $size, 16-bit"
printf "%-10s %14s\n" "sections" "peak RSS kB"
for i in "${!section_counts[@]}"; do
  printf "%-10s %14s\n" "${section_counts[i]}" "${peaks[i]}"
done
difference=$((peaks[1] - peaks[0]))
printf "%-10s %14s\n" "growth" "$difference"
if ((${difference#-} > limit_kb)); then
  echo "FAIL: peak resident memory differs by more than $((limit_kb / 1024)) MB" >&2
  exit 1
fi
echo "OK: within $((limit_kb / 1024)) MB"
