#!/usr/bin/env bash
# Starts the gateway back end behind lighttpd on http://127.0.0.1:PORT with
# the host platform rooted in RUN_DIR/root and the reference pages of ./www.
#   run.sh PORT                 serve (what `make run` does after building)
#   run.sh --check-port PORT    only check that PORT and RUN_DIR are free
# RUN_DIR is $QUELM_RUN_DIR, else ./run; the programs are taken from
# $CGISSI_BUILD/bin, else ./build/bin.
set -euo pipefail
cd "$(dirname "$0")/.."

check_only=0
if [ "${1:-}" = --check-port ]; then
  check_only=1
  shift
fi
port=${1:-8080}
top=$PWD
run=${QUELM_RUN_DIR:-$top/run}
root=$run/root
bin=${CGISSI_BUILD:-$top/build}/bin

# Nothing is written into the run directory before these checks: a server
# that already runs there keeps its configuration, log and pid file.
refuse() {
  echo "make run: $*" >&2
  exit 1
}
case $port in
  '' | *[!0-9]*) refuse "port '$port' is not a number (make run PORT=9000)" ;;
esac
if [ -s "$run/lighttpd.pid" ] && kill -0 "$(cat "$run/lighttpd.pid")" 2>/dev/null; then
  refuse "a server already runs from $run (pid $(cat "$run/lighttpd.pid")); stop it with Ctrl-C or use QUELM_RUN_DIR=/another/folder"
fi
if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
  refuse "port $port on 127.0.0.1 is already in use; stop what serves it or pick another: make run PORT=9000"
fi
[ $check_only = 1 ] && exit 0

export QUELM_ROOT=$root
export QUELM_LOG_FILE=$run/cgi-ssi.log
mkdir -p "$run"
"$bin/qmcfg" init
scripts/sample-disk.sh "$root"
# A gateway's platform lists each mounted disk in the data model
# (Storage_Item), where the Status and Disk pages find it; so is the sample.
if [ -z "$("$bin/qmcfg" count Storage_Item)" ]; then
  "$bin/qmcfg" load - >/dev/null <<'CONF'
Storage_Item_1_Name=usb1
Storage_Item_1_Vendor=Quelm
Storage_Item_1_Model=Sample disk
Storage_Item_1_Capacity=16000
Storage_Item_1_Status_State=ConnectedMounted
Storage_Item_1_Status_MountPoint=/var/mnt/usb1
CONF
fi

# Sessions are only handed to requests whose Host names the gateway; on a PC
# it is reached as localhost or 127.0.0.1. Both names go into this root's
# factory defaults too, so that `qmcfg factory` keeps them.
names="localhost,127.0.0.1"
factory=$root/etc/quelm/config.default/factory.conf
if ! grep -q "^Device_Aliases=.*localhost" "$factory"; then
  sed -i "s/^Device_Aliases=\(..*\)\$/Device_Aliases=\1,$names/; s/^Device_Aliases=\$/Device_Aliases=$names/" "$factory"
fi
aliases=$("$bin/qmcfg" get Device Aliases)
case ",$aliases," in
  *,localhost,*) ;;
  *) "$bin/qmcfg" set Device Aliases "${aliases:+$aliases,}$names" >/dev/null ;;
esac

# The gateway's web tree (WebConfigurator_RootDir, "/www") is the checkout's
# pages: POST protection looks for the referring page there.
ln -sfn "$top/www" "$root/www"

scripts/lighttpd-conf.sh "$root" "$port" "$bin" "$top/www" "$run" > "$run/lighttpd.conf"
lighttpd -tt -f "$run/lighttpd.conf"

echo "cgi-ssi: http://127.0.0.1:$port/   (Ctrl-C stops)"
echo "  gateway root: $root"
echo "  responder log: $QUELM_LOG_FILE"
echo "  platform events: $root/var/quelm/platform/events.log"
exec lighttpd -D -f "$run/lighttpd.conf"
