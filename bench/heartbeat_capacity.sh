#!/usr/bin/env bash
# Region heartbeat capacity of one build: the embedded kandb-meta and the
# replicated kandb-meta-ha (leader of three on a three-member etcd cluster),
# each holding REGIONS preloaded regions with three replicas apiece on
# STORES registered stores, under heartbeats of ENTRIES regions from
# CONNS connections. Every run starts on fresh state, so that no run sees
# the regions another one reported.
#
#   bench/heartbeat_capacity.sh [META [META_HA [BENCH]]]
#
# The binaries default to $META, $META_HA and $BENCH, else to build/'s; the
# bench needs to be this tree's (it has --stores), the servers may be of
# any build, an older one included. Environment, with defaults:
#   REGIONS=1000000      regions preloaded into the embedded server
#   HA_REGIONS=$REGIONS  regions preloaded into the replicated one
#   STORES=100           registered stores; every region on three of them
#   ENTRIES=100          regions per heartbeat (see below)
#   SECONDS_EACH=10      length of each run
#   CONNS="1 16"         connection counts, one run each
#   SERVERS="embedded replicated"
#   STORE_HEARTBEATS=0   1: every store sends store heartbeats (kept Up
#                        every 2 s during the run), so that the server
#                        schedules by what they report
#
# ENTRIES=100: a store reports the regions it leads. With a million regions
# on a hundred stores that is 10,000 regions a store; a store that sends
# them in heartbeats of a hundred regions covers them in a hundred calls,
# which keeps each call's frame small (a few KiB) and each answer's wait
# short, while a heartbeat of one region (the default of the bench) would
# measure the call's fixed cost rather than the per-region work.
#
# Each row: the preload time, region entries per second, heartbeat calls per
# second, the call latency percentiles, and the calls in the first and in
# the last whole second of the run (the server keeps per-region state that
# grows as regions are reported, so the rate may fall while it runs).
# Everything runs on 127.0.0.1; the replicated servers on fixed ports
# 23xxx/24xxx as in ha_vs_embedded.sh. Every process started here is
# stopped by its own id.
set -euo pipefail
here=$(dirname "$0")
META=${1:-${META:-build/app/kandb-meta}}
META_HA=${2:-${META_HA:-build/app/kandb-meta-ha}}
BENCH=${3:-${BENCH:-build/tools/kandb-meta-bench}}
REGIONS=${REGIONS:-1000000}
HA_REGIONS=${HA_REGIONS:-$REGIONS}
STORES=${STORES:-100}
ENTRIES=${ENTRIES:-100}
SECONDS_EACH=${SECONDS_EACH:-10}
CONNS=${CONNS:-1 16}
SERVERS=${SERVERS:-embedded replicated}
STORE_HEARTBEATS=${STORE_HEARTBEATS:-0}

server=$META
. "$here/server_lib.sh"
. "$here/etcd_lib.sh"
pids=()
cleanup() {
  [ -n "$pid" ] && kill -9 "$pid" 2>/dev/null
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# The replicated server: three etcd members and three kandb-meta-ha on
# fresh data directories; sets ha to the servers' addresses.
start_ha() {
  rm -rf "$work/ha"
  mkdir -p "$work/ha"
  local endpoints
  etcd_cluster "$work/ha" 2337 2338
  for i in 0 1 2; do
    "$META_HA" --bind_addr 127.0.0.1 --port 2439$i --etcd "$endpoints" --target_replicas=3 \
      >"$work/ha/ha$i.out" 2>"$work/ha/ha$i.err" &
    pids+=($!)
  done
  ha=127.0.0.1:24390,127.0.0.1:24391,127.0.0.1:24392
  for _ in $(seq 1 150); do
    "$BENCH" --addr "$ha" --method tso --requests 1 --timeout-ms 1000 >/dev/null 2>&1 && return 0
    sleep 0.2
  done
  echo "replicated server did not start: $(tail -3 "$work/ha/ha0.err")" >&2
  exit 1
}
stop_ha() {
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null || true; done
  pids=()
}

# second N < progress: the calls of the Nth progress line
second() { sed -n 's/^\[ *[0-9]*s\] *\([0-9]*\) req\/s.*/\1/p' | sed -n "$1p"; }

flags=()
[ "$STORE_HEARTBEATS" = 1 ] && flags+=(--store-heartbeats)
echo "# $META / $META_HA: $STORES stores, $ENTRIES regions a heartbeat, ${SECONDS_EACH}s a run, store heartbeats: $([ "$STORE_HEARTBEATS" = 1 ] && echo on || echo off)"
printf '%-10s %5s %8s %9s %12s %9s %9s %9s %9s %8s %8s\n' \
  server conns regions preload-s entries/s calls/s p50-ms p99-ms p999-ms first/s last/s
for kind in $SERVERS; do
  for c in $CONNS; do
    if [ "$kind" = embedded ]; then
      n=$REGIONS
      rm -rf "$work/state"
      start --target_replicas=3
      addr=127.0.0.1:$port
    else
      n=$HA_REGIONS
      start_ha
      addr=$ha
    fi
    out=$("$BENCH" --addr "$addr" --method heartbeat --preload-regions "$n" --stores "$STORES" \
      --heartbeat-entries "$ENTRIES" "${flags[@]}" --conns "$c" --duration "${SECONDS_EACH}s" \
      --timeout-ms 60000 --json 2>"$work/bench.err" || true)
    if [ -z "$(field heartbeat_entries_per_second <<<"$out")" ]; then
      echo "$kind at $c connections failed: $(tail -3 "$work/bench.err")" >&2
      exit 1
    fi
    [ "$(field errors <<<"$out")" = 0 ] && [ "$(field wrong_answers <<<"$out")" = 0 ] ||
      echo "$kind at $c connections: errors or wrong answers: $out" >&2
    preload=$(sed -n 's/^preloaded .* in \([0-9.]*\) s$/\1/p' "$work/bench.err")
    lines=$(grep -c '^\[' "$work/bench.err" || true)
    printf '%-10s %5s %8s %9s %12.0f %9.0f %9.3f %9.3f %9.3f %8s %8s\n' "$kind" "$c" "$n" "$preload" \
      "$(field heartbeat_entries_per_second <<<"$out")" "$(field throughput <<<"$out")" \
      "$(field p50 <<<"$out")" "$(field p99 <<<"$out")" "$(field p999 <<<"$out")" \
      "$(second 1 <"$work/bench.err")" "$(second "$lines" <"$work/bench.err")"
    if [ "$kind" = embedded ]; then stop; else stop_ha; fi
  done
done
