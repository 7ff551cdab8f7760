#!/usr/bin/env bash
# Durable writes and timestamps beside a real peer, on one disk, in one run:
#   - kandb-meta upsert-region against a fresh kandb-meta (every write
#     synced before it is answered), and tso;
#   - Redis SET with appendonly and appendfsync always (-P 1 -d 100, no
#     pipelining), and PING;
#   - the disk's grouped fdatasync limit: 100-byte appends whose writers
#     share each sync (bench/fsync_probe).
# for N = 1, 8 and 64 connections, interleaved in ROUNDS rounds (default 3);
# prints the medians and the medians of the same-round ratios, or JSON with
# --json. Installs redis-server and redis-tools from Debian when missing.
#
#   bench/peers.sh [--json] [BUILD_DIR]
set -euo pipefail
json=0
if [ "${1:-}" = "--json" ]; then json=1; shift; fi
build=${1:-build}
rounds=${ROUNDS:-3}
seconds=${SECONDS_PER_RUN:-2}
conns=(1 8 64)

. "$(dirname "$0")/redis_lib.sh"
ensure_redis
for f in "$build/app/kandb-meta" "$build/tools/kandb-meta-bench" "$build/bench/fsync_probe"; do
  [ -x "$f" ] || { echo "missing $f: build first (cmake --build $build)" >&2; exit 2; }
done

# Everything on the same disk: the directory the script is run from.
work=$(mktemp -d "$PWD/.peers.XXXXXX")
pids=()
trap 'for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT

free_port() { echo $((20000 + RANDOM % 20000)); }

kandb() {  # method conns -> requests per second against a fresh server
  local port out
  port=$(free_port)
  rm -rf "$work/kandb"
  "$build/app/kandb-meta" --bind_addr=127.0.0.1 --port="$port" --data_dir="$work/kandb" >"$work/kandb.out" 2>&1 &
  local pid=$!
  pids+=("$pid")
  for _ in $(seq 600); do grep -q listening "$work/kandb.out" 2>/dev/null && break; sleep 0.05; done
  out=$("$build/tools/kandb-meta-bench" --addr "127.0.0.1:$port" --method "$1" --conns "$2" \
    --duration "${seconds}s" --json 2>/dev/null || true)
  kill -9 "$pid"; wait "$pid" 2>/dev/null || true
  sed -n 's/.*"throughput": *\([0-9.]*\).*/\1/p' <<<"$out"
}

redis() {  # test conns -> requests per second against a fresh server
  local port requests
  port=$(free_port)
  rm -rf "$work/redis"; mkdir -p "$work/redis"
  redis-server --port "$port" --bind 127.0.0.1 --dir "$work/redis" --appendonly yes --appendfsync always \
    --save '' --daemonize no >"$work/redis.log" 2>&1 &
  local pid=$!
  pids+=("$pid")
  for _ in $(seq 600); do redis-cli -p "$port" ping >/dev/null 2>&1 && break; sleep 0.05; done
  # Enough requests for about $seconds at the rate of a short first run.
  requests=$(redis-benchmark -p "$port" -t "$1" -P 1 -d 100 -c "$2" -n $((200 * $2)) -r 100000 --csv 2>/dev/null |
    awk -F'"' 'NR == 2 {printf "%d", $4 * '"$seconds"'}')
  [ "$requests" -ge $((2 * $2)) ] || requests=$((2 * $2))
  redis-benchmark -p "$port" -t "$1" -P 1 -d 100 -c "$2" -n "$requests" -r 100000 --csv 2>/dev/null |
    awk -F'"' 'NR == 2 {print $4}'
  kill -9 "$pid"; wait "$pid" 2>/dev/null || true
}

median() { sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

declare -A col
for round in $(seq "$rounds"); do
  for n in "${conns[@]}"; do
    up=$(kandb upsert-region "$n"); set_=$(redis set "$n")
    probe=$("$build/bench/fsync_probe" "$work" "$n" "$seconds")
    tso=$(kandb tso "$n"); ping=$(redis ping_mbulk "$n")
    col[$n,up]+="$up "; col[$n,set]+="$set_ "; col[$n,probe]+="$probe "
    col[$n,tso]+="$tso "; col[$n,ping]+="$ping "
    col[$n,up_set]+="$(echo "$up / $set_" | bc -l) "
    col[$n,up_probe]+="$(echo "$up / $probe" | bc -l) "
    col[$n,tso_ping]+="$(echo "$tso / $ping" | bc -l) "
    [ "$json" = 1 ] || echo "round $round, $n connections: upsert $up/s, SET $set_/s, probe $probe/s, tso $tso/s, PING $ping/s" >&2
  done
done

m() { tr ' ' '\n' <<<"${col[$1,$2]}" | grep . | median; }
if [ "$json" = 1 ]; then
  printf '{"rounds": %d, "seconds": %s, "rows": [' "$rounds" "$seconds"
  sep=
  for n in "${conns[@]}"; do
    printf '%s{"connections": %d, "kandb_upsert": %.0f, "redis_set_always": %.0f, "fdatasync_limit": %.0f, "kandb_per_redis": %.2f, "kandb_per_limit": %.2f, "kandb_tso": %.0f, "redis_ping": %.0f, "tso_per_ping": %.2f}' \
      "$sep" "$n" "$(m "$n" up)" "$(m "$n" set)" "$(m "$n" probe)" "$(m "$n" up_set)" "$(m "$n" up_probe)" \
      "$(m "$n" tso)" "$(m "$n" ping)" "$(m "$n" tso_ping)"
    sep=", "
  done
  printf ']}\n'
else
  printf '%-6s %14s %16s %16s %8s %8s %12s %12s %8s\n' conns "kandb upsert" "redis SET always" "fdatasync limit" \
    kandb/rd kandb/lim "kandb tso" "redis PING" tso/ping
  for n in "${conns[@]}"; do
    printf '%-6s %14.0f %16.0f %16.0f %8.2f %8.2f %12.0f %12.0f %8.2f\n' "$n" "$(m "$n" up)" "$(m "$n" set)" \
      "$(m "$n" probe)" "$(m "$n" up_set)" "$(m "$n" up_probe)" "$(m "$n" tso)" "$(m "$n" ping)" "$(m "$n" tso_ping)"
  done
fi
