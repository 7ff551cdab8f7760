#!/usr/bin/env bash
# Repair across a takeover, against the replicated server: three etcd
# members and three kandb-meta-ha, kandb-meta-sim with STORES stores in 3
# zones holding REGIONS regions of 10 MiB; a store is killed 20 s in, and
# the leading server 10 s later, while the replacements are under way.
# Prints the simulator's summary: the time until every region is back at
# 3 replicas on serving stores, the fewest live members any region had,
# regions sharing a zone, replicas placed on the dead store, replicas
# added then removed, and members told to destroy their replica.
#
#   bench/takeover_repair.sh [BUILD_DIR] [REGIONS] [STORES]   (defaults: build 2000 6)
set -euo pipefail
build=${1:-build}
regions=${2:-2000}
stores=${3:-6}
work=$(mktemp -d)
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT
. "$(dirname "$0")/etcd_lib.sh"
etcd_cluster "$work/etcd" 2357 2358
declare -A by_port
for i in 0 1 2; do
  "$build/app/kandb-meta-ha" --bind_addr 127.0.0.1 --port 2459$i --etcd "$endpoints" --cluster takeover \
    --target_replicas=3 --location_labels=zone,host --max_store_down_time=10s --store_limit=6000 \
    >"$work/ha$i.out" 2>"$work/ha$i.err" &
  pids+=($!)
  by_port[2459$i]=$!
done
ha=127.0.0.1:24590,127.0.0.1:24591,127.0.0.1:24592
for _ in $(seq 1 150); do "$build/tools/kandb-meta-ctl" tso --addr "$ha" >/dev/null 2>&1 && break; sleep 0.2; done
"$build/tools/kandb-meta-sim" --addr "$ha" --stores "$stores" --zones 3 --regions "$regions" --region-size-mb 10 \
  --region-heartbeat-ms 2000 --events kill:4@20s --duration-s 600 --progress-ms 0 --json \
  >"$work/sim.json" 2>"$work/sim.err" &
sim=$!
# The events count from the end of the simulator's setup.
for _ in $(seq 1 1200); do grep -q "setup took" "$work/sim.err" && break; sleep 0.1; done
sleep 30
leader=$(ETCDCTL_API=3 etcdctl --endpoints="$endpoints" get kandb/takeover/leader --print-value-only)
kill -9 "${by_port[${leader##*:}]}"
echo "killed the leading server $leader 10 s after the store" >&2
wait "$sim" || { echo "simulation failed: $(tail -3 "$work/sim.err")" >&2; exit 1; }
python3 - "$work/sim.json" <<'PY'
import json, sys
s = json.load(open(sys.argv[1]))
print("repaired %.1f s after the store's kill  fewest live members %d  regions sharing a zone %d  placed on the dead "
      "store %d  added then removed %d  members told to destroy their replica %d  healthy %s" % (
    s["repair_ms"] / 1000.0, s["min_live_members"], s["regions_shared_zone"], s["placed_on_dead"],
    s["peers_added_then_removed"], s["destroyed_members"], s["ended_healthy"]))
PY
