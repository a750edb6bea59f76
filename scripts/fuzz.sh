#!/usr/bin/env bash
# Builds the libFuzzer targets (tests/fuzz/) with clang in build-fuzz/ and
# runs them.
#
#   scripts/fuzz.sh --short              each target 10 s on its corpus (make test)
#   scripts/fuzz.sh [--time S] [--runs N] [--jobs J] [TARGET...]
#                                        each target S seconds (default 60) or N
#                                        executions, J targets at a time (make fuzz)
#
# Before fuzzing, each target runs its regression inputs
# (tests/fuzz/regressions/<target>/: inputs of findings that were fixed).
# New corpus entries go to build-fuzz/corpus/<target>, never into the seeds;
# a finding is saved as build-fuzz/findings/<target>/crash-* (or leak-,
# timeout-, oom-) and makes the script fail. One line per target reports the
# executions, executions per second and coverage; build-fuzz/fuzz-summary.tsv
# keeps them, the logs stay in build-fuzz/logs/ (fuzz-short.tsv and
# logs-short/ for --short, so that a test run beside a campaign leaves the
# campaign's record alone).
set -euo pipefail
cd "$(dirname "$0")/.."

build=build-fuzz
seconds=60
runs=""
jobs=1
summary=$build/fuzz-summary.tsv
logs=$build/logs
targets=()
while [ $# -gt 0 ]; do
  case "$1" in
    --short) summary=$build/fuzz-short.tsv logs=$build/logs-short; seconds=10 ;;
    --time) seconds="$2"; shift ;;
    --runs) runs="$2"; shift ;;
    --jobs) jobs="$2"; shift ;;
    -*) echo "scripts/fuzz.sh: unknown option $1" >&2; exit 2 ;;
    *) targets+=("$1") ;;
  esac
  shift
done

all_targets=$(sed -n 's/^set(QUELM_FUZZ_TARGETS \(.*\))$/\1/p' tests/fuzz/CMakeLists.txt)
[ ${#targets[@]} -gt 0 ] || read -r -a targets <<<"$all_targets"

# A build folder configured for another folder (a copied checkout) or with
# another compiler is made afresh.
if [ -f $build/CMakeCache.txt ] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" $build/CMakeCache.txt; then
  rm -rf $build
fi
if [ ! -f $build/CMakeCache.txt ]; then
  CC=clang CXX=clang++ cmake -S . -B $build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUELM_FUZZ=ON \
    -DQUELM_TESTS=OFF >/dev/null
fi
cmake --build $build -j"$(nproc 2>/dev/null || echo 2)" --target "${targets[@]/#/fuzz_}" >/dev/null

# Leaks are findings too; the process's own exit flushes the gateway root.
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:strict_string_checks=1:allocator_may_return_null=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export LSAN_OPTIONS="suppressions=$PWD/tests/fuzz/lsan.supp:print_suppressions=0"

run_target() {
  local name=$1 bin=$build/bin/fuzz_$1
  local seeds=tests/fuzz/corpus/$name corpus=$build/corpus/$name findings=$build/findings/$name
  local log=$logs/$name.log
  mkdir -p "$corpus" "$findings" "$logs"
  local regressions=(tests/fuzz/regressions/$name/*)
  if [ -e "${regressions[0]}" ] && ! "$bin" "${regressions[@]}" >"$log" 2>&1; then
    echo "$name: a regression input fails again (see $log)"
    return 1
  fi
  local limits=(-max_total_time="$seconds")
  [ -z "$runs" ] || limits=(-runs="$runs")
  local dict=()
  [ ! -f tests/fuzz/dict/$name.dict ] || dict=(-dict=tests/fuzz/dict/$name.dict)
  local status=0
  "$bin" "${limits[@]}" "${dict[@]}" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$findings/" "$corpus" "$seeds" >"$log" 2>&1 || status=$?
  local execs rate cov ft
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  cov=$(grep -ao 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  ft=$(grep -ao 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  local result=ok
  [ $status -eq 0 ] || result="FINDING (see $log, $findings/)"
  printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$name" "${execs:-0}" "${rate:-0}" "${cov:-0}" "${ft:-0}" "$result" \
    | tee -a "$summary"
  return $status
}

: >"$summary"
printf 'target\texecs\texecs/s\tcov\tft\tresult\n'
status=0
if [ "$jobs" -le 1 ]; then
  for name in "${targets[@]}"; do run_target "$name" || status=1; done
else
  export -f run_target
  export build seconds runs summary logs
  printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_target {}' || status=1
fi
exit $status
