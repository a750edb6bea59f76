#!/usr/bin/env bash
# Installs the Debian packages the project builds, runs and tests with, and
# any further packages named as arguments (the benchmarks' tools).
# Only what is missing is installed; a machine that has everything is left alone.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libfcgi-dev libfcgi-bin libssl-dev libexif-dev libiksemel-dev libsqlite3-dev
  libgtest-dev python3-pytest lighttpd curl
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
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
