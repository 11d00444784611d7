#!/usr/bin/env bash
# The demo: builds Corvane and its tools, makes a synthetic calibration target
# and specimen whose channels are misregistered by a known amount, asks
# corvane-assess for advice, calibrates on the target as advised, corrects both
# stacks, and measures the registration before and after with an assessment
# that shares no code with the calibration.
#
#   scripts/demo.sh                  moderate stacks (a minute or two)
#   scripts/demo.sh --small          tiny stacks, for CI
#   scripts/demo.sh --build-dir DIR  build in DIR (default build/; an existing
#                                    configuration there is reused)
#   scripts/demo.sh --no-build       use the programs already built in the build dir
#   scripts/demo.sh --out DIR        working directory (default <build dir>/demo)
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
out=""
small=0
do_build=1
while (($#)); do
  case "$1" in
    --small) small=1 ;;
    --build-dir) build="$2"; shift ;;
    --no-build) do_build=0 ;;
    --out) out="$2"; shift ;;
    -h|--help) sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "demo.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done
out="${out:-$build/demo}"

if ((small)); then
  synth_size=(--size 320 --sections 16)
else
  synth_size=(--size 512 --sections 48)
fi
seed=7

corvane="$build/app/corvane"
synth="$build/tools/synth/corvane-synth"
assess="$build/tools/assess/corvane-assess"

step() { printf '\n== %s\n' "$*"; }
elapsed() { echo "$(( $(date +%s) - $1 )) s"; }
# The value of key=... in a summary line of corvane-assess.
field() { sed -n "s/.*\b$1=\([^ ]*\).*/\1/p" <<<"$2"; }

if ((do_build)); then
  step "Building in $build"
  t=$(date +%s)
  mkdir -p "$build"
  log="$build/demo-build.log"
  echo "(about a minute on a fresh machine; compiler output in $log)"
  {
    if [[ ! -f "$build/CMakeCache.txt" ]]; then
      cmake -S . -B "$build" -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_BENCH=OFF
    fi
    cmake --build "$build" -j"$(nproc)" --target corvane corvane-synth corvane-assess
  } >"$log" 2>&1 || { cat "$log"; echo "demo.sh: the build failed" >&2; exit 1; }
  echo "built corvane, corvane-synth, corvane-assess ($(elapsed "$t"))"
fi
for program in "$corvane" "$synth" "$assess"; do
  [[ -x "$program" ]] || { echo "demo.sh: $program is missing; build first" >&2; exit 1; }
done

rm -rf "$out"
mkdir -p "$out"

step "Generating a calibration target and a specimen (seed $seed)"
t=$(date +%s)
"$synth" --seed "$seed" "${synth_size[@]}" "$out"
echo "($(elapsed "$t"))"

step "Advice before calibrating"
"$assess" --advise "$out/target.qf" | tee "$out/advice.txt"
# The options of the advised command line, after the target and output paths.
advised=($(sed -n 's/^corvane calibration [^ ]* [^ ]* *//p' "$out/advice.txt"))

step "Calibrating on the target with the advised options: ${advised[*]:-(none)}"
t=$(date +%s)
params="$out/recovered.txt"
calibrated=0
if "$corvane" calibration "$out/target.qf" "$params" "${advised[@]}" >"$out/calibration.log" 2>&1 &&
   [[ -s "$params" ]]; then
  calibrated=1
  echo "corvane calibration wrote $params ($(elapsed "$t")); log in $out/calibration.log"
else
  echo "NOTE: corvane calibration did not produce a parameter file (see $out/calibration.log)."
  echo "NOTE: correcting with the TRUE parameter file instead, so the figures below show the"
  echo "NOTE: correction of the known misregistration, not a measured one."
  params="$out/truth.txt"
fi

step "Correcting the target and the specimen"
t=$(date +%s)
"$corvane" correction "$out/target.qf" "$params" "$out/target-corrected.qf" >"$out/correction-target.log"
"$corvane" correction "$out/specimen.qf" "$params" "$out/specimen-corrected.qf" >"$out/correction-specimen.log"
echo "wrote target-corrected.qf and specimen-corrected.qf ($(elapsed "$t"))"

step "Registration before correction, against the ground truth"
"$assess" "$out/target.qf" --truth "$out/truth.json"
step "Registration after correction"
"$assess" "$out/target-corrected.qf"
if ((calibrated)); then
  step "Recovered model against the true one"
  "$assess" --params "$params" --truth "$out/truth.json"
fi

before=$("$assess" "$out/target.qf" --summary)
after=$("$assess" "$out/target-corrected.qf" --summary)
step "Summary"
printf 'registration error before: %s px RMS (%s nm), 95th percentile %s px\n' \
  "$(field rms_px "$before")" "$(field rms_nm "$before")" "$(field p95_px "$before")"
printf 'registration error after:  %s px RMS (%s nm), 95th percentile %s px\n' \
  "$(field rms_px "$after")" "$(field rms_nm "$after")" "$(field p95_px "$after")"
if ((calibrated)); then
  mapping=$("$assess" --params "$params" --truth "$out/truth.json" --summary)
  printf 'recovered mapping against the truth: %s px RMS over the field\n' \
    "$(field mapping_rms_px "$mapping")"
  echo "parameters: measured by corvane calibration with ${advised[*]:-its defaults} ($params)"
else
  echo "parameters: the TRUE parameter file (calibration produced none)"
fi
echo "stacks and logs: $out"
