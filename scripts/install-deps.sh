#!/usr/bin/env bash
# Installs the distribution packages Corvane builds, tests and benchmarks with,
# and those that build and check its Debian package and batch workflow.
# Run as root on a fresh Debian machine; harmless when everything is present.
set -euo pipefail
packages=(
  cmake g++ make
  libopenblas-serial-dev liblapacke-dev
  libgtest-dev libgmock-dev libbenchmark-dev libpng-dev chromium
  nlohmann-json3-dev
  clang-14 libclang-rt-14-dev
  time
  dpkg-dev man-db snakemake
)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update
  apt-get install -y --no-install-recommends "${missing[@]}"
fi
