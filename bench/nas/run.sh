#!/usr/bin/env bash
# The NAS benchmark, on a disk of the gateway root under build/bench/nas-run:
#   listing   "iNasGetFolderContent" of a folder of 10,000 files
#   playlist  "iNasGetPlaylist" of a playlist of 1,000 items
#   download  a 1 GiB file through "nas.cgi" (X-Sendfile2: the responder only
#             writes headers, lighttpd streams the file) against the same
#             file served statically by lighttpd (target ratio >= 0.95)
# For the listing and the playlist: requests per second through lighttpd and
# one FastCGI responder (bench/nas/load.py, keep-alive), and instructions per
# entry (callgrind on one plain-CGI request, minus the same request on an
# empty folder or playlist, divided by the entries).
#
#   bench/nas/run.sh [BUILD_DIR]            (default: build)
#
# Knobs: BENCH_DURATION seconds per load run (3), BENCH_THREADS (2),
# BENCH_FILES (10000), BENCH_ITEMS (1000), BENCH_DOWNLOAD_MIB (1024),
# BENCH_PORT, BENCH_CALLGRIND=0 skips the instruction counts.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
. "$here/../common.sh"
bench_setup nas "${1:-}"

duration=${BENCH_DURATION:-3}
threads=${BENCH_THREADS:-2}
files=${BENCH_FILES:-10000}
items=${BENCH_ITEMS:-1000}
mib=${BENCH_DOWNLOAD_MIB:-1024}
do_callgrind=${BENCH_CALLGRIND:-1}

bench_need_built "build first" cgi-ssi qmcfg
need=(lighttpd curl python3)
[ "$do_callgrind" = 1 ] && need+=(valgrind)
bench_need_tools "${need[@]}"

bench_make_root
disk=$root/var/mnt/usb1
mkdir -p "$disk/big" "$disk/empty" "$disk/.playlists"
python3 - "$disk" "$files" "$items" <<'PY'
import os, sys
disk, files, items = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
for i in range(files):
    with open(f"{disk}/big/track {i:05d} & friends.mp3", "wb") as f:
        f.write(b"x" * (i % 7))
with open(f"{disk}/.playlists/long.m3u", "w") as f:
    f.writelines(f"Music/Album {i // 10}/track {i:04d}.mp3\n" for i in range(items))
open(f"{disk}/.playlists/none.m3u", "w").close()
PY
truncate -s "$((mib * 1024 * 1024))" "$disk/large.bin"
ln "$disk/large.bin" "$docroot/large.bin"
"$bin/qmcfg" set Services_NAS Disk all >/dev/null
"$bin/qmcfg" set Services_NAS Music all >/dev/null

port=$(bench_port)
"$top/scripts/lighttpd-conf.sh" "$root" "$port" "$bin" "$docroot" "$run" > "$run/lighttpd.conf"
base=http://127.0.0.1:$port
start_lighttpd "$run/lighttpd.conf" "$run/lighttpd.out" "$base/nas.cgi"

declare -A query=(
  [listing]="iNasGetFolderContent=1&disk=usb1&path=big"
  [listing0]="iNasGetFolderContent=1&disk=usb1&path=empty"
  [playlist]="iNasGetPlaylist=1&disk=usb1&name=long"
  [playlist0]="iNasGetPlaylist=1&disk=usb1&name=none"
)
declare -A rate
for what in listing playlist; do
  curl -sf -o /dev/null "$base/nas.cgi?${query[$what]}" || { echo "$bench_name: $what does not answer 200" >&2; exit 1; }
  python3 "$here/load.py" "$base/nas.cgi?${query[$what]}" 1 "$threads" >/dev/null
  rate[$what]=$(python3 "$here/load.py" "$base/nas.cgi?${query[$what]}" "$duration" "$threads")
done

# The download, three times each way; the best of each is kept.
speed() { # url
  local best=0 s
  for _ in 1 2 3; do
    s=$(curl -sf -H "Host: gateway" -o /dev/null -w '%{speed_download}' "$1")
    best=$(python3 -c "print(max($best, $s))")
  done
  echo "$best"
}
via_nas=$(speed "$base/nas.cgi?iNasGetFile=1&disk=usb1&file=large.bin")
static=$(speed "$base/large.bin")
stop_lighttpd

declare -A ir
if [ "$do_callgrind" = 1 ]; then
  for what in listing listing0 playlist playlist0; do
    out=$work/callgrind.$what
    env REQUEST_METHOD=GET QUERY_STRING="${query[$what]}" SCRIPT_NAME=/nas.cgi SCRIPT_FILENAME="$docroot/nas.cgi" \
      HTTP_HOST=gateway REMOTE_ADDR=127.0.0.1 GATEWAY_INTERFACE=CGI/1.1 SERVER_PROTOCOL=HTTP/1.1 QUELM_REALM=web \
      valgrind --tool=callgrind --callgrind-out-file="$out" "$bin/cgi-ssi" </dev/null >/dev/null 2>&1
    ir[$what]=$(awk '/^summary:/ {print $2}' "$out")
  done
fi

{
  echo "bench/nas ($(date -u +%Y-%m-%dT%H:%MZ), $threads connections, ${duration}s per run)"
  printf '%-9s %8s %10s %14s\n' what entries "req/s" "instr/entry"
  for what in listing playlist; do
    n=$files; [ "$what" = playlist ] && n=$items
    per="-"
    [ "$do_callgrind" = 1 ] && per=$(( (ir[$what] - ir[${what}0]) / n ))
    set -- ${rate[$what]}
    printf '%-9s %8d %10s %14s   (%s requests, %s not 200)\n' "$what" "$n" "$1" "$per" "$2" "$3"
  done
  python3 - "$via_nas" "$static" "$mib" <<'PY'
import sys
nas, static, mib = float(sys.argv[1]), float(sys.argv[2]), sys.argv[3]
print(f"download {mib} MiB: nas.cgi {nas / 2**20:.0f} MiB/s, static {static / 2**20:.0f} MiB/s, "
      f"ratio {nas / static:.2f} (target >= 0.95)")
PY
} | tee "$report"
