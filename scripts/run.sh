#!/usr/bin/env bash
# Starts the gateway back end behind lighttpd on http://127.0.0.1:PORT with
# the host platform rooted in ./run/root and the reference pages of ./www.
set -euo pipefail
cd "$(dirname "$0")/.."
port=${1:-8080}
top=$PWD
run=$top/run
root=$run/root
bin=$top/build/bin

export QUELM_ROOT=$root
export QUELM_LOG_FILE=$run/cgi-ssi.log
fresh=0
[ -e "$root/var/quelm/config" ] || fresh=1
"$bin/qmcfg" init
if [ $fresh = 1 ]; then
  # Sessions are only handed to requests that name the gateway; on a PC the
  # gateway is reached as localhost.
  "$bin/qmcfg" set Device Aliases "localhost,127.0.0.1"
fi

scripts/lighttpd-conf.sh "$root" "$port" "$bin" "$top/www" "$run" > "$run/lighttpd.conf"
lighttpd -tt -f "$run/lighttpd.conf"

echo "cgi-ssi: http://127.0.0.1:$port/   (Ctrl-C stops)"
echo "  gateway root: $root"
echo "  responder log: $QUELM_LOG_FILE"
echo "  platform events: $root/var/quelm/platform/events.log"
exec lighttpd -D -f "$run/lighttpd.conf"
