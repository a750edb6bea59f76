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
# Where a library leaks per input (iksemel's iks_load keeps the partial
# tree of a document that breaks off mid-element: the registry target),
# libFuzzer's leak search after every input that leaked (a scan of the whole
# heap) is most of the time, and the heap reaches the 2 GB limit after about
# 1.2 million inputs. Such a target is searched for leaks once, at the exit
# of its process (LeakSanitizer, with tests/fuzz/lsan.supp: another leak
# fails the run), and runs --runs in chunks of this many executions per
# process.
chunk_runs() {
  case "$1" in
    registry) echo 500000 ;;
    *) echo 0 ;;
  esac
}
leak_search() {
  case "$1" in
    registry) echo -detect_leaks=0 ;;
    *) echo -detect_leaks=1 ;;
  esac
}
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
  local dict=()
  [ ! -f tests/fuzz/dict/$name.dict ] || dict=(-dict=tests/fuzz/dict/$name.dict)
  # A target whose library leaks per input runs --runs in chunks of a new
  # process each, on the same corpus; the executions are summed.
  local chunk left=${runs:-0} status=0 started=$SECONDS
  chunk=$(chunk_runs "$name")
  : >"$log"
  while :; do
    local limits=(-max_total_time="$seconds")
    if [ -n "$runs" ]; then
      limits=(-runs="$left")
      [ "$chunk" -eq 0 ] || [ "$left" -le "$chunk" ] || limits=(-runs="$chunk")
    fi
    "$bin" "${limits[@]}" "${dict[@]}" "$(leak_search "$name")" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$findings/" "$corpus" "$seeds" >>"$log" 2>&1 || status=$?
    [ $status -eq 0 ] && [ -n "$runs" ] && [ "$chunk" -gt 0 ] || break
    left=$((left - ${limits[0]#-runs=}))
    [ "$left" -gt 0 ] || break
  done
  local execs rate cov ft elapsed=$((SECONDS - started))
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | awk '{ n += $1 } END { print n + 0 }')
  rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  # Chunks: the rate of their sum, start-up included.
  [ "$(grep -ac '^stat::number_of_executed_units' "$log")" -le 1 ] || rate=$((execs / (elapsed > 0 ? elapsed : 1)))
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
  export -f run_target chunk_runs leak_search
  export build seconds runs summary logs
  printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_target {}' || status=1
fi
exit $status
