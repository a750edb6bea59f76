# Shared by the benchmarks' run.sh (sourced, not run): the paths of the build
# under test, checks for the tools and programs a benchmark needs, a free
# port, and one lighttpd started in the caller's shell and stopped on exit.
#
# The caller sets `here` (its own folder), then calls bench_setup with its
# name and its BUILD_DIR argument.

# Sets bench_name (for messages), top, build, bin, out_dir, and the
# benchmark's work folder and report file under out_dir.
bench_setup() { # name [build_dir]
  bench_name=bench/$1
  top=$(cd "$here/../.." && pwd)
  build=$(cd "${2:-$top/build}" && pwd)
  bin=$build/bin
  out_dir=$build/bench
  work=$out_dir/$1-run
  report=$out_dir/$1.txt
}

# Exits 2 unless every command is on PATH.
bench_need_tools() { # tool...
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null ||
      { echo "$bench_name: $tool is missing (scripts/bench.sh installs it)" >&2; exit 2; }
  done
}

# Exits 2 unless every program is built; hint says how to build it.
bench_need_built() { # hint exe...
  local hint=$1 exe
  shift
  for exe in "$@"; do
    [ -x "$bin/$exe" ] || { echo "$bench_name: $bin/$exe is missing ($hint)" >&2; exit 2; }
  done
}

# BENCH_PORT, or a port that is free now.
bench_port() {
  echo "${BENCH_PORT:-$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')}"
}

lighttpd_pid=""
stop_lighttpd() {
  if [ -n "$lighttpd_pid" ] && kill -0 "$lighttpd_pid" 2>/dev/null; then
    kill "$lighttpd_pid" 2>/dev/null || true
    for _ in $(seq 1 50); do
      kill -0 "$lighttpd_pid" 2>/dev/null || break
      sleep 0.1
    done
    kill -9 "$lighttpd_pid" 2>/dev/null || true
    wait "$lighttpd_pid" 2>/dev/null || true
  fi
  lighttpd_pid=""
}
trap stop_lighttpd EXIT

# Starts lighttpd in the foreground mode as a child of this shell (not in a
# command substitution, so that stop_lighttpd knows its pid) and waits up to
# 15 s until url answers. Returns 1 if it does not.
start_lighttpd() { # conf output_file url
  lighttpd -D -f "$1" >"$2" 2>&1 &
  lighttpd_pid=$!
  for _ in $(seq 1 150); do
    curl -s -o /dev/null --max-time 1 "$3" && return 0
    kill -0 "$lighttpd_pid" 2>/dev/null || break
    sleep 0.1
  done
  echo "$bench_name: lighttpd did not come up for $3" >&2
  return 1
}

# A fresh work folder: sets root (a gateway root made by qmcfg init),
# docroot and run, and exports QUELM_ROOT and QUELM_LOG_FILE for them.
bench_make_root() {
  rm -rf "$work"
  root=$work/root
  docroot=$work/www
  run=$work/run
  mkdir -p "$docroot" "$run"
  export QUELM_ROOT=$root
  export QUELM_LOG_FILE=$run/cgi-ssi.log
  "$bin/qmcfg" init >/dev/null
}

# lighttpd configuration lines serving EXTENSION with the reference
# responder PROGRAM (one process, socket in $run).
reference_backend_conf() { # extension program
  cat <<CONF
static-file.exclude-extensions += ( "$1" )
fastcgi.server += (
  "$1" => (
    ( "bin-path" => "$bin/$2",
      "socket" => "$run/$2.sock",
      "check-local" => "disable",
      "max-procs" => 1
    )
  )
)
CONF
}

# Sets backend_a and backend_b to the process ids of the two back ends
# lighttpd started (by their argv0), waiting up to 5 s for both.
wait_backends() { # argv0_a argv0_b
  backend_a="" backend_b=""
  for _ in $(seq 1 50); do
    backend_a=$(backend_pid "$1" || true)
    backend_b=$(backend_pid "$2" || true)
    [ -n "$backend_a" ] && [ -n "$backend_b" ] && return 0
    sleep 0.1
  done
  return 1
}

# The pid of a back end that lighttpd started with the given argv[0].
backend_pid() { # argv0
  backend_pids "$1" | head -n 1 | grep .
}

# Every back end lighttpd started with the given argv[0] (back ends of
# several paths may run one program), one pid per line.
backend_pids() { # argv0
  local want=$1 p argv0
  for p in /proc/[0-9]*; do
    [ "$(awk '{print $4}' "$p/stat" 2>/dev/null)" = "$lighttpd_pid" ] || continue
    argv0=$(tr '\0' '\n' < "$p/cmdline" 2>/dev/null | head -n 1) || continue
    if [ "$argv0" = "$want" ]; then echo "${p#/proc/}"; fi
  done
}

# The CPU time the processes have run so far, in ns (the first field of
# /proc/PID/schedstat), or "-" when there is none or one of them is gone.
bench_cpu_ns() { # pid...
  local p used rest total=0
  [ $# -gt 0 ] || { echo -; return 0; }
  for p in "$@"; do
    read -r used rest 2>/dev/null < "/proc/$p/schedstat" || { echo -; return 0; }
    total=$((total + used))
  done
  echo "$total"
}

# The whole machine's busy time so far, in ns: user, nice, system, irq and
# softirq time of every CPU (/proc/stat, in clock ticks of 10 ms).
bench_busy_ns() {
  awk -v hz="$(getconf CLK_TCK)" '$1 == "cpu" { printf "%.0f\n", ($2 + $3 + $4 + $7 + $8) * 1e9 / hz; exit }' /proc/stat
}

# Makes the folder hold exactly total live session files of other clients
# ("web_sNNNNN", realm web, numbered from 0): those numbered total or more
# go, those missing below total come, any other file stays. The files are
# made once in the sibling folder FOLDER.stock and hard-linked from there,
# so that rounds going from 10,000 to none and back cost little.
bench_set_sessions() { # folder total
  python3 - "$1" "$2" <<'PY'
import os, re, sys
folder, total = sys.argv[1], int(sys.argv[2])
stock = folder + ".stock"
os.makedirs(folder, mode=0o700, exist_ok=True)
os.makedirs(stock, mode=0o700, exist_ok=True)
for name in os.listdir(folder):
    m = re.fullmatch(r"web_s(\d{5})", name)
    if m and int(m.group(1)) >= total:
        os.remove(f"{folder}/{name}")
for i in range(total):
    name = f"web_s{i:05d}"
    if os.path.exists(f"{folder}/{name}"):
        continue
    if not os.path.exists(f"{stock}/{name}"):
        with open(f"{stock}/{name}", "w") as f:
            f.write(f"REMOTE_ADDR=10.0.{i // 250}.{i % 250}\nHTTP_USER_AGENT=other\nREALM=web\n")
    os.link(f"{stock}/{name}", f"{folder}/{name}")
PY
}

# ------------------------------------------------------- paired rounds --
# The throughput benchmarks compare a product's rate with references'
# rates measured in the same run. The host's speed drifts by tens of per
# cent within seconds, so rates are taken in short rounds, each measuring
# every target of a comparison back to back, in an order that turns by one
# from round to round (round 1: P R L, round 2: R L P, ...). A round gives
# one ratio per comparison; the reported ratio is the median of the rounds'
# ratios and the reported rate the median of the rounds' rates.

# The items, starting with the round's turn: round 1 gives them as they are,
# round 2 from the second on and then the first, and so on. One per line.
bench_rotate() { # round item...
  local round=$1 count i k
  shift
  count=$#
  for ((i = 0; i < count; i++)); do
    k=$(( (round - 1 + i) % count + 1 ))
    echo "${!k}"
  done
}

# rate / reference with 4 decimals, or "-" unless both are numbers and the
# reference is not 0 (a round with such a rate gives no ratio).
bench_ratio() { # rate reference
  if [[ "$1" =~ ^[0-9]+(\.[0-9]+)?$ && "$2" =~ ^[0-9]+(\.[0-9]+)?$ ]]; then
    awk -v a="$1" -v b="$2" 'BEGIN { if (b + 0 > 0) printf "%.4f", a / b; else print "-" }'
  else
    echo -
  fi
}

# The median of the values that are numbers, printed with the printf
# format (the mean of the middle two for an even count), or "-" if none is.
bench_median() { # format value...
  local format=$1
  shift
  printf '%s\n' "$@" | awk -v f="$format" '
    BEGIN { n = 0 }
    /^[0-9]+(\.[0-9]+)?$/ {
      x = $1 + 0
      for (i = n; i > 0 && v[i - 1] > x; i--) v[i] = v[i - 1]
      v[i] = x
      n++
    }
    END {
      if (n == 0) print "-"
      else printf f "\n", (n % 2 ? v[(n - 1) / 2] : (v[n / 2 - 1] + v[n / 2]) / 2)
    }'
}
