#!/usr/bin/env bash
# Runs the unit tests and the integration tests against each build given.
set -euo pipefail
cd "$(dirname "$0")/.."

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:exitcode=86:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

status=0
for build in "$@"; do
  echo "== unit tests ($build)"
  "$build/bin/unit_tests" --gtest_brief=1 || status=1
  echo "== integration tests ($build)"
  CGISSI_BUILD="$PWD/$build" /usr/bin/python3 -m pytest -q -p no:cacheprovider tests/integration || status=1
done
exit $status
