#!/usr/bin/env bash
# Prints the summary of a `make bench` run: one row per goal of the
# benchmarks, from the "key value" files the benchmarks leave in
# BUILD_DIR/bench (ssi.summary, datamodel.summary). Ratios are against the
# reference measured in the same run: the median of the rounds' ratios where
# the benchmark wrote it (a "..._ratio" key), else product / reference; the
# rates are the medians of the rounds. A row without its numbers is "-".
#
#   bench/summary.sh [BUILD_DIR]
set -euo pipefail
out_dir=${1:-build}/bench

value() { # file key
  awk -v k="$2" '$1 == k { print $2; found = 1 } END { if (!found) print "?" }' "$out_dir/$1" 2>/dev/null || echo "?"
}

# Work, product, reference, ratio, target ratio. The ratio is the given
# one unless that is "?" (no such key), then product / reference.
row() { # work product reference target [ratio]
  awk -v w="$1" -v p="$2" -v r="$3" -v t="$4" -v m="${5:-?}" 'BEGIN {
    if (m != "?") { ok = (m ~ /^[0-9.]+$/); ratio = m + 0 }
    else { ok = (p ~ /^[0-9.]+$/ && r ~ /^[0-9.]+$/ && r + 0 > 0); ratio = ok ? p / r : 0 }
    printf "%-52s | %12s | %12s | %6s | %7s | %s\n", w, p, r, ok ? sprintf("%.3f", ratio) : "-", ">= " t,
           ok ? (ratio >= t ? "PASS" : "FAIL") : "-"
  }'
}

# A count that must stay at or below its bound.
bound_row() { # work value bound
  awk -v w="$1" -v v="$2" -v b="$3" 'BEGIN {
    ok = (v ~ /^-?[0-9.]+$/)
    printf "%-52s | %12s | %12s | %6s | %7s | %s\n", w, v, "-", "-", "<= " b, ok ? (v + 0 <= b ? "PASS" : "FAIL") : "-"
  }'
}

n=$(value datamodel.summary largest)
printf '%-52s | %12s | %12s | %6s | %7s | %s\n' Work product reference ratio target result
printf '%s\n' "-----------------------------------------------------+--------------+--------------+--------+---------+-------"
row "8 KB page, 20 echoes (req/s; copy responder)" "$(value ssi.summary page_rate)" "$(value ssi.summary copy_rate)" 0.90 \
  "$(value ssi.summary page_ratio)"
for count in 1000 10000; do
  row "page, $count live sessions (req/s; none)" "$(value ssi.summary "sessions_${count}_rate")" \
    "$(value ssi.summary sessions_0_rate)" 0.90 "$(value ssi.summary "sessions_${count}_ratio")"
done
for size in $(printf '%s\n' "$n" 100 | awk '!seen[$0]++'); do
  row "generic.cgi all of $size x 8 (req/s; copy)" "$(value datamodel.summary "rate_${size}_all")" \
    "$(value datamodel.summary "copy_${size}_all")" 0.50 "$(value datamodel.summary "ratio_${size}_all")"
done
row "generic.cgi one property (req/s; copy)" "$(value datamodel.summary "rate_${n}_one")" \
  "$(value datamodel.summary "copy_${n}_one")" 0.90 "$(value datamodel.summary "ratio_${n}_one")"
row "request with nothing to do (req/s; copy)" "$(value datamodel.summary "rate_${n}_none")" \
  "$(value datamodel.summary "copy_${n}_none")" 0.90 "$(value datamodel.summary "ratio_${n}_none")"
for count in 1000 10000; do
  row "generic.cgi one, $count live sessions (req/s; none)" "$(value datamodel.summary "sessions_${count}_rate")" \
    "$(value datamodel.summary sessions_0_rate)" 0.90 "$(value datamodel.summary "sessions_${count}_ratio")"
done
bound_row "instructions per property (all of $n x 8, warm)" "$(value datamodel.summary ir_per_property)" 1500
before=$(value ssi.summary rss_anon_before) after=$(value ssi.summary rss_anon_after)
growth=$(awk -v a="$after" -v b="$before" 'BEGIN { if (a ~ /^[0-9]+$/ && b ~ /^[0-9]+$/) print a - b; else print "?" }')
bound_row "RssAnon growth, kB, $(value ssi.summary mixed_requests) mixed requests" "$growth" 256
# The same products against the copying responder on libfcgi's own loop,
# which waits for lighttpd to close each connection (no target): the median
# ratio where written, else product / reference.
info_ratio() { # product reference [ratio]
  awk -v p="$1" -v r="$2" -v m="${3:-?}" 'BEGIN {
    if (m != "?") { if (m ~ /^[0-9.]+$/) printf "%.2f", m; else print "-" }
    else if (p ~ /^[0-9.]+$/ && r ~ /^[0-9.]+$/ && r + 0 > 0) printf "%.2f", p / r
    else print "-"
  }'
}
printf 'against a copy on libfcgi'"'"'s own close: page %s' \
  "$(info_ratio "$(value ssi.summary page_rate)" "$(value ssi.summary libfcgi_copy_rate)" \
                "$(value ssi.summary page_libfcgi_ratio)")"
for read in all one none; do
  printf ', %s %s' "$read" \
    "$(info_ratio "$(value datamodel.summary "rate_${n}_$read")" "$(value datamodel.summary "libfcgi_${n}_$read")" \
                  "$(value datamodel.summary "libfcgi_ratio_${n}_$read")")"
done
printf ' (libfcgi copy: page %s req/s, none %s req/s)\n' "$(value ssi.summary libfcgi_copy_rate)" \
  "$(value datamodel.summary "libfcgi_${n}_none")"
echo "RssAnon of the page responder: idle $(value ssi.summary rss_anon_idle) kB, before the mixed run $before kB, after $after kB"
echo "warm instructions per page request: $(value ssi.summary ir_page_warm)"
# Where a small request's time goes: CPU per answered request of the back
# end, lighttpd and the whole machine, the product's against the copy's
# (median of the rounds, in microseconds).
printf 'CPU us per request, back end/lighttpd/machine: one property: product %s, copy %s; nothing to do: product %s, copy %s\n' \
  "$(value datamodel.summary "cpu_${n}_one_product")" "$(value datamodel.summary "cpu_${n}_one_copy")" \
  "$(value datamodel.summary "cpu_${n}_none_product")" "$(value datamodel.summary "cpu_${n}_none_copy")"
