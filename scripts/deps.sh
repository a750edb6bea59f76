#!/usr/bin/env bash
# Installs the Debian packages the project builds, runs and tests with, and
# any further packages named as arguments (the benchmarks' tools).
# Only what is missing is installed; a machine that has everything is left
# alone, silently, after one dpkg-query call.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libfcgi-dev libfcgi-bin libssl-dev libiksemel-dev libsqlite3-dev libexif-dev
  libgtest-dev python3-pytest lighttpd curl
  chromium
  clang libclang-rt-14-dev
  "$@"
)
# The browser suite runs on Node (its npm packages come from
# tests/browser/package-lock.json); Debian's node is taken when present.
if ! command -v node >/dev/null 2>&1 || ! command -v npm >/dev/null 2>&1; then
  packages+=(nodejs npm)
fi

# dpkg-query names every package it knows with its status, and complains on
# stderr about the ones it does not know (those are missing too).
installed=$(dpkg-query -W -f='${Package} ${Status}\n' "${packages[@]}" 2>/dev/null |
            awk '$NF == "installed" && $(NF-1) == "ok" { print $1 }' || true)
missing=()
for p in "${packages[@]}"; do
  grep -qx -- "$p" <<<"$installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
