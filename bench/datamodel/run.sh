#!/usr/bin/env bash
# The data-model read benchmark. A gateway root gets an Array "Obj" of N
# instances with 8 properties each (N = 10, 100, 1000); "generic.cgi" then
# reads, through the real executable:
#   all        Obj_*                    every instance, every property
#   half       Obj_*>N/2                the upper half, every property
#   where      Obj_*[Enable=1]_Name     one property of every other instance
#   one        Obj_1_Name               one property
#   none       (token only)             the fixed cost of a request
# For each N and read: instructions of one request run as a plain CGI
# (callgrind, process start included; "net" subtracts the "none" request),
# and requests per second through lighttpd and one FastCGI responder (wrk),
# against a responder that copies the same answer ("copy", ending requests
# as cgi-ssi does) and the same copy on libfcgi's own loop and close
# ("libfcgi copy", which waits for lighttpd to close each connection).
#
#   bench/datamodel/run.sh [BUILD_DIR]      (default: build)
#
# Rates are taken in paired rounds (see bench/common.sh): each round loads
# the product, the copy and the libfcgi copy back to back, in an order that
# turns by one from round to round; "req/s" is the median of the rounds'
# rates, "ratio" the median of the rounds' ratios (product / copy, product /
# libfcgi copy). A round with a rate that is not a number (wrk failed, or
# answers that were not 2xx) gives no ratio. Every round's rates go to
# BUILD_DIR/bench/datamodel-run/rounds.txt.
#
# Each wrk run also takes the CPU time that the target's back end, lighttpd
# and the whole machine spent on it (schedstat of the processes, /proc/stat
# of the machine), per answered request; a second table gives the medians.
# The difference between the product's and the copy's columns is what the
# product's own work costs, apart from the FastCGI exchange both go through.
#
# With the largest N, the "one" read is loaded again with 1,000 and 10,000
# live session files in the folder (rounds of none, 1,000 and 10,000, in
# turning order; ratio per round against none, median kept), and a warm
# FastCGI responder's instructions per request are counted
# (bench/fcgi_ir.py); "per property" is the "all" read's count / (N x 8).
#
# The rows the summary holds to a target of 0.90 (the largest N's "one" and
# "none", and the live-session rounds) take more rounds: on a shared
# machine a round's ratio strays by a quarter either way, and the median
# of 7 can still miss by a tenth.
#
# Knobs (environment): BENCH_SIZES ("100 1000"), BENCH_DURATION seconds
# per wrk run (1), BENCH_PAIRS rounds per read (7), BENCH_TARGET_PAIRS
# rounds for the largest N's "one" and "none" (25), BENCH_SESSION_ROUNDS
# rounds of none, 1,000 and 10,000 live sessions (BENCH_TARGET_PAIRS),
# BENCH_THREADS (1), BENCH_CONNECTIONS (4), BENCH_PORT, BENCH_CALLGRIND=0 /
# BENCH_WRK=0 skip a part.
#
# Obj is an Array on purpose: a List's instance list text is refused beyond
# 1024 characters, which a List of 1,000 instances ("1,2,...,1000") exceeds.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
. "$here/../common.sh"
bench_setup datamodel "${1:-}"

sizes=${BENCH_SIZES:-"100 1000"}
duration=${BENCH_DURATION:-1}
threads=${BENCH_THREADS:-1}
connections=${BENCH_CONNECTIONS:-4}
pairs=${BENCH_PAIRS:-7}
target_pairs=${BENCH_TARGET_PAIRS:-25}
session_rounds=${BENCH_SESSION_ROUNDS:-$target_pairs}
do_callgrind=${BENCH_CALLGRIND:-1}
do_wrk=${BENCH_WRK:-1}
token=abc123
# The client is a page of the gateway's own: its Host (127.0.0.1) names the
# gateway's LAN address and it carries the cookie of its live session, as
# the pages' calls to generic.cgi do. (A Host that is not the gateway's gets
# no session and a logged warning per request, which no page pays.)
user_agent='bench-wrk/1'
cookie='QM_web_ID=bench1'
client_env=(HTTP_HOST=127.0.0.1 HTTP_COOKIE="$cookie" HTTP_USER_AGENT="$user_agent")

bench_need_built "build first" cgi-ssi qmcfg
need=(python3)
[ "$do_callgrind" = 1 ] && need+=(valgrind)
[ "$do_wrk" = 1 ] && need+=(lighttpd wrk curl)
bench_need_tools "${need[@]}"

rm -rf "$work"
mkdir -p "$work"

# Query strings of the reads for a root of n instances.
declare -A query
set_queries() { # n
  local half=$(( $1 / 2 ))
  query[all]="token=$token&read=Obj_%2A"
  query[half]="token=$token&read=Obj_%2A%3E$half"
  query[where]="token=$token&read=Obj_%2A%5BEnable%3D1%5D_Name"
  query[one]="token=$token&read=Obj_1_Name"
  query[none]="token=$token"
}
reads=(all half where one none)

# A root with the factory model plus Obj of n instances and a token for all.
make_root() { # n dir
  local n=$1 root=$2
  QUELM_ROOT=$root "$bin/qmcfg" init >/dev/null
  python3 - "$root" "$n" <<'PY'
import sys
root, n = sys.argv[1], int(sys.argv[2])
schema = root + "/etc/quelm/config.default/schema.xml"
obj = """  <object name="Obj" type="32">
    <param name="Enable" type="4" default="1"/>
    <param name="Name" type="1" default="" maxlen="63"/>
    <param name="Host" type="1" default="" maxlen="63"/>
    <param name="Port" type="3" default="0"/>
    <param name="Protocol" type="1" default="TCP" maxlen="7"/>
    <param name="Comment" type="1" default="" maxlen="127"/>
    <param name="User" type="2" default="1"/>
    <param name="Key" type="28" default="" maxlen="63"/>
  </object>
</schema>"""
text = open(schema).read().replace("</schema>", obj)
open(schema, "w").write(text)
with open(root + "/obj.conf", "w") as f:
    for i in range(1, n + 1):
        for key, value in (("Enable", i % 2), ("Name", f"rule-{i}"), ("Host", f"192.168.1.{i % 250 + 2}"),
                           ("Port", 8000 + i), ("Protocol", "TCP"), ("Comment", "benchmark rule"),
                           ("User", 1), ("Key", "secret")):
            f.write(f"Obj_{i}_{key}={value}\n")
PY
  QUELM_ROOT=$root "$bin/qmcfg" load "$root/obj.conf" >/dev/null
  QUELM_ROOT=$root "$bin/qmcfg" set LANDevice_1_IPInterface_1 IPAddress 127.0.0.1 >/dev/null
  mkdir -p "$root/var/quelm/session" && chmod 700 "$root/var/quelm/session"
  printf 'REMOTE_ADDR=127.0.0.1\nHTTP_USER_AGENT=%s\nREALM=web\n' "$user_agent" > "$root/var/quelm/session/web_bench1"
  mkdir -p "$root/var/tmp"
  printf '86400\nall\n' > "$root/var/tmp/CGI_Token_$token"
  touch -d '+1 day' "$root/var/tmp/CGI_Token_$token"
}

# One plain-CGI request; prints the answer's size in bytes.
answer() { # root query: the JSON body of the answer
  QUELM_ROOT=$1 QUELM_LOG_FILE=$work/cgi.log REQUEST_METHOD=GET QUERY_STRING=$2 \
    SCRIPT_FILENAME=/www/generic.cgi SCRIPT_NAME=/generic.cgi QUELM_REALM=web REMOTE_ADDR=127.0.0.1 \
    env "${client_env[@]}" "$bin/cgi-ssi" | sed '1,/^\r\?$/d'
}

answer_size() { # root query
  answer "$1" "$2" | wc -c
}

# Instructions of one plain-CGI request under callgrind.
instructions() { # root query
  QUELM_ROOT=$1 QUELM_LOG_FILE=$work/cgi.log REQUEST_METHOD=GET QUERY_STRING=$2 \
    SCRIPT_FILENAME=/www/generic.cgi SCRIPT_NAME=/generic.cgi QUELM_REALM=web REMOTE_ADDR=127.0.0.1 \
    env "${client_env[@]}" valgrind --tool=callgrind --callgrind-out-file=/dev/null "$bin/cgi-ssi" 2>&1 >/dev/null |
    awk '/Collected :/ { print $NF }'
}

# Starts lighttpd for root and sets base to its URL.
serve_root() { # root run_dir
  local root=$1 run=$2 port conf
  port=$(bench_port)
  mkdir -p "$run/www"
  conf=$run/lighttpd.conf
  QUELM_LOG_FILE=$run/cgi-ssi.log "$top/scripts/lighttpd-conf.sh" "$root" "$port" "$bin" "$run/www" "$run" > "$conf"
  # The references: the minimal copying responder serving the same JSON
  # bytes, and the same on libfcgi's own close.
  reference_backend_conf .bfc bench-fcgi-copy >> "$conf"
  reference_backend_conf .bfl bench-fcgi-copy-libfcgi >> "$conf"
  base="http://127.0.0.1:$port"
  start_lighttpd "$conf" "$run/lighttpd.out" "$base/generic.cgi?${query[none]}"
}

# One wrk run with its cost: prints the rate (or "-", or "non-2xx" when
# some answers were not 2xx), then the CPU time per answered request, in
# microseconds, of the back end processes given, of lighttpd and of the
# whole machine while wrk ran ("-" where unknown).
rps_cpu() { # url pid...
  local url=$1 report b0 l0 m0 b1 l1 m1
  shift
  b0=$(bench_cpu_ns "$@") l0=$(bench_cpu_ns "$lighttpd_pid") m0=$(bench_busy_ns)
  report=$(timeout $(( duration + 15 )) wrk -t"$threads" -c"$connections" -d"${duration}s" --timeout 5s \
             -H "Cookie: $cookie" -H "User-Agent: $user_agent" "$url" 2>&1) || true
  b1=$(bench_cpu_ns "$@") l1=$(bench_cpu_ns "$lighttpd_pid") m1=$(bench_busy_ns)
  awk -v b0="$b0" -v b1="$b1" -v l0="$l0" -v l1="$l1" -v m0="$m0" -v m1="$m1" '
    function per(a, b) { return (a ~ /^[0-9]+$/ && b ~ /^[0-9]+$/ && n > 0) ? sprintf("%.1f", (b - a) / 1000 / n) : "-" }
    / requests in / { n = $1 + 0 }
    /^Requests\/sec:/ { rate = $2 }
    /Non-2xx/ { bad = 1 }
    END { print (bad ? "non-2xx" : (rate == "" ? "-" : rate)), per(b0, b1), per(l0, l1), per(m0, m1) }' <<< "$report"
}

# The rate of one wrk run alone (rps_cpu's first word).
rps() { # url
  local rate _
  read -r rate _ < <(rps_cpu "$1")
  echo "$rate"
}

rounds_log=$work/rounds.txt
echo "# N read round: req/s of product copy libfcgi-copy, in that order whatever the round's order" > "$rounds_log"
{
  printf 'generic.cgi reads of an Array of N instances x 8 properties (%s)\n' "$(date -u +%FT%TZ)"
  printf 'load: wrk -t%s -c%s, %s rounds of %ss per read, %s for the largest N'"'"'s one and none (product, copy,\n' \
    "$threads" "$connections" "$pairs" "$duration" "$target_pairs"
  printf '      libfcgi copy back to back, order turning);\n'
  printf '      req/s = median of the rounds'"'"' rates, ratio = median of the rounds'"'"' ratios\n'
  printf '%-6s %-6s %10s %14s %14s %10s %10s %6s %10s %6s\n' N read bytes instructions net req/s copy-req/s ratio \
    libfcgi-cp ratio
} | tee "$report"

declare -A all_rate=() all_copy=() all_libfcgi=() all_ratio=() all_libfcgi_ratio=() all_cpu=()
for n in $sizes; do
  root=$work/root-$n
  make_root "$n" "$root"
  set_queries "$n"
  declare -A ir=() rate=() copy_rate=() libfcgi_rate=() ratio=() libfcgi_ratio=()
  if [ "$do_callgrind" = 1 ]; then
    for r in "${reads[@]}"; do ir[$r]=$(instructions "$root" "${query[$r]}"); done
  fi
  if [ "$do_wrk" = 1 ]; then
    mkdir -p "$work/run-$n/www"
    for r in "${reads[@]}"; do
      answer "$root" "${query[$r]}" > "$work/run-$n/www/$r.bfc"
      ln "$work/run-$n/www/$r.bfc" "$work/run-$n/www/$r.bfl"
    done
    serve_root "$root" "$work/run-$n"
    declare -A path=() pids=()
    pids[product]=$(backend_pids "$bin/cgi-ssi" | paste -sd' ')
    pids[copy]=$(backend_pids "$bin/bench-fcgi-copy" | paste -sd' ')
    pids[libfcgi]=$(backend_pids "$bin/bench-fcgi-copy-libfcgi" | paste -sd' ')
    for r in "${reads[@]}"; do
      wrk -t1 -c1 -d1s -H "Cookie: $cookie" -H "User-Agent: $user_agent" "$base/generic.cgi?${query[$r]}" >/dev/null 2>&1 || true  # warm-up
      path[product]="/generic.cgi?${query[$r]}" path[copy]="/$r.bfc" path[libfcgi]="/$r.bfl"
      # Paired rounds: the three back to back, the order turning, so that a
      # drift of the machine's speed weighs on all three alike.
      p_rates=() c_rates=() l_rates=() c_ratios=() l_ratios=()
      declare -A cpu=()  # [target,part] = the rounds' values, part: back, lighttpd, machine
      rounds=$pairs
      [[ "$n" = "${sizes##* }" && ( "$r" = one || "$r" = none ) ]] && rounds=$target_pairs
      for ((round = 1; round <= rounds; round++)); do
        declare -A got=() back=() light=() machine=()
        for t in $(bench_rotate "$round" product copy libfcgi); do
          # shellcheck disable=SC2086  # the pids are words
          read -r "got[$t]" "back[$t]" "light[$t]" "machine[$t]" < <(rps_cpu "$base${path[$t]}" ${pids[$t]})
          cpu[$t,back]+=" ${back[$t]}" cpu[$t,lighttpd]+=" ${light[$t]}" cpu[$t,machine]+=" ${machine[$t]}"
        done
        p_rates+=("${got[product]}") c_rates+=("${got[copy]}") l_rates+=("${got[libfcgi]}")
        c_ratios+=("$(bench_ratio "${got[product]}" "${got[copy]}")")
        l_ratios+=("$(bench_ratio "${got[product]}" "${got[libfcgi]}")")
        printf '%s %s %s: %s | %s | %s  (CPU us per request, back end/lighttpd/machine: %s/%s/%s | %s/%s/%s | %s/%s/%s)\n' \
          "$n" "$r" "$round" "${got[product]:--}" "${got[copy]:--}" "${got[libfcgi]:--}" \
          "${back[product]}" "${light[product]}" "${machine[product]}" "${back[copy]}" "${light[copy]}" \
          "${machine[copy]}" "${back[libfcgi]}" "${light[libfcgi]}" "${machine[libfcgi]}" >> "$rounds_log"
      done
      rate[$r]=$(bench_median %.2f "${p_rates[@]}")
      copy_rate[$r]=$(bench_median %.2f "${c_rates[@]}")
      libfcgi_rate[$r]=$(bench_median %.2f "${l_rates[@]}")
      ratio[$r]=$(bench_median %.2f "${c_ratios[@]}")
      libfcgi_ratio[$r]=$(bench_median %.2f "${l_ratios[@]}")
      # With 3 decimals for the summary, whose targets compare them.
      all_ratio[${n}_$r]=$(bench_median %.3f "${c_ratios[@]}")
      all_libfcgi_ratio[${n}_$r]=$(bench_median %.3f "${l_ratios[@]}")
      for t in product copy libfcgi; do
        # shellcheck disable=SC2086  # the values are words
        all_cpu[${n}_${r}_$t]=$(bench_median %.1f ${cpu[$t,back]})/$(bench_median %.1f ${cpu[$t,lighttpd]})
        all_cpu[${n}_${r}_$t]+=/$(bench_median %.1f ${cpu[$t,machine]})
      done
    done
    stop_lighttpd
  fi
  for r in "${reads[@]}"; do
    all_rate[${n}_$r]=${rate[$r]:-?} all_copy[${n}_$r]=${copy_rate[$r]:-?} all_libfcgi[${n}_$r]=${libfcgi_rate[$r]:-?}
  done
  for r in "${reads[@]}"; do
    size=$(answer_size "$root" "${query[$r]}")
    total=${ir[$r]:--}
    net=-
    if [ -n "${ir[$r]:-}" ] && [ -n "${ir[none]:-}" ]; then net=$(( ${ir[$r]} - ${ir[none]} )); fi
    printf '%-6s %-6s %10s %14s %14s %10s %10s %6s %10s %6s\n' "$n" "$r" "$size" "$total" "$net" "${rate[$r]:--}" \
      "${copy_rate[$r]:--}" "${ratio[$r]:--}" "${libfcgi_rate[$r]:--}" "${libfcgi_ratio[$r]:--}"
  done | tee -a "$report"
done
if [ "$do_wrk" = 1 ]; then
  {
    printf '\nCPU time per answered request, us (median of the rounds): the back end, lighttpd, and the whole\n'
    printf 'machine (both CPUs: wrk, lighttpd, back ends, kernel) while wrk loaded that target\n'
    printf '%-6s %-6s %22s %22s %22s\n' N read product copy "libfcgi copy"
    for n in $sizes; do
      for r in "${reads[@]}"; do
        printf '%-6s %-6s %22s %22s %22s\n' "$n" "$r" "${all_cpu[${n}_${r}_product]:--}" "${all_cpu[${n}_${r}_copy]:--}" \
          "${all_cpu[${n}_${r}_libfcgi]:--}"
      done
    done
    echo
  } | tee -a "$report"
fi
# ----------------------------------------------- sessions, warm responder --
largest=${sizes##* }
root=$work/root-$largest
set_queries "$largest"
sessions=$root/var/quelm/session
declare -A session_rate=() session_ratio=() session_ratio_3=()
if [ "$do_wrk" = 1 ]; then
  serve_root "$root" "$work/run-sessions"
  # Rounds of none, 1,000 and 10,000 in turning order; each round gives the
  # ratio of 1,000 and of 10,000 against its none.
  declare -A at=()  # [count,round] = rate
  for ((round = 1; round <= session_rounds; round++)); do
    for count in $(bench_rotate "$round" 0 1000 10000); do
      bench_set_sessions "$sessions" "$count"
      at[$count,$round]=$(rps "$base/generic.cgi?${query[one]}")
    done
    printf '%s sessions %s: %s | %s | %s\n' "$largest" "$round" "${at[0,$round]:--}" "${at[1000,$round]:--}" \
      "${at[10000,$round]:--}" >> "$rounds_log"
  done
  stop_lighttpd
  bench_set_sessions "$sessions" 0
  for count in 0 1000 10000; do
    values=() ratios=()
    for ((round = 1; round <= session_rounds; round++)); do
      values+=("${at[$count,$round]}")
      ratios+=("$(bench_ratio "${at[$count,$round]}" "${at[0,$round]}")")
    done
    session_rate[$count]=$(bench_median %.2f "${values[@]}")
    session_ratio[$count]=$(bench_median %.2f "${ratios[@]}")
    session_ratio_3[$count]=$(bench_median %.3f "${ratios[@]}")
  done
  for count in 1000 10000; do
    printf '%-6s %-6s with %5d live sessions: %10s req/s, against none %10s: ratio %s\n' "$largest" one "$count" \
      "${session_rate[$count]}" "${session_rate[0]}" "${session_ratio[$count]}"
  done | tee -a "$report"
fi

declare -A warm=()
if [ "$do_callgrind" = 1 ]; then
  # A GET's parameters as lighttpd passes them, CONTENT_LENGTH "0" among them.
  for r in all one none; do
    params=$(python3 -c 'import json, sys; print(json.dumps({"SCRIPT_FILENAME": "/www/generic.cgi", "SCRIPT_NAME": "/generic.cgi",
      "REQUEST_METHOD": "GET", "QUERY_STRING": sys.argv[1], "QUELM_REALM": "web", "REMOTE_ADDR": "127.0.0.1",
      "HTTP_HOST": "127.0.0.1", "HTTP_COOKIE": sys.argv[2], "HTTP_USER_AGENT": sys.argv[3], "CONTENT_LENGTH": "0"}))' \
      "${query[$r]}" "$cookie" "$user_agent")
    count=20
    [ "$r" = all ] && count=3
    read -r warm[$r] _ < <(python3 "$here/../fcgi_ir.py" "$bin/cgi-ssi" ssi "$root" "$params" --count $count 2>/dev/null ||
                           echo "? ?")
  done
  per_property=$(awk -v a="${warm[all]}" -v n="$largest" 'BEGIN { if (a ~ /^[0-9]+$/) printf "%.0f", a / (n * 8); else print "?" }')
  echo "warm responder, instructions per request: all ${warm[all]} (${per_property} per property), one ${warm[one]}, none ${warm[none]}" |
    tee -a "$report"
fi

# For the summary of scripts/bench.sh: one "key value" per line.
{
  for n in $sizes; do
    for r in "${reads[@]}"; do
      echo "rate_${n}_${r} ${all_rate[${n}_$r]:-?}"
      echo "copy_${n}_${r} ${all_copy[${n}_$r]:-?}"
      echo "libfcgi_${n}_${r} ${all_libfcgi[${n}_$r]:-?}"
      echo "ratio_${n}_${r} ${all_ratio[${n}_$r]:-?}"
      echo "libfcgi_ratio_${n}_${r} ${all_libfcgi_ratio[${n}_$r]:-?}"
      for t in product copy; do echo "cpu_${n}_${r}_$t ${all_cpu[${n}_${r}_$t]:-?}"; done
    done
  done
  for count in 0 1000 10000; do echo "sessions_${count}_rate ${session_rate[$count]:-?}"; done
  for count in 1000 10000; do echo "sessions_${count}_ratio ${session_ratio_3[$count]:-?}"; done
  echo "largest $largest"
  echo "ir_all_warm ${warm[all]:-?}"
  echo "ir_per_property ${per_property:-?}"
} > "$out_dir/datamodel.summary"
echo "report: $report"
