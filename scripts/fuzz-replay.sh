#!/usr/bin/env bash
# Builds the fuzz targets and runs every file of their seed corpus once, so
# that a past finding can never come back unnoticed.
set -euo pipefail
cd "$(dirname "$0")/.."

out=${FUZZ_BUILD_DIR:-build-fuzz}
FUZZ_BUILD_DIR=$out ./scripts/fuzz-build.sh
for target in fuzz/*_fuzz.cpp; do
  name=$(basename "$target" .cpp)
  corpus=fuzz/corpus
  [[ -d fuzz/corpus/$name ]] && corpus=fuzz/corpus/$name
  files=("$corpus"/*)
  echo "replaying ${#files[@]} inputs on $name"
  "$out/$name" -close_fd_mask=3 "${files[@]}"
done
