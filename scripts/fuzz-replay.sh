#!/usr/bin/env bash
# Builds the fuzz targets and runs every file of their seed corpora once, so
# that a past finding can never come back unnoticed. Each target's corpus is
# fuzz/corpus/<target>/. The replay runs under the fuzz build's sanitizers,
# float-to-integer overflow included, and under libFuzzer's memory limit, so
# a header that makes the library allocate what the file can't hold fails.
set -euo pipefail
cd "$(dirname "$0")/.."

out=${FUZZ_BUILD_DIR:-build-fuzz}
FUZZ_BUILD_DIR=$out ./scripts/fuzz-build.sh
for target in fuzz/*_fuzz.cpp; do
  name=$(basename "$target" .cpp)
  files=(fuzz/corpus/"$name"/*)
  echo "replaying ${#files[@]} inputs on $name"
  "$out/$name" -close_fd_mask=3 -rss_limit_mb=1024 -malloc_limit_mb=512 "${files[@]}"
done
