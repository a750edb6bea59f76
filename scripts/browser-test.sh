#!/usr/bin/env bash
# Runs the browser suite (tests/browser) against the reference pages:
# starts `make run`'s server (scripts/run.sh) from BUILD on a free port with
# its own run folder BUILD/browser-run, drives Debian's chromium headless
# through playwright-core, writes screenshots to BUILD/screenshots/ and
# stops the server.
#   browser-test.sh [BUILD [NODE_TEST_OPTIONS...]]   (BUILD defaults to build;
#   e.g. --test-name-pattern=Wi-Fi runs one flow)
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
build=$top/${1:-build}
shift || true
suite=tests/browser

if [ ! -d "$suite/node_modules/playwright-core" ]; then
  (cd "$suite" && npm ci --no-audit --no-fund --loglevel=error)
fi

run_dir=$build/browser-run
rm -rf "$run_dir" "$build/screenshots"
mkdir -p "$run_dir" "$build/screenshots"
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

QUELM_RUN_DIR=$run_dir CGISSI_BUILD=$build scripts/run.sh "$port" >"$run_dir/server.out" 2>&1 &
server=$!
stop_server() {
  kill "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
}
trap stop_server EXIT

for _ in $(seq 100); do
  if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then break; fi
  if ! kill -0 "$server" 2>/dev/null; then
    cat "$run_dir/server.out" >&2
    exit 1
  fi
  sleep 0.1
done

echo "== browser tests (http://127.0.0.1:$port)"
GATEWAY_URL=http://127.0.0.1:$port QUELM_ROOT=$run_dir/root QMCFG=$build/bin/qmcfg \
  SCREENSHOTS=$build/screenshots CHROMIUM=${CHROMIUM:-/usr/bin/chromium} \
  node --test --test-concurrency=1 "$@" "$suite/suite.test.js"
