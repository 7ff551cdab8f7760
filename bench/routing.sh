#!/usr/bin/env bash
# Routing throughput beside the timestamp oracle. Every round starts a
# server on a fresh state directory, preloads N regions with disjoint
# ranges, runs get-region over keys inside them for 2 s and then tso for
# 2 s against the same server; a table row is the median of the rounds at
# 1 and at 16 connections. Then the resident memory of a server holding the
# N regions, and the time it takes to open that state again.
#
#   bench/routing.sh [BUILD_DIR] [REGION_COUNTS...]     (ROUNDS=3 by default)
#
# BUILD_DIR defaults to build; REGION_COUNTS to "1000 100000". A tree built
# with -DKANDB_ROUTING_INDEX=OFF measures the walk over the records instead
# of the routing index.
set -euo pipefail
build=${1:-build}
shift || true
counts=("$@")
[ ${#counts[@]} -gt 0 ] || counts=(1000 100000)
rounds=${ROUNDS:-3}
server=$build/app/kandb-meta
bench=$build/tools/kandb-meta-bench
. "$(dirname "$0")/server_lib.sh"


printf '%-9s %-6s %12s %9s %12s %9s %7s\n' regions conns get-region p99-ms tso p99-ms ratio
for n in "${counts[@]}"; do
  for c in 1 16; do
    : >"$work/rows"
    for _ in $(seq "$rounds"); do
      rm -rf "$work/state"
      start
      g=$("$bench" --addr 127.0.0.1:$port --method get-region --preload-regions "$n" --conns $c --duration 2s --json 2>"$work/bench.err" || true)
      [ -n "$(field throughput <<<"$g")" ] || { echo "get-region failed: $(tail -3 "$work/bench.err") $(cat "$work/err")" >&2; exit 1; }
      t=$("$bench" --addr 127.0.0.1:$port --method tso --conns $c --duration 2s --json 2>"$work/bench.err" || true)
      [ -n "$(field throughput <<<"$t")" ] || { echo "tso failed: $(tail -3 "$work/bench.err") $(cat "$work/err")" >&2; exit 1; }
      echo "$(field throughput <<<"$g") $(field p99 <<<"$g") $(field throughput <<<"$t") $(field p99 <<<"$t")" >>"$work/rows"
      stop
    done
    g=$(cut -d' ' -f1 "$work/rows" | median); gp=$(cut -d' ' -f2 "$work/rows" | median)
    t=$(cut -d' ' -f3 "$work/rows" | median); tp=$(cut -d' ' -f4 "$work/rows" | median)
    printf '%-9s %-6s %12.0f %9.3f %12.0f %9.3f %7.2f\n' "$n" "$c" "$g" "$gp" "$t" "$tp" "$(echo "$g / $t" | bc -l)"
  done
  rm -rf "$work/state"
  start
  "$bench" --addr 127.0.0.1:$port --method get-region --preload-regions "$n" --requests 1 >/dev/null 2>&1
  rss=$(awk '/VmRSS/ {print $2}' /proc/$pid/status)
  stop
  t0=$(date +%s.%N); start; t1=$(date +%s.%N)
  rss_open=$(awk '/VmRSS/ {print $2}' /proc/$pid/status)
  stop
  printf '  %s regions: resident %d MiB after the preload, %d MiB after a restart (%d bytes a region); opened in %.2f s\n' \
    "$n" $((rss / 1024)) $((rss_open / 1024)) $((rss_open * 1024 / n)) "$(echo "$t1 - $t0" | bc -l)"
done
