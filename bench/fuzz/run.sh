#!/usr/bin/env bash
# A fuzzing campaign: every target (or the ones named) for SECONDS each,
# JOBS at a time, under nice; records executions, executions per second
# and coverage per target in bench/fuzz/results.md (with the date, the
# machine's cores and the time given), and keeps the logs in build-fuzz/logs.
#   bench/fuzz/run.sh [SECONDS [JOBS [TARGET...]]]     (defaults: 600, 2)
set -euo pipefail
cd "$(dirname "$0")/../.."

seconds=${1:-600}
jobs=${2:-2}
shift $(($# < 2 ? $# : 2))

status=0
nice -n 19 scripts/fuzz.sh --time "$seconds" --jobs "$jobs" "$@" || status=$?

{
  echo "# Fuzzing campaign"
  echo
  echo "$(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores shared with other work," \
    "$seconds s per target, $jobs at a time (nice 19)."
  echo "cov: edges covered (libFuzzer's \"cov\"), ft: features; result \"ok\" means no finding."
  echo
  echo "| target | execs | execs/s | cov | ft | result |"
  echo "|---|---:|---:|---:|---:|---|"
  sort build-fuzz/fuzz-summary.tsv | awk -F'\t' '{ printf "| %s | %s | %s | %s | %s | %s |\n", $1, $2, $3, $4, $5, $6 }'
} >bench/fuzz/results.md
cat bench/fuzz/results.md
exit $status
