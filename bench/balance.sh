#!/usr/bin/env bash
# Balance after adding empty stores, against both servers: kandb-meta-sim
# sets up STORES stores in 3 zones holding REGIONS regions of 3 replicas,
# adds 6 empty stores 5 s in, and runs until no replica or leader has moved
# for three heartbeat intervals. Prints the figures of each run: how long it
# took to settle, replicas and leaders per store (max/min), the moves, the
# share of replicas moved more than once, and the fewest live members any
# region had on the way.
#
#   bench/balance.sh [BUILD_DIR] [REGIONS] [STORES]   (defaults: build 100000 30)
#
# The servers run with --store_limit=6000 (100 changes a second per store)
# so that the run takes a minute rather than hours; snapshots take 50 ms
# and a store receives 16 at once.
set -euo pipefail
build=${1:-build}
regions=${2:-100000}
stores=${3:-30}
work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
. "$(dirname "$0")/etcd_lib.sh"
flags=(--target_replicas=3 --location_labels=zone,host --store_limit=6000)

run_sim() {  # ADDR NAME
  "$build/tools/kandb-meta-sim" --addr "$1" --stores "$stores" --zones 3 --regions "$regions" \
    --events add:6@5s --region-heartbeat-ms 2000 --store-heartbeat-ms 1000 --snapshot-ms 50 \
    --snapshot-concurrency 16 --duration-s 1800 --progress-ms 0 --timeout-ms 120000 --json \
    >"$work/$2.json" 2>"$work/$2.err" || { echo "$2: simulation failed: $(tail -3 "$work/$2.err")" >&2; exit 1; }
  python3 - "$work/$2.json" "$2" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))
moves = s["adds_completed"]
twice = s["peers_added_then_removed"]
print("%-9s settled %6.1f s  replicas max/min %.3f  leaders max/min %.3f  moves %d  moved twice %d (%.2f%%)"
      "  transfers %d  fewest live members %d  healthy %s" % (
    sys.argv[2], s["settle_ms"] / 1000.0, s["replicas_per_store"]["ratio"], s["leaders_per_store"]["ratio"],
    moves, twice, 100.0 * twice / max(1, moves), s["commands"]["transfer-leader"], s["min_live_members"],
    s["ended_healthy"]))
PY
}

wait_for() {  # ADDR
  for _ in $(seq 1 100); do
    "$build/tools/kandb-meta-ctl" tso --addr "$1" >/dev/null 2>&1 && return 0
    sleep 0.2
  done
  echo "no server at $1" >&2
  exit 1
}

"$build/app/kandb-meta" --bind_addr 127.0.0.1 --port 24480 --data_dir "$work/embedded" "${flags[@]}" \
  >"$work/embedded.out" 2>&1 &
pids+=($!)
wait_for 127.0.0.1:24480
run_sim 127.0.0.1:24480 embedded
kill "${pids[-1]}"

etcd_cluster "$work/etcd" 2347 2348
for i in 0 1 2; do
  "$build/app/kandb-meta-ha" --bind_addr 127.0.0.1 --port 2449$i --etcd "$endpoints" "${flags[@]}" \
    >"$work/ha$i.out" 2>"$work/ha$i.err" &
  pids+=($!)
done
ha=127.0.0.1:24490,127.0.0.1:24491,127.0.0.1:24492
wait_for "$ha"
run_sim "$ha" replicated
