#!/usr/bin/env bash
# Proves the workflow's SLURM profile on a real, single-node SLURM: starts
# munged, slurmctld and slurmd on this machine (controller and one node on
# localhost, with their own configuration, key, ports and state in a scratch
# folder), makes a few small stacks with corvane-synth, runs the workflow once
# through SLURM and once locally, and compares every output byte for byte.
# Only the daemons this script started are stopped at the end, by their ids.
# Run as root; installs Debian's slurm-wlm and munge when they are missing.
#
#   scripts/slurm-check.sh                     programs from build/
#   scripts/slurm-check.sh --build-dir DIR     programs from another build folder
#   scripts/slurm-check.sh --stacks N          number of stacks to correct (4)
#   scripts/slurm-check.sh --size PX           width and height of the stacks (512)
#   scripts/slurm-check.sh --keep DIR          work in DIR and keep it (logs of
#                                              the daemons and of both runs)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

build="$root/build"
stacks=4
size=512
work=""
while (($#)); do
  case "$1" in
    --build-dir) build=$(cd "$2" && pwd); shift ;;
    --stacks) stacks="$2"; shift ;;
    --size) size="$2"; shift ;;
    --keep) work="$2"; shift ;;
    -h|--help) sed -n '2,16p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "slurm-check.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done
fail() { echo "slurm-check.sh: FAILED: $*" >&2; exit 1; }
step() { printf '\n== %s\n' "$*"; }

# Ports of this test cluster, away from SLURM's defaults (6817, 6818) so that
# a SLURM already on the machine is left alone.
ctld_port=16817
slurmd_port=16818
node=$(hostname -s)

packages=(slurm-wlm munge snakemake)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  step "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update >/dev/null
  apt-get -o DPkg::Lock::Timeout=600 install -y --no-install-recommends "${missing[@]}" >/dev/null
fi
for program in corvane corvane-synth corvane-assess; do
  found=$(find "$build" -maxdepth 3 -type f -name "$program" -perm -u+x | head -1)
  [[ -n "$found" ]] || fail "$program is not built in $build"
  PATH="$(dirname "$found"):$PATH"
done
for port in $ctld_port $slurmd_port; do
  ! ss -ltn | grep -q ":$port " || fail "port $port is taken"
done

if [[ -z "$work" ]]; then
  work=$(mktemp -d)
  keep=0
else
  rm -rf "$work"
  mkdir -p "$work"
  work=$(cd "$work" && pwd)
  keep=1
fi
chmod 700 "$work"
cluster="$work/cluster"
mkdir -p "$cluster/state" "$cluster/spool"
started=()
stop_daemons() {
  local pid
  if [[ -f "$cluster/slurm.conf" ]] && ((${#started[@]})); then
    SLURM_CONF="$cluster/slurm.conf" scancel --full --quiet --user="$(id -un)" 2>/dev/null || true
  fi
  # In reverse order of start: node, controller, then munged.
  for ((i = ${#started[@]} - 1; i >= 0; i--)); do
    pid=${started[i]}
    kill "$pid" 2>/dev/null || continue
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.2; done
  done
  ((keep)) || rm -rf "$work"
}
trap stop_daemons EXIT
# The id in a daemon's pid file, once it has written it.
pid_from() {
  for _ in $(seq 100); do
    [[ -s "$1" ]] && { cat "$1"; return; }
    sleep 0.1
  done
  fail "no pid file $1"
}

step "starting munged, slurmctld and slurmd on $node (state in $cluster)"
mungekey --create --keyfile="$cluster/munge.key" --force
chmod 600 "$cluster/munge.key"
munged --force --key-file="$cluster/munge.key" --socket="$cluster/munge.socket" \
  --pid-file="$cluster/munged.pid" --log-file="$cluster/munged.log" \
  --seed-file="$cluster/munged.seed"
started+=("$(pid_from "$cluster/munged.pid")")

cat >"$cluster/slurm.conf" <<EOF
ClusterName=corvanecheck
SlurmctldHost=$node(127.0.0.1)
SlurmctldPort=$ctld_port
SlurmdPort=$slurmd_port
SlurmUser=root
AuthType=auth/munge
AuthInfo=socket=$cluster/munge.socket
StateSaveLocation=$cluster/state
SlurmdSpoolDir=$cluster/spool
SlurmctldPidFile=$cluster/slurmctld.pid
SlurmdPidFile=$cluster/slurmd.pid
SlurmctldLogFile=$cluster/slurmctld.log
SlurmdLogFile=$cluster/slurmd.log
# A container has no cgroup hierarchy of its own to give SLURM.
ProctrackType=proctrack/linuxproc
TaskPlugin=task/none
JobAcctGatherType=jobacct_gather/none
AccountingStorageType=accounting_storage/none
MpiDefault=none
SelectType=select/cons_tres
SelectTypeParameters=CR_Core_Memory
ReturnToService=2
MailProg=/bin/true
NodeName=$node NodeAddr=127.0.0.1 CPUs=$(nproc) RealMemory=8000 State=UNKNOWN
PartitionName=batch Nodes=ALL Default=YES MaxTime=INFINITE State=UP
EOF
export SLURM_CONF="$cluster/slurm.conf"
slurmctld -f "$SLURM_CONF"
started+=("$(pid_from "$cluster/slurmctld.pid")")
slurmd -f "$SLURM_CONF"
started+=("$(pid_from "$cluster/slurmd.pid")")
for _ in $(seq 60); do
  state=$(sinfo -h -o %T 2>/dev/null || true)
  [[ "$state" == idle ]] && break
  sleep 0.5
done
[[ "$state" == idle ]] || { tail "$cluster"/slurm*.log; fail "the node is '$state', not idle"; }
sinfo

step "making a target and $stacks stacks of $size x $size pixels"
cd "$work"
synth=(--size "$size" --sections 24 --quiet)
corvane-synth --seed 7 "${synth[@]}" --what target beads
mkdir stacks
for ((i = 1; i <= stacks; i++)); do
  corvane-synth --seed "$((100 + i))" "${synth[@]}" --what specimen "gen$i"
  mv "gen$i/specimen.qf" "stacks/cell$i.qf"
  rm -rf "gen$i"
done
du -sh beads/target.qf stacks

# The same settings for both runs but the output folder.
for mode in slurm local; do
  mkdir "run-$mode"
  cat >"run-$mode/run.yaml" <<EOF
target: $work/beads/target.qf
stacks: $work/stacks
output: out
EOF
done

step "the workflow through SLURM"
t=$(date +%s)
# USER is read by Snakemake's SLURM support to look for a default account.
# One status poll a second suits a private cluster; Snakemake turns any
# value above 1 into its default of one poll every 33 s.
(cd run-slurm && USER=${USER:-$(id -un)} snakemake -s "$root/workflow/Snakefile" \
  --profile "$root/workflow/profiles/slurm" --configfile run.yaml \
  --max-status-checks-per-sec 1 >snakemake.log 2>&1) ||
  { tail -40 run-slurm/snakemake.log; fail "the SLURM run failed"; }
slurm_time=$(($(date +%s) - t))
submitted=$(grep -c 'has been submitted with SLURM jobid' run-slurm/snakemake.log || true)
echo "$submitted SLURM jobs, $slurm_time s"
[[ $submitted == $((stacks + 4)) ]] || fail "expected $((stacks + 4)) SLURM jobs, saw $submitted"

step "the same workflow locally"
t=$(date +%s)
(cd run-local && snakemake -s "$root/workflow/Snakefile" --profile "$root/workflow/profiles/local" \
  --configfile run.yaml --cores "$(nproc)" >snakemake.log 2>&1) ||
  { tail -40 run-local/snakemake.log; fail "the local run failed"; }
local_time=$(($(date +%s) - t))
echo "$local_time s"

step "comparing the outputs"
outputs=$(cd run-local/out && find . -type f ! -path './logs/*' | sort)
[[ "$outputs" == "$(cd run-slurm/out && find . -type f ! -path './logs/*' | sort)" ]] ||
  fail "the two runs wrote different sets of files"
different=0
while read -r f; do
  if cmp -s "run-local/out/$f" "run-slurm/out/$f"; then
    echo "identical  $f"
  else
    echo "DIFFERENT  $f"
    different=1
  fi
done <<<"$outputs"
((different == 0)) || fail "the SLURM run's outputs differ from the local run's"
column -t -s $'\t' run-slurm/out/summary.tsv
echo "SLURM and local runs identical: $stacks stacks, SLURM $slurm_time s, local $local_time s"
