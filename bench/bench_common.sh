# Shared start of the benchmark scripts; source it, then call
#   bench_setup NAME NEEDED_MB BUILD_DIR [EXTRA_PROGRAM ...]
# It sets repo, build, synth, corvane and work (a scratch directory removed
# on exit), and stops with status 2 when a program is missing or the scratch
# disk has less than NEEDED_MB free.
bench_setup() {
  local name=$1 need=$2
  repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
  build="${3:-$repo/build}"
  shift 3 || shift $#
  synth="$build/tools/synth/corvane-synth"
  corvane="$build/app/corvane"
  local program
  for program in "$synth" "$corvane" "$@"; do
    if [[ ! -x "$program" ]]; then
      echo "$name: $program not found; build corvane and corvane-synth" >&2
      exit 2
    fi
  done
  work="$(mktemp -d "${TMPDIR:-/tmp}/corvane-${name%.sh}.XXXXXX")"
  trap 'rm -rf "$work"' EXIT
  local free_mb
  free_mb=$(df -Pm "$work" | awk 'NR == 2 { print $4 }')
  if ((free_mb < need)); then
    echo "$name: $free_mb MB free in $work, $need MB needed" >&2
    exit 2
  fi
}
