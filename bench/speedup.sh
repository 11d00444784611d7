#!/usr/bin/env bash
# Wall times of this build against a baseline build, and of this build on one
# thread against all threads, measured in the same run and alternating:
#   correction of a 4-channel 1024 x 1024 x 32 specimen, radial and linear;
#   calibration of a 4-channel 1024 x 1024 x 64 target, radial and linear
#   with high order.
#
#   [CASES=REGEX] bench/speedup.sh BASELINE_BUILD_DIR [BUILD_DIR] [ROUNDS]
#
# Every round runs each case once with the baseline (as it runs by default),
# once with this build on one thread (OMP_NUM_THREADS=1) and once on every
# thread (OMP_NUM_THREADS unset), in an order that rotates from round to
# round. The table shows the median wall time of each over the rounds (3 by
# default) and the ratios of the medians; the load is printed before and
# after, and every output is compared with the baseline's (cmp). CPU seconds
# follow in a second table: on a machine shared with other work, wall time
# shows the cores this run got, CPU time the work it did.
set -euo pipefail

# shellcheck source=bench/bench_common.sh
source "$(dirname "$0")/bench_common.sh"

baseline_build=${1:?usage: speedup.sh BASELINE_BUILD_DIR [BUILD_DIR] [ROUNDS]}
rounds=${3:-3}
baseline="$baseline_build/app/corvane"
# Two specimens of 256 MiB, two targets of 512 MiB, outputs of up to 512 MiB.
bench_setup speedup.sh 3500 "${2:-}" "$baseline" /usr/bin/time

generate() {
  local dir=$1
  shift
  "$synth" --quiet --size 1024 --channels 4 --seed 11 "$@" "$work/$dir" > /dev/null
}

cases=("correction radial" "correction linear" "calibration radial"
  "calibration linear+high")
# CASES, a regular expression, keeps only the cases whose names match it.
if [[ -n "${CASES:-}" ]]; then
  kept=()
  for name in "${cases[@]}"; do [[ $name =~ $CASES ]] && kept+=("$name"); done
  cases=("${kept[@]}")
fi
# Only the stacks that the kept cases read.
wanted() { [[ " ${cases[*]} " == *" $1"* ]]; }
wanted "correction radial" &&
  generate radial --what specimen --sections 32 --max-z-offset 0 --model radial
wanted "correction linear" &&
  generate linear --what specimen --sections 32 --max-z-offset 0 --model linear
wanted "calibration radial" && generate target-radial --what target --sections 64 --model radial
wanted "calibration linear+high" &&
  generate target-high --what target --sections 64 --model linear --high-order

# Arguments of a case; OUT stands for the output path.
case_args() {
  case $1 in
    "correction radial") echo "correction $work/radial/specimen.qf $work/radial/truth.txt OUT" ;;
    "correction linear") echo "correction $work/linear/specimen.qf $work/linear/truth.txt OUT" ;;
    "calibration radial") echo "calibration $work/target-radial/target.qf OUT" ;;
    "calibration linear+high")
      echo "calibration $work/target-high/target.qf OUT -doLinearModelFitting" \
        "-doHighOrderModelFitting"
      ;;
  esac
}

# Runs one variant of a case and appends its wall seconds to one file and its
# CPU seconds (user and system) to another.
run_variant() {
  local name=$1 variant=$2 program=$corvane out="$work/out.$2" wall cpu
  local -a args
  read -r -a args <<< "$(case_args "$name")"
  args=("${args[@]//OUT/$out}")
  [[ $variant == baseline ]] && program=$baseline
  rm -f "$out"
  local threads=()
  [[ $variant == one ]] && threads=(OMP_NUM_THREADS=1)
  env -u OMP_NUM_THREADS "${threads[@]}" /usr/bin/time -f "%e %U %S" -o "$work/time" \
    "$program" "${args[@]}" > /dev/null
  read -r wall user system < "$work/time"
  cpu=$(echo "$user + $system" | bc)
  echo "$wall" >> "$work/times.${name// /_}.$variant"
  echo "$cpu" >> "$work/cpu.${name// /_}.$variant"
  echo "  $name, $variant: wall $wall s, cpu $cpu s"
}

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

variants=(baseline one all)
echo "load before: $(uptime)"
for ((r = 0; r < rounds; ++r)); do
  for name in "${cases[@]}"; do
    for ((k = 0; k < 3; ++k)); do
      run_variant "$name" "${variants[(k + r) % 3]}"
    done
    for variant in one all; do
      if ! cmp -s "$work/out.baseline" "$work/out.$variant"; then
        echo "speedup.sh: $name: output of '$variant' differs from the baseline's" >&2
        exit 1
      fi
    done
  done
done
echo "load after:  $(uptime)"
echo
echo "wall seconds, median of $rounds rounds; all = every thread ($(nproc) cores)," \
  "one = OMP_NUM_THREADS=1; outputs identical to the baseline's"
# One table of medians: $1 the file prefix, $2 and $3 the two ratio columns.
table() {
  printf "%-24s %9s %9s %9s %9s %9s\n" case baseline one all "$2" "$3"
  for name in "${cases[@]}"; do
    f="$work/$1.${name// /_}"
    awk -v n="$name" -v b="$(median < "$f.baseline")" -v o="$(median < "$f.one")" \
      -v a="$(median < "$f.all")" -v r1="$2" -v r2="$3" \
      'function ratio(r) { return r == "all/one" ? a / o : r == "one/base" ? o / b : a / b }
       BEGIN { printf "%-24s %9.2f %9.2f %9.2f %9.3f %9.3f\n", n, b, o, a, ratio(r1), ratio(r2) }'
  done
}
table times all/one all/base
echo
echo "CPU seconds (user + system), median of $rounds rounds"
table cpu one/base all/base
