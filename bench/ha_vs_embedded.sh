#!/usr/bin/env bash
# Throughput of the replicated server (leader of three kandb-meta-ha on a
# three-member etcd cluster) against the embedded kandb-meta, in the same
# run on the same machine: tso and upsert-region at 1 and 16 connections.
#
#   bench/ha_vs_embedded.sh [BUILD_DIR] [SECONDS]
#
# Everything runs on 127.0.0.1 on fixed ports 23xxx/24xxx, in a scratch
# directory that is removed at the end; every process started here is
# stopped by its own id.
set -euo pipefail
build=${1:-build}
seconds=${2:-5}
work=$(mktemp -d /tmp/kandb-ha-bench.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -9 "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

. "$(dirname "$0")/etcd_lib.sh"
etcd_cluster "$work" 2337 2338
for i in 0 1 2; do
  "$build/app/kandb-meta-ha" --bind_addr 127.0.0.1 --port 2439$i --etcd "$endpoints" \
    >"$work/ha$i.out" 2>"$work/ha$i.err" &
  pids+=($!)
done
"$build/app/kandb-meta" --bind_addr 127.0.0.1 --port 24380 --data_dir "$work/embedded" \
  >"$work/embedded.out" 2>&1 &
pids+=($!)
ha=127.0.0.1:24390,127.0.0.1:24391,127.0.0.1:24392
for _ in $(seq 1 100); do
  "$build/tools/kandb-meta-ctl" tso --addr "$ha" >/dev/null 2>&1 && break
  sleep 0.2
done

rate() {
  "$build/tools/kandb-meta-bench" --addr "$1" --method "$2" --conns "$3" --duration "${seconds}s" \
    --json 2>/dev/null | sed -n 's/.*"throughput": *\([0-9.]*\).*/\1/p' | head -1
}
printf '%-14s %5s %14s %14s %7s\n' method conns embedded/s etcd-leader/s ratio
for method in tso upsert-region; do
  for conns in 1 16; do
    e=$(rate 127.0.0.1:24380 "$method" "$conns")
    h=$(rate "$ha" "$method" "$conns")
    printf '%-14s %5s %14s %14s %7s\n' "$method" "$conns" "$e" "$h" \
      "$(awk -v e="$e" -v h="$h" 'BEGIN { if (e > 0) printf "%.2f", h / e }')"
  done
done
