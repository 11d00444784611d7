#!/usr/bin/env bash
# Builds the Debian package and checks it as a facility would receive it: the
# exact list of files, a dependency on the package of every shared library the
# programs load, a manual page that renders without warnings; then installs it
# with apt-get, runs `corvane -help` and `man corvane` from another folder,
# and runs the installed workflow on tiny stacks (scripts/check-workflow.sh).
# Run as root. A package this script installed is removed again at the end.
#
#   scripts/check-package.sh                   package the build in build/ (the
#                                              test build is reused as it is)
#   scripts/check-package.sh --build-dir DIR   package another build folder
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

build=build
while (($#)); do
  case "$1" in
    --build-dir) build="$2"; shift ;;
    -h|--help) sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "check-package.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done
start=$(date +%s)
fail() { echo "check-package.sh: FAILED: $*" >&2; exit 1; }
step() { printf '== %s (at %d s)\n' "$*" "$(($(date +%s) - start))"; }

step "building the package in $build"
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  cmake -S . -B "$build" -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j2 --target corvane corvane-synth corvane-assess manpage >/dev/null
rm -f "$build"/corvane_*.deb
(cd "$build" && cpack -G DEB >cpack.log 2>&1) || { cat "$build/cpack.log"; fail "cpack"; }
debs=("$build"/corvane_*_amd64.deb)
[[ ${#debs[@]} == 1 && -f ${debs[0]} ]] || fail "expected one corvane_*_amd64.deb in $build"
deb=$(cd "$(dirname "${debs[0]}")" && pwd)/$(basename "${debs[0]}")
echo "$(basename "$deb"), $(stat -c %s "$deb") bytes"

step "contents"
expected="./usr/bin/corvane
./usr/bin/corvane-assess
./usr/bin/corvane-synth
./usr/share/corvane/workflow/Snakefile
./usr/share/corvane/workflow/config.yaml
./usr/share/corvane/workflow/profiles/local/config.yaml
./usr/share/corvane/workflow/profiles/slurm/config.yaml
./usr/share/man/man1/corvane.1.gz"
files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $6 }' | sort)
[[ "$files" == "$expected" ]] || fail "the package holds:"$'\n'"$files"
echo "$files"

# Other package operations on the machine may hold dpkg's lock for a while.
apt_wait=(-o DPkg::Lock::Timeout=600)
unpacked=$(mktemp -d)
workdir=$(mktemp -d)
installed_here=0
cleanup() {
  rm -rf "$unpacked" "$workdir"
  if ((installed_here)); then
    apt-get "${apt_wait[@]}" remove -y corvane >/dev/null || true
  fi
}
trap cleanup EXIT
dpkg-deb -x "$deb" "$unpacked"

step "dependencies"
depends=$(dpkg-deb -f "$deb" Depends)
echo "Depends: $depends"
# The package names of Depends, alternatives included, without versions.
depend_names=" $(sed -e 's/([^)]*)//g' -e 's/[,|]/ /g' <<<"$depends" | xargs) "
# Every library a program loads, once, with the programs that load it.
declare -A users=()
for program in "$unpacked"/usr/bin/*; do
  readelf -S "$program" | grep -q '\.symtab' && fail "$(basename "$program") is not stripped"
  for library in $(readelf -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    users[$library]+="$(basename "$program") "
  done
done
libraries=$(ldconfig -p)
declare -A file_of=()
for library in "${!users[@]}"; do
  path=$(awk -v l="$library" '$1 == l && /x86-64/ { print $NF; exit }' <<<"$libraries")
  [[ -n "$path" ]] || fail "${users[$library]}need $library, which is not on this machine"
  file_of[$library]=$(readlink -f "$path")
done
# One dpkg query for all files (it reads every package's file list). dpkg may
# know a file under /lib rather than /usr/lib (merged /usr): both are asked.
owners=$(for f in "${file_of[@]}"; do echo "$f"; echo "${f#/usr}"; done | sort -u |
  xargs dpkg -S 2>/dev/null || true)
for library in "${!users[@]}"; do
  file=${file_of[$library]}
  owner=$(awk -v a="$file" -v b="${file#/usr}" '{ p = $0; sub(/^[^ ]*: /, "", p) }
    p == a || p == b { sub(/:.*/, ""); print; exit }' <<<"$owners")
  [[ -n "$owner" ]] || fail "no package owns $file"
  [[ "$depend_names" == *" $owner "* ]] ||
    fail "${users[$library]}need $library from $owner, which Depends does not name"
  echo "$library: $owner (${users[$library]% })"
done
[[ "$depend_names" == *" libopenblas0-serial "* ]] || fail "Depends lacks libopenblas0-serial"
echo "every library the programs load comes from a package that Depends names"

step "manual page"
warnings=$(MANWIDTH=80 man --warnings -l "$unpacked/usr/share/man/man1/corvane.1.gz" 2>&1 >/dev/null)
[[ -z "$warnings" ]] || fail "the manual page renders with warnings:"$'\n'"$warnings"

step "installing with apt-get"
if ! dpkg-query -W -f='${Status}' corvane 2>/dev/null | grep -q "install ok installed"; then
  installed_here=1
fi
DEBIAN_FRONTEND=noninteractive apt-get "${apt_wait[@]}" install -y --no-install-recommends "$deb" >"$workdir/apt.log" 2>&1 ||
  { cat "$workdir/apt.log"; fail "apt-get install"; }
cd "$workdir"
[[ $(command -v corvane) == /usr/bin/corvane ]] || fail "corvane is not /usr/bin/corvane"
corvane -help >help.txt || fail "corvane -help exited with $?"
grep -q '^usage (1): corvane calibration' help.txt || fail "corvane -help printed: $(cat help.txt)"
MANPAGER=cat MANWIDTH=80 man corvane >man.txt 2>&1 || fail "man corvane: $(cat man.txt)"
for section in NAME SYNOPSIS DESCRIPTION OPTIONS "PARAMETER FILE" "STATUS FILE" "EXIT STATUS" \
               SIGNALS EXAMPLES; do
  grep -q "^$section\$" man.txt || fail "man corvane has no section $section"
done
echo "corvane -help and man corvane work from $workdir"
cd "$root"

step "the installed workflow"
PATH=/usr/bin:$PATH scripts/check-workflow.sh --workflow /usr/share/corvane/workflow

echo "package checks passed in $(($(date +%s) - start)) s"
