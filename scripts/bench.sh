#!/usr/bin/env bash
# Runs the benchmarks against the Release build in build/ (make bench builds
# it first). Installs the load and profiling tools they need when missing.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(wrk valgrind lighttpd curl python3)
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake --build build --target bench-tools -j"$(nproc 2>/dev/null || echo 2)" >/dev/null

echo "== bench/ssi"
bench/ssi/run.sh build
echo "== bench/datamodel"
bench/datamodel/run.sh build
