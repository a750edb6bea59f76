#!/usr/bin/env bash
# Runs the unit tests and the integration tests against each build given.
set -euo pipefail
cd "$(dirname "$0")/.."

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0:exitcode=86:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

# The integration tests need a python3 with pytest. PYTHON names one;
# otherwise the first python3 on PATH that can import pytest is taken, so
# that a python3 placed earlier on PATH without pytest (pyenv, a virtual
# environment) does not hide the distribution's, which deps.sh installs
# pytest for.
find_python() {
  local candidate
  for candidate in ${PYTHON:-} $(type -ap python3); do
    if "$candidate" -c 'import pytest' >/dev/null 2>&1; then
      echo "$candidate"
      return 0
    fi
  done
  echo "scripts/test.sh: no python3 on PATH has pytest (scripts/deps.sh installs python3-pytest)" >&2
  return 1
}
python=$(find_python)

status=0
for build in "$@"; do
  echo "== unit tests ($build)"
  "$build/bin/unit_tests" --gtest_brief=1 || status=1
  # The kept-file checks once more as kernels without the notice ring run them.
  QUELM_WATCH_RING=0 "$build/bin/unit_tests" --gtest_brief=1 --gtest_filter='FolderWatch.*:KeptFile*' || status=1
  echo "== integration tests ($build)"
  CGISSI_BUILD="$PWD/$build" "$python" -m pytest -q -p no:cacheprovider tests/integration || status=1
done
exit $status
