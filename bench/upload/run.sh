#!/usr/bin/env bash
# The upload benchmark. One lighttpd on loopback takes the same multipart
# upload (1 GiB by default) twice:
#   (a) "firmware.cgi" of cgi-ssi, which streams it into the simulated
#       flasher (its pace switched off; it keeps the image and its SHA-256)
#   (b) a FastCGI responder that reads the body and throws it away
#   (c) as (a), with a flasher that only reads its input (the cost of the
#       responder and the pipe without the simulator's hashing and storing)
# Both paths stream the request body (server.stream-request-body = 2). It
# prints the throughput of both, their ratio (target >= 0.8), and the peak
# RSS growth of the responder and of lighttpd during the upload (targets:
# responder <= 1 MiB, lighttpd far below the body's size).
#
#   bench/upload/run.sh [BUILD_DIR]            (default: build)
#
# Knobs (environment): BENCH_UPLOAD_MIB size of the upload (1024),
# BENCH_PORT (a free one).
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
. "$here/../common.sh"
bench_setup upload "${1:-}"

mib=${BENCH_UPLOAD_MIB:-1024}
size=$((mib * 1024 * 1024))

bench_need_tools lighttpd curl python3
bench_need_built "build the target bench-tools" cgi-ssi qmcfg bench-fcgi-discard

bench_make_root
echo "QUELM_FWBURN_PACE=off" > "$root/etc/quelm/fwburn.switches"
echo ok > "$docroot/ping.txt"

port=$(bench_port)
conf=$run/lighttpd.conf
# The upload is measured without a signed-in admin session: the legacy
# access policy lets the posts through (the default needs an admin and the
# same origin, which is not what this benchmark measures).
QUELM_COMPAT=1 "$top/scripts/lighttpd-conf.sh" "$root" "$port" "$bin" "$docroot" "$run" > "$conf"
cat >> "$conf" <<CONF

# ---- upload benchmark: the reference FastCGI responder (b) ----
\$HTTP["url"] =~ "\\.bdis\$" {
  server.stream-request-body = 2
  server.max-request-size = 2097151
}
CONF
reference_backend_conf .bdis bench-fcgi-discard >> "$conf"
lighttpd -tt -f "$conf" >/dev/null
start_lighttpd "$conf" "$run/lighttpd.out" "http://127.0.0.1:$port/ping.txt" ||
  { cat "$run/lighttpd.out" "$run/lighttpd-error.log" >&2 2>/dev/null || true; exit 1; }

wait_backends "$bin/cgi-ssi" "$bin/bench-fcgi-discard" || true
cgi_pid=$backend_a discard_pid=$backend_b
[ -n "$cgi_pid" ] && [ -n "$discard_pid" ] || { echo "$bench_name: back ends not found" >&2; exit 1; }

upload() { # path pid
  python3 "$here/upload_client.py" "$port" "$1" "$size" "$2" "$lighttpd_pid"
}
# A small upload first, so that both back ends have served once.
python3 "$here/upload_client.py" "$port" /warm.bdis 1048576 >/dev/null
python3 "$here/upload_client.py" "$port" /firmware.cgi 1048576 >/dev/null

read -r a_sent a_done a_status a_rss a_lrss < <(upload /firmware.cgi "$cgi_pid")
read -r b_sent b_done b_status b_rss b_lrss < <(upload /upload.bdis "$discard_pid")
stored=$(stat -c %s "$root/var/quelm/platform/firmware.img" 2>/dev/null || echo 0)
printf '#!/bin/sh\nexec cat >/dev/null\n' > "$root/usr/bin/fwburn"
read -r c_sent c_done c_status c_rss c_lrss < <(upload /firmware.cgi "$cgi_pid")

rate() { python3 -c "print(f'{$mib / $1:.1f}')"; }
{
  echo "bench/upload: $mib MiB multipart upload through lighttpd (loopback, streamed request body)"
  printf '  %-44s %8s %10s %10s %14s %14s\n' target status "sent s" "answer s" "MiB/s" "RSS growth KiB"
  printf '  %-44s %8s %10s %10s %14s %14s\n' "(a) firmware.cgi -> simulated flasher" "$a_status" "$a_sent" "$a_done" "$(rate "$a_done")" "$a_rss"
  printf '  %-44s %8s %10s %10s %14s %14s\n' "(b) discarding FastCGI responder" "$b_status" "$b_sent" "$b_done" "$(rate "$b_done")" "$b_rss"
  printf '  %-44s %8s %10s %10s %14s %14s\n' "(c) firmware.cgi -> flasher that only reads" "$c_status" "$c_sent" "$c_done" "$(rate "$c_done")" "$c_rss"
  echo "  ratio (a)/(b) of throughput to the answer: $(python3 -c "print(f'{$b_done / $a_done:.2f}')") (target >= 0.8); (c)/(b): $(python3 -c "print(f'{$b_done / $c_done:.2f}')")"
  echo "  lighttpd peak RSS growth: $a_lrss KiB during (a), $b_lrss KiB during (b)"
  echo "  image kept by the flasher: $stored bytes (expected $size)"
} | tee "$report"
[ "$a_status" = 200 ] && [ "$b_status" = 200 ] && [ "$c_status" = 200 ] && [ "$stored" = "$size" ]
