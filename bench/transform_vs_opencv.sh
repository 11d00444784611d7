#!/usr/bin/env bash
# Per-section transform against an established cubic warp, on one thread and
# on the same float section, in the same run: corvane's resample (sampling the
# floats as they are) and narrow of a 1024 x 1024 float section (bench_transform,
# BM_FloatSectionTransform, radial and linear model) against OpenCV's
# warpAffine with cubic interpolation on that section (Debian's
# python3-opencv, one OpenCV thread). The two alternate for several rounds;
# the table shows the median CPU time per section of each side over all
# rounds and their ratio. With a BASELINE_BUILD_DIR, the baseline's
# BM_ImageTransform (resample only) joins the rounds against this build's.
#
#   bench/transform_vs_opencv.sh [BUILD_DIR [BASELINE_BUILD_DIR]]
#
# Without python3-opencv the OpenCV side is skipped with a note, and the
# script still compares the builds. CPU time, not wall time, is compared, so
# that other work on the machine disturbs the figures less; the load is
# printed all the same.
set -euo pipefail

repo="$(cd "$(dirname "$0")/.." && pwd)"
build="${1:-$repo/build}"
baseline="${2:-}"
readonly rounds=${ROUNDS:-7}
readonly repetitions=5
bench="$build/bench/bench_transform"
if [[ ! -x "$bench" ]]; then
  echo "transform_vs_opencv.sh: $bench not found; build bench_transform" >&2
  exit 2
fi
work="$(mktemp -d "${TMPDIR:-/tmp}/corvane-transform.XXXXXX")"
trap 'rm -rf "$work"' EXIT
export OMP_NUM_THREADS=1

# Debian's python3-opencv serves the system's interpreter, which need not be
# the first python3 on the PATH.
python=/usr/bin/python3
[[ -x "$python" ]] || python=python3
have_opencv=1
if ! "$python" -c 'import cv2, numpy' 2> /dev/null; then
  have_opencv=0
  echo "note: python3-opencv is not installed (apt-get install -y python3-opencv);" \
    "the OpenCV comparison is skipped"
fi

# The section: pseudo-random 16-bit levels as floats, written once for both.
section="$work/section.f32"
"$python" - "$section" << 'PY'
import random, struct, sys
rng = random.Random(2026)
values = [float(rng.randrange(65536)) for _ in range(1024 * 1024)]
with open(sys.argv[1], "wb") as f:
    f.write(struct.pack("=%df" % len(values), *values))
PY
export CORVANE_BENCH_SECTION="$section"

# Median CPU milliseconds of one benchmark, over $repetitions repetitions.
corvane_ms() {
  local program=$1 filter=$2
  "$program" --benchmark_filter="^$filter\$" --benchmark_repetitions="$repetitions" \
    --benchmark_report_aggregates_only=true --benchmark_format=csv 2> /dev/null |
    awk -F, '/_median"?,/ { printf "%.3f\n", $4 }'
}

# Median CPU milliseconds of warpAffine, cubic, one thread, with the affine
# matrix of the linear benchmark model or the radial model's small turn.
opencv_ms() {
  "$python" - "$section" "$1" "$repetitions" << 'PY'
import statistics, sys, time
import cv2, numpy as np
cv2.setNumThreads(1)
section = np.fromfile(sys.argv[1], dtype=np.float32).reshape(1024, 1024)
if sys.argv[2] == "linear":
    # bench/transform.cpp, parametersFor(1, 0): pull model about the centre.
    c, sx, sy, kx, ky, tx, ty = 512.0, 1.0011, 0.9993, 0.0014, -0.0012, 1.37, -0.82
else:
    # parametersFor(0, 0): scale 1.0012, turn 0.0015 rad, shift (1.37, -0.82).
    import math
    s, a, tx, ty = 1.0012, 0.0015, 1.37, -0.82
    sx, kx, ky, sy, c = s * math.cos(a), -s * math.sin(a), s * math.sin(a), s * math.cos(a), 512.0
m = np.array([[sx, kx, c - sx * c - kx * c + tx], [ky, sy, c - ky * c - sy * c + ty]])
flags = cv2.INTER_CUBIC | cv2.WARP_INVERSE_MAP
cv2.warpAffine(section, m, (1024, 1024), flags=flags)
times = []
for _ in range(int(sys.argv[3])):
    start = time.process_time()
    cv2.warpAffine(section, m, (1024, 1024), flags=flags)
    times.append((time.process_time() - start) * 1000.0)
print("%.3f" % statistics.median(times))
PY
}

median() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

echo "load before: $(uptime)"
for ((r = 0; r < rounds; ++r)); do
  for model in 0 1; do
    corvane_ms "$bench" "BM_FloatSectionTransform/linear:$model" >> "$work/corvane.$model"
    if ((have_opencv)); then
      opencv_ms "$([[ $model == 1 ]] && echo linear || echo radial)" >> "$work/opencv.$model"
    fi
    if [[ -n "$baseline" ]]; then
      corvane_ms "$build/bench/bench_transform" "BM_ImageTransform/linear:$model/highOrder:0" \
        >> "$work/new.$model"
      corvane_ms "$baseline/bench/bench_transform" "BM_ImageTransform/linear:$model/highOrder:0" \
        >> "$work/old.$model"
    fi
  done
done
echo "load after:  $(uptime)"
echo
echo "1024 x 1024 float section, one thread, CPU ms per section: median of $rounds rounds" \
  "(each the median of $repetitions)"
printf "%-8s %12s %12s %8s\n" model corvane opencv ratio
for model in 0 1; do
  name=$([[ $model == 1 ]] && echo linear || echo radial)
  ours=$(median < "$work/corvane.$model")
  if ((have_opencv)); then
    theirs=$(median < "$work/opencv.$model")
    awk -v n="$name" -v a="$ours" -v b="$theirs" 'BEGIN { printf "%-8s %12.2f %12.2f %8.2f\n", n, a, b, a / b }'
  else
    printf "%-8s %12.2f %12s %8s\n" "$name" "$ours" "-" "-"
  fi
done
if [[ -n "$baseline" ]]; then
  echo
  echo "resample only (BM_ImageTransform), this build against the baseline, CPU ms"
  printf "%-8s %12s %12s %8s\n" model this baseline ratio
  for model in 0 1; do
    name=$([[ $model == 1 ]] && echo linear || echo radial)
    awk -v n="$name" -v a="$(median < "$work/new.$model")" -v b="$(median < "$work/old.$model")" \
      'BEGIN { printf "%-8s %12.2f %12.2f %8.2f\n", n, a, b, a / b }'
  done
fi
