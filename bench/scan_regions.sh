#!/usr/bin/env bash
# Region scans beside routing. Every round starts a server on a fresh state
# directory and preloads N regions with disjoint ranges once; then, on that
# server, scan-regions (each call from a random key inside the regions,
# 1000 regions a call) and get-region run for 2 s each, at 1 and at 16
# connections. A table row is the median of the rounds.
#
#   bench/scan_regions.sh [BUILD_DIR] [REGION_COUNT]     (ROUNDS=1 by default)
#
# BUILD_DIR defaults to build; REGION_COUNT to 1000000.
set -euo pipefail
build=${1:-build}
n=${2:-1000000}
rounds=${ROUNDS:-1}
server=$build/app/kandb-meta
bench=$build/tools/kandb-meta-bench
. "$(dirname "$0")/server_lib.sh"


# run METHOD CONNS: one 2-second run on the server; prints calls/s, p50, p99.
run() {
  local out
  out=$("$bench" --addr 127.0.0.1:$port --method "$1" --preload-regions "$n" --scan-limit 1000 --conns "$2" \
    --duration 2s --timeout-ms 60000 --json 2>"$work/bench.err" || true)
  if [ -z "$(field throughput <<<"$out")" ] || [ "$(field errors <<<"$out")" != 0 ] ||
    [ "$(field wrong_answers <<<"$out")" != 0 ]; then
    echo "$1 at $2 connections failed: $out $(tail -3 "$work/bench.err") $(cat "$work/err")" >&2
    exit 1
  fi
  echo "$(field throughput <<<"$out") $(field p50 <<<"$out") $(field p99 <<<"$out")"
}

: >"$work/rows"
for _ in $(seq "$rounds"); do
  rm -rf "$work/state"
  start
  # The first run preloads; the others keep what it wrote.
  "$bench" --addr 127.0.0.1:$port --method get-region --preload-regions "$n" --requests 1 --timeout-ms 60000 \
    >/dev/null 2>"$work/preload.err" || { cat "$work/preload.err" >&2; exit 1; }
  sed -n 's/^preloaded .* in \([0-9.]*\) s$/\1/p' "$work/preload.err" >>"$work/preload"
  for c in 1 16; do
    echo "scan-regions $c $(run scan-regions $c)" >>"$work/rows"
    echo "get-region $c $(run get-region $c)" >>"$work/rows"
  done
  stop
done

echo "# $n regions, $rounds round(s); preload took $(median <"$work/preload") s"
printf '%-22s %6s %12s %9s %9s %14s\n' method conns calls/s p50-ms p99-ms regions/s
for m in scan-regions get-region; do
  for c in 1 16; do
    rows=$(awk -v m=$m -v c=$c '$1 == m && $2 == c {print $3, $4, $5}' "$work/rows")
    t=$(cut -d' ' -f1 <<<"$rows" | median)
    p50=$(cut -d' ' -f2 <<<"$rows" | median)
    p99=$(cut -d' ' -f3 <<<"$rows" | median)
    per=1
    label=$m
    if [ "$m" = scan-regions ]; then per=1000; label="scan-regions (1000)"; fi
    printf '%-22s %6s %12.0f %9.3f %9.3f %14.0f\n' "$label" "$c" "$t" "$p50" "$p99" "$(echo "$t * $per" | bc -l)"
  done
done
