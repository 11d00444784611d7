#!/usr/bin/env bash
# Runs the batch workflow on tiny stacks made by corvane-synth, on this
# machine, and checks what a facility relies on: every good stack is corrected
# exactly as a direct `corvane correction` would, a broken stack is reported
# and does not stop the others, no temporary file is left, the summary shows
# the registration before and after, a second run redoes nothing, and a lost
# output is made again, alone.
#
#   scripts/check-workflow.sh                    programs and workflow from PATH
#                                                and workflow/ of this tree
#   scripts/check-workflow.sh --bin DIR          take the programs from DIR
#   scripts/check-workflow.sh --build-dir DIR    take them from a build folder
#   scripts/check-workflow.sh --workflow DIR     another copy of workflow/
#                                                (such as an installed one)
#   scripts/check-workflow.sh --keep DIR         work in DIR and keep it
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

workflow="$root/workflow"
work=""
keep=0
while (($#)); do
  case "$1" in
    --bin) PATH="$(cd "$2" && pwd):$PATH"; shift ;;
    --build-dir)
      build=$(cd "$2" && pwd)
      PATH="$build/app:$build/tools/synth:$build/tools/assess:$PATH"
      shift ;;
    --workflow) workflow=$(cd "$2" && pwd); shift ;;
    --keep) work="$2"; keep=1; shift ;;
    -h|--help) sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "check-workflow.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done
for program in corvane corvane-synth corvane-assess snakemake; do
  command -v "$program" >/dev/null || { echo "check-workflow.sh: $program not found" >&2; exit 1; }
done

if ((keep)); then
  rm -rf "$work"
  mkdir -p "$work"
else
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
fi
cd "$work"
start=$(date +%s)

fail() { echo "check-workflow.sh: FAILED: $*" >&2; exit 1; }
# Runs the workflow; its output goes to the log named by $1.
run_workflow() {
  local log=$1
  shift
  snakemake -s "$workflow/Snakefile" --profile "$workflow/profiles/local" \
    --configfile run.yaml --cores 2 "$@" >"$log" 2>&1
}
mtimes() { stat -c '%n %Y' out/corrected/*.qf; }

# Tiny stacks: a target, three specimens of different seeds, and a stack cut
# short, which the correction must refuse.
size=(--size 320 --sections 16 --quiet)
corvane-synth --seed 7 "${size[@]}" --what target beads
mkdir stacks
for seed in 1 2 3; do
  corvane-synth --seed "$seed" "${size[@]}" --what specimen "gen$seed"
  mv "gen$seed/specimen.qf" "stacks/cell$seed.qf"
done
head -c 100000 stacks/cell1.qf >stacks/broken.qf
cat >run.yaml <<'EOF'
target: beads/target.qf
stacks: stacks
output: out
EOF

echo "== first run: three good stacks and a broken one"
if run_workflow first.log; then
  cat first.log
  fail "the run ended with status 0 although a stack is broken"
fi
for n in 1 2 3; do
  [[ -f out/corrected/cell$n.qf ]] || { cat first.log; fail "cell$n.qf was not corrected"; }
  corvane correction "stacks/cell$n.qf" out/alignment.txt direct.qf >/dev/null
  cmp -s direct.qf "out/corrected/cell$n.qf" || fail "cell$n.qf differs from a direct correction"
done
rm -f direct.qf
[[ ! -e out/corrected/broken.qf ]] || fail "the broken stack has an output"
grep -q '^broken	' out/failed.tsv || fail "the broken stack is not listed in out/failed.tsv"
grep -q 'not corrected (1)' first.log || fail "the console report of the failed stack is missing"
leftovers=$(find out -name '.*.part')
[[ -z "$leftovers" ]] || fail "temporary files left: $leftovers"

# The summary: channels 1 to 3 and the pooled row, before and after.
[[ $(head -1 out/summary.tsv | cut -f1-4) == $'channel\twavelength_nm\trms_px_before\trms_px_after' ]] ||
  fail "summary.tsv has another header"
[[ $(cut -f1 out/summary.tsv | tail -n +2 | tr '\n' ' ') == "1 2 3 all " ]] ||
  fail "summary.tsv does not hold channels 1 to 3 and all"
read -r before after < <(awk -F'\t' '$1 == "all" { print $3, $4 }' out/summary.tsv)
awk -v b="$before" -v a="$after" 'BEGIN { exit !(a < b / 4) }' ||
  fail "the correction did not reduce the registration error ($before -> $after px)"
echo "corrected 3 of 4 stacks, broken one reported; RMS $before px -> $after px"

echo "== second run, the broken stack removed: nothing is redone"
rm stacks/broken.qf
mtimes >before.txt
run_workflow second.log || { cat second.log; fail "the second run failed"; }
grep -q 'Nothing to be done' second.log || { cat second.log; fail "the second run did work"; }
mtimes | cmp -s - before.txt || fail "a finished stack was written again"

echo "== third run, one output lost: only that stack is corrected again"
cp out/corrected/cell2.qf lost.qf
rm out/corrected/cell2.qf
run_workflow third.log || { cat third.log; fail "the third run failed"; }
jobs=$(grep -c '^rule correction:' third.log || true)
[[ $jobs == 1 ]] || { cat third.log; fail "$jobs corrections ran instead of 1"; }
cmp -s lost.qf out/corrected/cell2.qf || fail "cell2.qf came back different"
mtimes | grep -v cell2 | cmp -s - <(grep -v cell2 before.txt) || fail "another stack was redone"
[[ ! -e out/failed.tsv ]] || fail "out/failed.tsv outlived a successful run"

echo "workflow checks passed in $(($(date +%s) - start)) s"
