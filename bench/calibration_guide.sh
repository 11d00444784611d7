#!/usr/bin/env bash
# The measured guide to calibration quality: registration error of a
# calibration against the known truth, on targets from corvane-synth, as a
# function of bead density, peak brightness over the background, spot width
# and -gridThreshold, for the radial and the linear model. Each axis is varied
# on its own around the generator's defaults; every cell is one target, one
# calibration and one comparison of the recovered mapping with the true one
# over the whole field ("rms / largest", pixels, the worst channel). The
# column "advised" calibrates with the -gridThreshold that
# `corvane-assess --advise` recommends for that target.
#
#   bench/calibration_guide.sh [--quick] [BUILD_DIR]   markdown tables on stdout
#
# The default run (512 x 512 x 16 targets, 110 calibrations) took 11 minutes
# on two cores shared with other work; --quick (320 x 320 x 12, a few cells)
# about a minute. Run it under `nice` on a shared machine.
set -euo pipefail
source "$(dirname "$0")/bench_common.sh"

quick=0
if [[ "${1:-}" == "--quick" ]]; then
  quick=1
  shift
fi
bench_setup calibration_guide.sh 400 "${1:-}"
assess="$build/tools/assess/corvane-assess"
[[ -x "$assess" ]] || { echo "calibration_guide.sh: $assess not found" >&2; exit 2; }

if ((quick)); then
  size=(--size 320 --sections 12)
  thresholds=(0.995 0.98)
  pitches=(85 60)
  photons=(40000 5000)
  sigmas=(1.6 2.4)
  models=(radial)
else
  size=(--size 512 --sections 16)
  thresholds=(0.995 0.99 0.98 0.95)
  pitches=(120 85 60 45)
  photons=(160000 40000 10000 2500)
  sigmas=(1.0 1.6 2.4)
  models=(radial linear)
fi
seed=1

# "rms / largest" of the worst channel of a recovered parameter file, or
# "failed" when calibration wrote none.
mapping_error() {
  local params=$1 truth=$2
  [[ -s "$params" ]] || { echo failed; return; }
  "$assess" --params "$params" --truth "$truth" |
    awk '/^Recovered model/ { exit }
         $1 ~ /^[0-9]+$/ { if ($3 > rms) rms = $3; if ($4 > big) big = $4 }
         END { printf "%.3f / %.3f", rms, big }'
}

# One cell: calibrate target $1 with threshold $2 and model $3.
calibrate() {
  local dir=$1 threshold=$2 model=$3 flags=()
  [[ "$model" == linear ]] && flags=(-doLinearModelFitting)
  local params="$dir/p-$threshold.txt"
  "$corvane" calibration "$dir/target.qf" "$params" "${flags[@]}" -gridThreshold "$threshold" \
    >"$dir/calibration-$threshold.log" 2>&1 || true
  mapping_error "$params" "$dir/truth.json"
}

# One table row: a target made with the given synth options, calibrated at
# every threshold and at the advised one.
row() {
  local label=$1 model=$2
  shift 2
  local dir="$work/target"
  rm -rf "$dir"
  "$synth" --quiet --seed "$seed" "${size[@]}" --model "$model" --what target "$@" "$dir"
  local line="| $label |" threshold advised
  for threshold in "${thresholds[@]}"; do line+=" $(calibrate "$dir" "$threshold" "$model") |"; done
  advised=$("$assess" --advise "$dir/target.qf" | sed -n 's/.*-gridThreshold \([0-9.]*\).*/\1/p' | tail -1)
  line+=" $advised: $(calibrate "$dir" "$advised" "$model") |"
  echo "$line"
}

header() {
  local axis=$1 threshold
  local line="| $axis |" rule="|---|"
  for threshold in "${thresholds[@]}"; do
    line+=" $threshold |"
    rule+="---|"
  done
  printf '%s advised |\n%s---|\n' "$line" "$rule"
}

echo "Targets: corvane-synth ${size[*]} --seed $seed, one axis varied at a time;"
echo "cells: mapping error rms / largest in pixels, worst channel, per -gridThreshold."
for model in "${models[@]}"; do
  echo
  echo "### Bead density, $model model (pitch in pixels; default brightness and width)"
  echo
  header "pitch"
  for pitch in "${pitches[@]}"; do row "$pitch" "$model" --pitch "$pitch"; done
  echo
  echo "### Peak brightness, $model model (photons per spot; pitch 85, sigma 1.6)"
  echo
  header "photons (peak over background at 528 nm)"
  for n in "${photons[@]}"; do
    peak=$(awk -v n="$n" 'BEGIN { printf "%.0f", n / (2 * 3.14159265 * 1.6 * 1.6) / 100 }')
    row "$n (${peak}x)" "$model" --pitch 85 --photons "$n"
  done
  echo
  echo "### Spot width, $model model (in-focus sigma at 528 nm in pixels; pitch 85)"
  echo
  header "sigma"
  for sigma in "${sigmas[@]}"; do row "$sigma" "$model" --pitch 85 --psf-sigma "$sigma"; done
done
