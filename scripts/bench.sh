#!/usr/bin/env bash
# Runs the benchmarks against the Release build in build/ (make bench builds
# it first). Installs the load and profiling tools they need when missing.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/deps.sh wrk valgrind python3

cmake --build build --target bench-tools -j"$(nproc 2>/dev/null || echo 2)" >/dev/null

echo "== bench/ssi"
bench/ssi/run.sh build
echo "== bench/datamodel"
bench/datamodel/run.sh build
echo "== bench/upload"
bench/upload/run.sh build
echo "== bench/nas"
bench/nas/run.sh build
echo "== summary"
bench/summary.sh build | tee build/bench/summary.txt
