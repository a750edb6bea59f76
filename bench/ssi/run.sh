#!/usr/bin/env bash
# The page benchmark. One lighttpd on loopback serves the same 8 KB page with
# 20 echo directives five ways:
#   (a) cgi-ssi rendering it (FastCGI, started as "ssi")       /page.htm
#   (b) a FastCGI responder that only copies the file          /page.bfc
#   (c) lighttpd's own mod_ssi rendering it                    /page.shtml
#   (d) the file served as a static file                       /page.txt
#   (e) the copying responder on libfcgi's own close           /page.bfl
# wrk loads the targets in paired rounds: each round runs all five back to
# back, in an order that turns by one from round to round; a target's rate
# (and p50, p99) is the median over the rounds, a ratio such as a/b the
# median of the rounds' ratios. (a) is loaded again in rounds of none, 1,000
# and 10,000 live sessions, likewise. Then cgi-ssi runs once under callgrind
# as a plain CGI to count the instructions of one page request. See
# bench/README.md.
#
#   bench/ssi/run.sh [BUILD_DIR]            (default: build)
#
# Knobs (environment): BENCH_DURATION seconds per measured run (1),
# BENCH_WARMUP seconds of warm-up per target and per live-session load (1),
# BENCH_PAIRS rounds over the five targets (9), BENCH_SESSION_ROUNDS rounds
# of none, 1,000 and 10,000 live sessions (9), BENCH_THREADS (2),
# BENCH_CONNECTIONS (8), BENCH_MAX_REQUESTS per wrk thread and run (1000000),
# BENCH_MIXED_REQUESTS (100000), BENCH_PORT (a free one), BENCH_CALLGRIND=0
# skips the instruction count.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
. "$here/../common.sh"
bench_setup ssi "${1:-}"

duration=${BENCH_DURATION:-1}
warmup=${BENCH_WARMUP:-1}
pairs=${BENCH_PAIRS:-9}
# Every row here is held to 0.90, and the median of a few rounds strays by
# a tenth on a shared machine (see bench/README.md): 9 rounds of each.
session_rounds=${BENCH_SESSION_ROUNDS:-9}
threads=${BENCH_THREADS:-2}
connections=${BENCH_CONNECTIONS:-8}
export BENCH_MAX_REQUESTS=${BENCH_MAX_REQUESTS:-1000000}
query='lang=en&note=two%20words'
user_agent='bench-wrk/1'
accept='text/html'

bench_need_tools lighttpd wrk curl python3
bench_need_built "build the target bench-tools" cgi-ssi qmcfg bench-fcgi-copy

# ---------------------------------------------------------------- set-up --
bench_make_root
# The visitor is the gateway's own: the Host (127.0.0.1:PORT) names the
# gateway's LAN address, and every request carries the cookie of a live
# session of this client, so (a) pays what a signed-in visitor's page costs
# (the cookie's session checked and refreshed, the folder pass) and no
# session is made per request.
"$bin/qmcfg" set LANDevice_1_IPInterface_1 IPAddress 127.0.0.1 >/dev/null
sessions=$root/var/quelm/session
mkdir -p "$sessions" && chmod 700 "$sessions"
printf 'REMOTE_ADDR=127.0.0.1\nHTTP_USER_AGENT=%s\nREALM=web\n' "$user_agent" > "$sessions/web_bench1"
cookie='QM_web_ID=bench1'

# One file under five names: every target serves exactly the same bytes.
cp "$here/page.shtml" "$docroot/page.shtml"
for name in page.htm page.bfc page.txt page.bfl; do
  ln "$docroot/page.shtml" "$docroot/$name"
done
# The same page with every directive turned into a plain comment ("<!--#"
# becomes "<!-- "): same size, nothing to expand. Used by the instruction count.
sed 's/<!--#/<!-- /g' "$here/page.shtml" > "$docroot/plain.htm"
page_bytes=$(stat -c %s "$docroot/page.shtml")
directives=$(grep -o '<!--#echo' "$docroot/page.shtml" | wc -l)

port=$(bench_port)
conf=$run/lighttpd.conf
"$top/scripts/lighttpd-conf.sh" "$root" "$port" "$bin" "$docroot" "$run" > "$conf"
cat >> "$conf" <<CONF

# ---- page benchmark: the reference FastCGI responders (b) and (e) ----
CONF
reference_backend_conf .bfc bench-fcgi-copy >> "$conf"
reference_backend_conf .bfl bench-fcgi-copy-libfcgi >> "$conf"
lighttpd -tt -f "$conf" >/dev/null

base=http://127.0.0.1:$port
if ! start_lighttpd "$conf" "$run/lighttpd.out" "$base/page.txt"; then
  cat "$run/lighttpd.out" "$run/lighttpd-error.log" >&2 2>/dev/null || true
  exit 1
fi

status_kb() { # pid field
  awk -v f="$2:" '$1 == f { print $2 }' "/proc/$1/status" 2>/dev/null || true
}

wait_backends "$root/cgi-bin/ssi" "$bin/bench-fcgi-copy" || true
ssi_pid=$backend_a copy_pid=$backend_b
rss_ssi_idle=$( [ -n "$ssi_pid" ] && status_kb "$ssi_pid" VmRSS || echo "?")
anon_ssi_idle=$( [ -n "$ssi_pid" ] && status_kb "$ssi_pid" RssAnon || echo "?")
rss_copy_idle=$( [ -n "$copy_pid" ] && status_kb "$copy_pid" VmRSS || echo "?")

# ----------------------------------------------------------------- probe --
targets=(a b c d e)
declare -A url label probe_status probe_size probe_type probe_note
url[a]="/page.htm?$query";   label[a]="cgi-ssi (FastCGI, renders)"
url[b]="/page.bfc?$query";   label[b]="copy responder (FastCGI, no render)"
url[c]="/page.shtml?$query"; label[c]="lighttpd mod_ssi (renders)"
url[d]="/page.txt?$query";   label[d]="static file"
url[e]="/page.bfl?$query";   label[e]="copy responder, libfcgi's close"

problems=()
for t in "${targets[@]}"; do
  body=$work/probe-$t.out
  line=$(curl -s --max-time 5 -o "$body" -H "User-Agent: $user_agent" -H "Accept: $accept" -H "Cookie: $cookie" \
              -w '%{http_code} %{size_download} %{content_type}' "$base${url[$t]}" || echo "000 0 -")
  read -r "probe_status[$t]" "probe_size[$t]" "probe_type[$t]" <<<"$line"
  probe_note[$t]=""
  if [ "${probe_status[$t]}" != 200 ]; then
    probe_note[$t]="NOT 200"
    problems+=("($t) ${label[$t]}: the probe got HTTP ${probe_status[$t]} (${probe_size[$t]} bytes), not 200")
  elif { [ "$t" = a ] || [ "$t" = c ]; } && grep -q '<!--#' "$body"; then
    probe_note[$t]="UNRENDERED"
    problems+=("($t) ${label[$t]}: the page came back with its directives not expanded")
  fi
done

# ------------------------------------------------------------------ load --
# wrk once against one target; prints "rps requests non2xx socket_errors p50_us p99_us"
load() { # target seconds
  local t=$1 secs=$2 text
  text=$(timeout $((secs + 15)) wrk -t"$threads" -c"$connections" -d"${secs}s" --timeout 2s \
           -H "User-Agent: $user_agent" -H "Accept: $accept" -H "Cookie: $cookie" \
           -s "$here/wrk.lua" "$base${url[$t]}" 2>&1) || true
  awk '
    /^BENCH / {
      for (i = 2; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] }
      secs = v["duration_us"] / 1e6
      printf "%.1f %d %d %d %d %d\n", (secs > 0 ? v["requests"] / secs : 0), v["requests"], v["status_errors"],
             v["connect"] + v["read"] + v["write"] + v["timeout"], v["p50_us"], v["p99_us"]
      found = 1
    }
    END { if (!found) print "0 0 0 0 0 0" }' <<<"$text"
}

# Paired rounds (see bench/common.sh): each round loads the five targets back
# to back, in an order that turns by one from round to round. A run counts
# (at[target,round] is its rate) unless wrk completed no request or some
# answers had a status of 400 or more; then it is "-" and gives no ratio.
declare -A requests non2xx sockerr all_rps at at50 at99
for t in "${targets[@]}"; do
  load "$t" "$warmup" >/dev/null
  requests[$t]=0 non2xx[$t]=0 sockerr[$t]=0 all_rps[$t]=""
done
for ((round = 1; round <= pairs; round++)); do
  for t in $(bench_rotate "$round" "${targets[@]}"); do
    read -r rps n bad serr l50 l99 < <(load "$t" "$duration")
    all_rps[$t]="${all_rps[$t]} $rps"
    if [ $(( n + connections + threads )) -ge $(( threads * BENCH_MAX_REQUESTS )) ]; then
      # The threads stopped before the time was up, so the rate is understated.
      problems+=("($t) ${label[$t]}: a run reached the request cap ($BENCH_MAX_REQUESTS per thread); its rate is too low, raise BENCH_MAX_REQUESTS")
    fi
    requests[$t]=$(( ${requests[$t]} + n ))
    non2xx[$t]=$(( ${non2xx[$t]} + bad ))
    sockerr[$t]=$(( ${sockerr[$t]} + serr ))
    at[$t,$round]=- at50[$t,$round]=- at99[$t,$round]=-
    if [ "$n" -gt 0 ] && [ "$bad" -eq 0 ]; then at[$t,$round]=$rps at50[$t,$round]=$l50 at99[$t,$round]=$l99; fi
  done
done
for t in "${targets[@]}"; do
  if [ "${non2xx[$t]}" -gt 0 ]; then
    problems+=("($t) ${label[$t]}: ${non2xx[$t]} of ${requests[$t]} responses under load had a status of 400 or more")
  fi
  if [ "${requests[$t]}" -eq 0 ]; then
    problems+=("($t) ${label[$t]}: wrk completed no request")
  fi
done
# Per target the medians of the rounds' rate, p50 and p99; per pair of
# targets the rounds' ratios (by_round) and their median (med).
declare -A rate p50 p99 by_round med
for t in "${targets[@]}"; do
  rates=() l50s=() l99s=()
  for ((round = 1; round <= pairs; round++)); do
    rates+=("${at[$t,$round]}") l50s+=("${at50[$t,$round]}") l99s+=("${at99[$t,$round]}")
  done
  rate[$t]=$(bench_median %.1f "${rates[@]}")
  p50[$t]=$(bench_median %.0f "${l50s[@]}")
  p99[$t]=$(bench_median %.0f "${l99s[@]}")
done
for pair in ab ac bd cd ae; do
  ratios=()
  for ((round = 1; round <= pairs; round++)); do
    ratios+=("$(bench_ratio "${at[${pair:0:1},$round]}" "${at[${pair:1:1},$round]}")")
  done
  by_round[$pair]=${ratios[*]}
  med[$pair]=$(bench_median %.3f "${ratios[@]}")
done

# ---------------------------------------------- live sessions, memory --
# (a) again with 1,000 and 10,000 live sessions of other visitors in the
# folder, against (a) with none: rounds of none, 1,000 and 10,000 in turning
# order, each load after a warm-up with its count; per round the ratio of
# 1,000 and of 10,000 against that round's none, the median kept.
session_counts=(0 1000 10000)
declare -A sess_at sess_rate sess_ratio
for ((round = 1; round <= session_rounds; round++)); do
  for count in $(bench_rotate "$round" "${session_counts[@]}"); do
    bench_set_sessions "$sessions" "$count"
    load a "$warmup" >/dev/null
    read -r rps n bad _ < <(load a "$duration")
    sess_at[$count,$round]=-
    if [ "$n" -gt 0 ] && [ "$bad" -eq 0 ]; then
      sess_at[$count,$round]=$rps
    else
      problems+=("(a) with $count live sessions, round $round: $bad of $n responses had a status of 400 or more; the run counts for nothing")
    fi
  done
done
for count in "${session_counts[@]}"; do
  rates=() ratios=()
  for ((round = 1; round <= session_rounds; round++)); do
    rates+=("${sess_at[$count,$round]}")
    ratios+=("$(bench_ratio "${sess_at[$count,$round]}" "${sess_at[0,$round]}")")
  done
  sess_rate[$count]=$(bench_median %.1f "${rates[@]}")
  sess_ratio[$count]=$(bench_median %.3f "${ratios[@]}")
done
# The mixed run below has the 10,000 live sessions in the folder.
bench_set_sessions "$sessions" 10000
anon_ssi_before=$( [ -n "$ssi_pid" ] && status_kb "$ssi_pid" RssAnon || echo "?")
# 100,000 requests of a mix (pages with and without directives, data-model
# reads, a missing page) against the same responder; its private memory
# before and after.
mixed_requests=${BENCH_MIXED_REQUESTS:-100000}
printf '%s\n' '<html><!--#echo jsonvar="cli=User_*" --><!--#echo var="cli=Device" --></html>' > "$docroot/model.htm"
export BENCH_PATHS="${url[a]} /plain.htm /model.htm /nosuch.htm"
saved_cap=$BENCH_MAX_REQUESTS
export BENCH_MAX_REQUESTS=$(( mixed_requests / threads ))
# wrk runs for its whole duration even when its threads stop early: the
# duration is set from the best round's page rate so that the cap ends the run.
page_best=$(for ((round = 1; round <= pairs; round++)); do echo "${at[a,$round]}"; done |
              awk '/^[0-9.]+$/ && $1 + 0 > m { m = $1 + 0 } END { print m + 0 }')
mixed_secs=$(awk -v n="$mixed_requests" -v r="$page_best" 'BEGIN { s = (r > 0 ? n / (0.7 * r) : 60); print int(s) + 2 }')
read -r mixed_rps mixed_done _ < <(load a "$mixed_secs")
export BENCH_MAX_REQUESTS=$saved_cap
unset BENCH_PATHS
anon_ssi_after=$( [ -n "$ssi_pid" ] && status_kb "$ssi_pid" RssAnon || echo "?")
rss_ssi_after=$( [ -n "$ssi_pid" ] && status_kb "$ssi_pid" VmRSS || echo "?")
hwm_ssi_after=$( [ -n "$ssi_pid" ] && status_kb "$ssi_pid" VmHWM || echo "?")
rss_copy_after=$( [ -n "$copy_pid" ] && status_kb "$copy_pid" VmRSS || echo "?")
[ -n "$ssi_pid" ] && [ -d "/proc/$ssi_pid" ] || problems+=("the cgi-ssi back end (pid ${ssi_pid:-?}) was not found or did not survive the load")
stop_lighttpd

# ------------------------------------------------- instructions per page --
# cgi-ssi as a plain CGI (stdin not a socket: one request, then exit), under
# the name "ssi". Three runs, each the whole process from exec to exit:
#   page   the benchmark page
#   plain  the same page with no directive (same size)
#   start  no page at all: the responder starts, initialises, accepts the one
#          request and returns before any handler runs
# The variables are those lighttpd passes for a GET, CONTENT_LENGTH "0" among them.
cgi_env() { # script-file script-name
  local env_args=(
    PATH=/usr/bin:/bin QUELM_ROOT="$root" QUELM_LOG_FILE="$run/cgi-ssi-callgrind.log"
    QUELM_REALM=web QUELM_SRV_IDX=1 GATEWAY_INTERFACE=CGI/1.1 REQUEST_METHOD=GET CONTENT_LENGTH=0
    QUERY_STRING="$query" REQUEST_URI="$2?$query" DOCUMENT_ROOT="$docroot"
    HTTP_HOST="127.0.0.1:$port" HTTP_USER_AGENT="$user_agent" HTTP_ACCEPT="$accept" HTTP_COOKIE="$cookie"
    REMOTE_ADDR=127.0.0.1 REMOTE_PORT=40000 SERVER_NAME=127.0.0.1 SERVER_ADDR=127.0.0.1
    SERVER_PORT="$port" SERVER_PROTOCOL=HTTP/1.1 SERVER_SOFTWARE=lighttpd
  )
  if [ -n "$1" ]; then env_args+=(SCRIPT_FILENAME="$1" SCRIPT_NAME="$2"); fi
  printf '%s\0' "${env_args[@]}"
}
callgrind_ir() { # name script-file script-name
  local name=$1 file=$run/callgrind.$1.out envs=()
  mapfile -d '' envs < <(cgi_env "$2" "$3")
  if ! env -i "${envs[@]}" timeout 120 valgrind --tool=callgrind --callgrind-out-file="$file" \
         "$root/cgi-bin/ssi" </dev/null >"$run/callgrind.$name.stdout" 2>"$run/callgrind.$name.stderr"; then
    : # the responder's exit status is not the point; the count is
  fi
  awk '/^summary:/ { print $2; found = 1 } END { if (!found) print "?" }' "$file" 2>/dev/null || echo "?"
}

inclusive_ir() { # function annotate-text
  awk -v f="$1" '{ for (i = 2; i <= NF; i++) if ($i ~ ("(^|[^:]:)" f "$") && $(i + 1) ~ /^\[/) { gsub(",", "", $1); print $1; exit } }' "$2"
}
# A warm FastCGI responder's instructions per page request (bench/fcgi_ir.py),
# with no live session but the visitor's. (With thousands of sessions the
# once-a-second folder pass falls into the measured requests as often as
# callgrind's slowness makes seconds pass, so that count says nothing per
# request; the wrk rounds with live sessions measure that dimension.)
warm_ir() { # -> "instructions bytes"
  cgi_env "$docroot/page.htm" /page.htm | python3 -c '
import json, sys
print(json.dumps(dict(kv.split("=", 1) for kv in sys.stdin.read().split("\0") if kv)))' |
    { read -r params; python3 "$here/../fcgi_ir.py" "$bin/cgi-ssi" ssi "$root" "$params" --count 20 2>/dev/null; } || echo "? ?"
}
ir_warm="?"
find "$sessions" -name 'web_s*' -delete
if [ "${BENCH_CALLGRIND:-1}" != 0 ] && command -v valgrind >/dev/null; then
  read -r ir_warm _ < <(warm_ir)
fi

ir_page="?" ir_plain="?" ir_start="?" ir_request="?" ir_handler="?" cg_status="?"
if [ "${BENCH_CALLGRIND:-1}" != 0 ] && command -v valgrind >/dev/null; then
  ir_page=$(callgrind_ir page "$docroot/page.htm" /page.htm)
  ir_plain=$(callgrind_ir plain "$docroot/plain.htm" /plain.htm)
  ir_start=$(callgrind_ir start "" "")
  # Inclusive counts inside the page run: the whole request (main_CGI) and
  # the page handler (ssi) alone.
  if command -v callgrind_annotate >/dev/null; then
    callgrind_annotate --inclusive=yes --threshold=100 "$run/callgrind.page.out" > "$run/callgrind.page.txt" 2>/dev/null || true
    ir_request=$(inclusive_ir main_CGI "$run/callgrind.page.txt")
    ir_handler=$(inclusive_ir ssi "$run/callgrind.page.txt")
  fi
  cg_status=$(awk 'NR == 1 && /^Status:/ { print $2; exit } NR == 1 { print "200"; exit }' \
                "$run/callgrind.page.stdout" 2>/dev/null || echo "?")
  [ -n "$cg_status" ] || cg_status="none"
  if [ "$cg_status" != 200 ]; then
    problems+=("the callgrind run of cgi-ssi answered status $cg_status: its count is not a page render")
  elif grep -q '<!--#' "$run/callgrind.page.stdout"; then
    problems+=("the callgrind run of cgi-ssi left directives unexpanded")
  fi
fi

# ---------------------------------------------------------------- report --
num() { awk -v x="$1" 'BEGIN { if (x == "?" || x == "") print "?"; else if (x !~ /^[0-9.]+$/) print "-"; else printf "%.0f", x }'; }
# The rounds' ratios with 2 decimals.
each() { awk -v xs="$1" 'BEGIN { n = split(xs, x, " "); for (i = 1; i <= n; i++) printf "%s%s", (i > 1 ? " " : ""), (x[i] ~ /^[0-9.]+$/ ? sprintf("%.2f", x[i]) : x[i]) }'; }
diff_ir() { awk -v a="$1" -v b="$2" -v n="${3:-1}" 'BEGIN { if (a == "?" || b == "?") print "?"; else printf "%.0f", (a - b) / n }'; }

ab=${med[ab]} ac=${med[ac]} bd=${med[bd]} cd_=${med[cd]} ae=${med[ae]}
target_note=$(awk -v r="$ab" 'BEGIN { if (r !~ /^[0-9.]+$/) print "no number"; else if (r >= 0.9) print "target 0.90 met"; else print "target 0.90 NOT met" }')

{
  echo "SSI page benchmark   $(date -u '+%Y-%m-%d %H:%M:%S UTC')   $(nproc) CPUs   $(lighttpd -v 2>/dev/null | head -n 1)"
  echo "page: $page_bytes bytes, $directives echo directives; lighttpd on $base"
  echo "load: wrk -t$threads -c$connections, ${warmup}s warm-up per target, then $pairs rounds of the five targets back to back"
  echo "      (${duration}s each, order turning); req/s, p50 and p99 are medians over the rounds, each ratio the median"
  echo "      of the rounds' ratios"
  echo
  if [ ${#problems[@]} -gt 0 ]; then
    echo "!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!"
    echo "!!! WARNING: these numbers do not measure what their labels say:"
    for p in "${problems[@]}"; do echo "!!!   $p"; done
    echo "!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!"
    echo
  fi
  printf '%-40s %-8s %7s %-10s %-10s %10s %9s %9s %7s  %s\n' target probe bytes type note "req/s" "p50 us" "p99 us" "errors" "each round (req/s)"
  for t in "${targets[@]}"; do
    type=${probe_type[$t]%%;*}
    printf '%-40s %-8s %7s %-10s %-10s %10s %9s %9s %7s  %s\n' "($t) ${label[$t]}" "HTTP ${probe_status[$t]}" \
      "${probe_size[$t]}" "${type:--}" "${probe_note[$t]:--}" "$(num "${rate[$t]}")" "${p50[$t]}" "${p99[$t]}" \
      "$(( ${non2xx[$t]} + ${sockerr[$t]} ))" "${all_rps[$t]# }"
  done
  echo
  echo "a/b = $ab   (cgi-ssi against the copy-only responder; $target_note)"
  echo "a/c = $ac   (cgi-ssi against lighttpd mod_ssi)"
  echo "b/d = $bd   (FastCGI round trip against the static file)"
  echo "c/d = $cd_   (mod_ssi against the static file)"
  echo "a/e = $ae   (cgi-ssi against the copy-only responder on libfcgi's loop, which waits for lighttpd's close)"
  echo "a/b by round: $(each "${by_round[ab]}")"
  echo
  echo "(a) with live sessions of other visitors in the folder ($session_rounds rounds of none, 1,000 and 10,000; req/s the"
  echo "    median, ratio the median of the rounds' ratios against none):"
  for count in "${session_counts[@]}"; do
    echo "  $count sessions: $(num "${sess_rate[$count]}") req/s, ratio ${sess_ratio[$count]}   (target 0.90)"
  done
  echo
  echo "cgi-ssi responder private memory (RssAnon): idle ${anon_ssi_idle:-?} kB, before the mixed run ${anon_ssi_before:-?} kB,"
  echo "  after ${mixed_done:-?} mixed requests (${mixed_rps:-?} req/s: page, plain page, data-model page, missing page) ${anon_ssi_after:-?} kB"
  echo
  echo "cgi-ssi responder memory (VmRSS of the \"ssi\" FastCGI process, pid ${ssi_pid:-?}):"
  echo "  idle after start: ${rss_ssi_idle:-?} kB   after the load: ${rss_ssi_after:-?} kB   peak (VmHWM): ${hwm_ssi_after:-?} kB"
  echo "  (copy responder for comparison: ${rss_copy_idle:-?} kB idle, ${rss_copy_after:-?} kB after the load)"
  echo
  echo "instructions (callgrind, cgi-ssi as a plain CGI named \"ssi\", one request, whole process):"
  echo "  benchmark page:                 $(num "$ir_page")   (response status: $cg_status)"
  echo "  same page without directives:   $(num "$ir_plain")"
  echo "  start-up only (no page):        $(num "$ir_start")"
  echo "  per page request  = page  - start-up: $(diff_ir "$ir_page" "$ir_start")"
  echo "  per plain request = plain - start-up: $(diff_ir "$ir_plain" "$ir_start")"
  echo "  per directive     = (page - plain) / $directives: $(diff_ir "$ir_page" "$ir_plain" "$directives")"
  echo "  inside the page run, inclusive: the request (main_CGI) ${ir_request:-?}, of which the page handler (ssi) ${ir_handler:-?}"
  echo "  warm FastCGI responder, per page request (bench/fcgi_ir.py): ${ir_warm:-?}"
  echo "  (subtracted: the start-up run is the same process with no SCRIPT_FILENAME; it pays exec, dynamic"
  echo "   linking, data-model initialisation and exit, which a FastCGI responder pays once, not per page)"
  echo
  echo "files: $work (probe-*.out bodies, lighttpd.conf, callgrind.*.out)"
} | tee "$report"

# For the summary of scripts/bench.sh: one "key value" per line.
{
  echo "page_rate ${rate[a]}"
  echo "copy_rate ${rate[b]}"
  echo "libfcgi_copy_rate ${rate[e]}"
  echo "page_ratio ${med[ab]}"
  echo "page_libfcgi_ratio ${med[ae]}"
  for count in "${session_counts[@]}"; do echo "sessions_${count}_rate ${sess_rate[$count]}"; done
  for count in 1000 10000; do echo "sessions_${count}_ratio ${sess_ratio[$count]}"; done
  echo "rss_anon_idle ${anon_ssi_idle:-?}"
  echo "rss_anon_before ${anon_ssi_before:-?}"
  echo "rss_anon_after ${anon_ssi_after:-?}"
  echo "mixed_requests ${mixed_done:-?}"
  echo "ir_page_warm ${ir_warm:-?}"
  echo "problems ${#problems[@]}"
} > "$out_dir/ssi.summary"
