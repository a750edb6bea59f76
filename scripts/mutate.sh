#!/usr/bin/env bash
# Do the tests guard the safety lines? Applies each mutation of
# scripts/mutations.txt in turn (one check of a SECURITY.md row broken),
# rebuilds build-mutate/ (Release, incremental), runs the fastest tests that
# should catch it, and puts the source back. A mutation whose tests stay
# green is a survivor: a test is missing.
#
#   scripts/mutate.sh [TEXT]     only the mutations whose "line:" holds TEXT
#
# Prints one row per mutation (caught / SURVIVED / stale when its text is
# no longer in the source / build failed) and exits 1 when one survived or
# went stale. The source is restored on every exit.
set -uo pipefail
cd "$(dirname "$0")/.."

build=build-mutate
list=scripts/mutations.txt
only=${1:-}
saved=$build/original
mkdir -p "$saved"

restore() {
  if [ -n "${current:-}" ] && [ -f "$saved/current" ]; then
    cp "$saved/current" "$current"
    rm -f "$saved/current"
  fi
  current=""
}
trap restore EXIT INT TERM

if [ ! -f $build/CMakeCache.txt ]; then
  cmake -S . -B $build -DCMAKE_BUILD_TYPE=Release >/dev/null
fi
cmake --build $build -j"$(nproc 2>/dev/null || echo 2)" >/dev/null || { echo "build-mutate does not build"; exit 2; }

# Replaces the one occurrence of old by new in file; 3 when old is not
# there exactly once.
apply() {
  python3 - "$@" <<'PY'
import sys
path, old, new = sys.argv[1:4]
text = open(path, encoding="utf-8").read()
if text.count(old) != 1:
    sys.exit(3)
open(path, "w", encoding="utf-8").write(text.replace(old, new))
PY
}

run_tests() { # unit FILTER | py NODE...
  local kind=$1
  shift
  if [ "$kind" = unit ]; then
    timeout 300 "$build/bin/unit_tests" --gtest_brief=1 --gtest_filter="$1" >"$build/mutant.log" 2>&1
  else
    CGISSI_BUILD="$PWD/$build" timeout 600 python3 -m pytest -x -q -p no:cacheprovider "$@" >"$build/mutant.log" 2>&1
  fi
}

status=0
current=""
mutate_one() {
  [ -n "$line" ] || return 0
  [ -z "$only" ] || [[ "$line" == *"$only"* ]] || return 0
  local result
  cp "$file" "$saved/current"
  current=$file
  apply "$file" "$old" "$new"
  case $? in
    0)
      if ! cmake --build $build -j"$(nproc 2>/dev/null || echo 2)" >"$build/mutant-build.log" 2>&1; then
        result="build failed"
      elif run_tests $test; then
        result="SURVIVED"
      else
        result="caught"
      fi ;;
    *) result="stale" ;;
  esac
  restore
  [ "$result" = caught ] || status=1
  printf '%-45s %-10s %s\n' "$line" "$result" "$test"
}

printf '%-45s %-10s %s\n' "SECURITY.md line" "result" "tests"
line="" file="" old="" new="" test=""
while IFS= read -r text || [ -n "$text" ]; do
  case "$text" in
    "#"*) ;;
    "") mutate_one; line="" file="" old="" new="" test="" ;;
    "line: "*) line=${text#line: } ;;
    "file: "*) file=${text#file: } ;;
    "old: "*) old=${text#old: } ;;
    "new:"*) new=${text#new:}; new=${new# } ;;
    "test: "*) test=${text#test: } ;;
    *) old+=$'\n'$text ;;
  esac
done <"$list"
mutate_one
# The restored sources rebuild, so that build-mutate is the tree again.
cmake --build $build -j"$(nproc 2>/dev/null || echo 2)" >/dev/null
exit $status
