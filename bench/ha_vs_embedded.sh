#!/usr/bin/env bash
# Throughput of the replicated server (leader of three kandb-meta-ha on a
# three-member etcd cluster) against the embedded kandb-meta, in the same
# run on the same machine: tso and alloc-id at 1 and 16 connections,
# upsert-region at 1, 16 and 64. Upserts are also set against etcd's own
# rate of fenced one-key transactions at the same concurrency
# (bench/etcd_txn_bench: one transaction per call, as an upsert without
# grouping would cost), measured on the same cluster just before.
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
# etcd's rate of fenced one-key transactions from N threads.
etcd_limit() {
  "$build/bench/etcd_txn_bench" --endpoints "$endpoints" --threads "$1" --seconds "$seconds" 2>/dev/null |
    sed -n 's/.*txns\/s \([0-9]*\).*/\1/p'
}
printf '%-14s %5s %14s %14s %7s %12s %8s\n' method conns embedded/s etcd-leader/s ratio etcd-txn/s vs-etcd
for row in "tso 1" "tso 16" "alloc-id 1" "alloc-id 16" "upsert-region 1" "upsert-region 16" "upsert-region 64"; do
  read -r method conns <<<"$row"
  limit=""
  [ "$method" = upsert-region ] && limit=$(etcd_limit "$conns")
  e=$(rate 127.0.0.1:24380 "$method" "$conns")
  h=$(rate "$ha" "$method" "$conns")
  printf '%-14s %5s %14.0f %14.0f %7s %12s %8s\n' "$method" "$conns" "${e:-0}" "${h:-0}" \
    "$(awk -v e="$e" -v h="$h" 'BEGIN { if (e > 0) printf "%.2f", h / e }')" "${limit:--}" \
    "$(awk -v l="$limit" -v h="$h" 'BEGIN { if (l > 0) printf "%.2f", h / l; else printf "-" }')"
done
