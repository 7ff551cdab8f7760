#!/usr/bin/env bash
# The wait of a lone Pd.Tso caller while one connection streams frames of
# each kind at the server (see bench/loop_fairness_bench.cc). Every kind
# runs against a fresh server on a fresh state directory and port.
#
#   bench/loop_fairness.sh [BUILD_DIR] [KINDS...]
#
# BUILD_DIR defaults to build; KINDS to every kind. SERVER=path runs
# another kandb-meta binary with this build's benchmark (to compare two
# builds); SECONDS_PER_KIND (default 5) and BULK_MIB (default 1280) size
# the runs.
set -euo pipefail
build=${1:-build}
shift || true
kinds=("$@")
[ ${#kinds[@]} -gt 0 ] || kinds=(idle tso undecodable-upsert empty-upsert upsert bulk-upsert)
server=${SERVER:-$build/app/kandb-meta}
bench=$build/bench/loop_fairness_bench
work=$(mktemp -d)
pid=
trap '[ -n "$pid" ] && kill -9 $pid 2>/dev/null; rm -rf "$work"' EXIT

start() {  # a server on $work/state; sets pid, port
  for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 20000))
    rm -f "$work/out"
    "$server" --bind_addr=127.0.0.1 --port=$port --data_dir="$work/state" >"$work/out" 2>"$work/err" &
    pid=$!
    for _ in $(seq 1200); do
      grep -q listening "$work/out" 2>/dev/null && return 0
      kill -0 $pid 2>/dev/null || break
      sleep 0.05
    done
    grep -q "Address already in use" "$work/err" || break
  done
  echo "server did not start: $(cat "$work/err")" >&2
  exit 1
}
stop() { kill -9 $pid; wait $pid 2>/dev/null || true; pid=; }

header=--header
for kind in "${kinds[@]}"; do
  rm -rf "$work/state"
  start
  "$bench" --addr=127.0.0.1:$port --kind="$kind" --seconds="${SECONDS_PER_KIND:-5}" \
    --bulk-mib="${BULK_MIB:-1280}" $header
  header=
  stop
done
