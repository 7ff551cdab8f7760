#!/usr/bin/env bash
# Timestamp latency on the event loop while the engine flushes and merges:
# a fresh kandb-meta takes upserts of large region records (64 KiB by
# default) on UPSERT_CONNS connections (8), enough to fill its 64 MiB write
# buffer every few hundred milliseconds and to merge its tables every few
# seconds, while one more connection calls Pd.Tso one at a time. Prints the
# probe's latency (p50, p99, p999, max), the upsert rate, and the flushes
# and compactions the server counted during the run, as one line of
# "key value" pairs per run; RUNS runs (default 3) on a fresh directory each.
#
#   bench/tso_under_flush.sh [BUILD_DIR] [SECONDS]
#
# KANDB_META names another server binary (an older build, say) to measure
# with the same tools. The state lives on the disk of the current directory.
set -euo pipefail
build=${1:-build}
seconds=${2:-20}
server=${KANDB_META:-$build/app/kandb-meta}
runs=${RUNS:-3}
upsert_conns=${UPSERT_CONNS:-8}
value_bytes=${VALUE_BYTES:-65536}
for f in "$server" "$build/tools/kandb-meta-bench" "$build/tools/kandb-meta-ctl"; do
  [ -x "$f" ] || { echo "missing $f: build first (cmake --build $build)" >&2; exit 2; }
done

work=$(mktemp -d "$PWD/.tso-under-flush.XXXXXX")
pids=()
trap 'for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT

engine_counter() {  # stats-json name -> the engine's counter of that name
  sed -n 's/^    "'"$2"'": *\([0-9]*\),*$/\1/p' <<<"$1"
}
latency() {  # bench-json name -> milliseconds
  sed -n 's/^    "'"$2"'": *\([0-9.]*\),*$/\1/p' <<<"$1"
}

for run in $(seq "$runs"); do
  port=$((20000 + RANDOM % 20000))
  rm -rf "$work/state"
  "$server" --bind_addr=127.0.0.1 --port="$port" --data_dir="$work/state" >"$work/server.out" 2>&1 &
  pid=$!
  pids+=("$pid")
  for _ in $(seq 600); do grep -q listening "$work/server.out" 2>/dev/null && break; sleep 0.05; done
  addr=127.0.0.1:$port
  # Bootstraps the cluster before the counters are read.
  "$build/tools/kandb-meta-bench" --addr "$addr" --method upsert-region --requests 1 >/dev/null
  before=$("$build/tools/kandb-meta-ctl" --addr "$addr" stats --json)
  "$build/tools/kandb-meta-bench" --addr "$addr" --method upsert-region --conns "$upsert_conns" \
    --value-bytes "$value_bytes" --duration "${seconds}s" --json >"$work/upserts.json" 2>/dev/null &
  load=$!
  probe=$("$build/tools/kandb-meta-bench" --addr "$addr" --method tso --conns 1 --duration "${seconds}s" \
    --json 2>/dev/null)
  wait "$load" || true
  after=$("$build/tools/kandb-meta-ctl" --addr "$addr" stats --json)
  kill -9 "$pid"; wait "$pid" 2>/dev/null || true
  upserts=$(sed -n 's/.*"throughput": *\([0-9.]*\).*/\1/p' "$work/upserts.json")
  printf 'run %d  tso p50 %s ms  p99 %s ms  p999 %s ms  max %s ms  tso/s %.0f  upserts/s %.0f  flushes %d  compactions %d\n' \
    "$run" "$(latency "$probe" p50)" "$(latency "$probe" p99)" "$(latency "$probe" p999)" "$(latency "$probe" max)" \
    "$(sed -n 's/.*"throughput": *\([0-9.]*\).*/\1/p' <<<"$probe")" "${upserts:-0}" \
    $(($(engine_counter "$after" flushes) - $(engine_counter "$before" flushes))) \
    $(($(engine_counter "$after" compactions) - $(engine_counter "$before" compactions)))
done
