#!/usr/bin/env bash
# kandb-meta beside Redis on one machine and one disk, in one run, both
# driven by the same client: kandb-meta-bench (one thread, one epoll loop,
# non-blocking sockets; with --redis it speaks RESP to Redis), so that the
# ratios compare the servers and not two clients. Parts (PARTS, default all):
#
#   closed     one call in flight per connection, at 1, 8 and 64 connections,
#              each server fresh for each run:
#                - kandb-meta tso against Redis PING;
#                - kandb-meta upsert-region (every write synced before it is
#                  answered) against Redis SET key:NNNNNNNNNNNN of 100 bytes,
#                  random keys among 100,000, with appendonly yes and
#                  appendfsync always;
#                - the disk's grouped fdatasync limit: 100-byte appends whose
#                  writers share each sync (bench/fsync_probe).
#   pinned     the same with the server (and fsync_probe) on processor 0
#              (taskset -c 0) and the client on processor 1 (taskset -c 1).
#   pipelined  16 calls in flight per connection (--pipeline 16, as
#              redis-benchmark -P 16), at 1 and 64 connections: tso against
#              PING in calls a second, and each server's CPU time per call in
#              microseconds (user + system ticks from /proc/PID/stat before
#              and after the run, over the calls made).
#   idle       IDLE_CONNS (10,000) connections, each used for one call (tso,
#              PING) and then held idle: the resident memory (VmRSS) of
#              kandb-meta, of kandb-meta-ha (alone on a three-member etcd
#              cluster) and of Redis before, 1 s after the last connection
#              made its call, and after IDLE_SECONDS (default 15) of idleness,
#              by when a server that releases the buffers of idle connections
#              (Redis does, within about 10 s) has done so.
#
# closed, pinned and pipelined run interleaved in ROUNDS rounds (default 3)
# of SECONDS_PER_RUN seconds (default 2) each; the script prints the medians
# and the medians of the same-round ratios, or JSON with --json. Installs
# redis-server from Debian when missing. Every process started here is
# stopped by its own id.
#
#   [PARTS="closed pinned pipelined idle"] bench/peers.sh [--json] [BUILD_DIR]
set -euo pipefail
json=0
if [ "${1:-}" = "--json" ]; then json=1; shift; fi
build=${1:-build}
rounds=${ROUNDS:-3}
seconds=${SECONDS_PER_RUN:-2}
parts=${PARTS:-closed pinned pipelined idle}
idle_conns=${IDLE_CONNS:-10000}
idle_seconds=${IDLE_SECONDS:-15}
conns=(1 8 64)
pipelined_conns=(1 64)
window=16
bench="$build/tools/kandb-meta-bench"
has() { [[ " $parts " == *" $1 "* ]]; }

. "$(dirname "$0")/redis_lib.sh"
ensure_redis
needed=("$build/app/kandb-meta" "$bench" "$build/bench/fsync_probe")
has idle && needed+=("$build/app/kandb-meta-ha")
for f in "${needed[@]}"; do
  [ -x "$f" ] || { echo "missing $f: build first (cmake --build $build)" >&2; exit 2; }
done
if has idle; then command -v etcd >/dev/null || { echo "the idle part needs etcd (apt-get install etcd-server)" >&2; exit 2; }; fi
# Every held connection is a descriptor in the client and in the servers.
ulimit -n "$(ulimit -Hn)"
clk_tck=$(getconf CLK_TCK)

# Everything on the same disk: the directory the script is run from.
work=$(mktemp -d "$PWD/.peers.XXXXXX")
pids=()
cleanup() {
  for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

free_port() {  # a port nothing listens on now
  python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
# field NAME < json: the number after "NAME": in the bench's JSON report.
field() { sed -n "s/.*\"$1\": *\\([0-9.e+-]*\\).*/\\1/p" | head -1; }
median() { sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.4f", a / b; else print 0 }'; }
ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
rss_mb() { awk '/^VmRSS/ {printf "%.1f", $2 / 1024}' "/proc/$1/status"; }
stop() { kill -9 "$1" 2>/dev/null || true; wait "$1" 2>/dev/null || true; }

# Processor placement of the run at hand: empty, or taskset prefixes.
server_cpu=()
client_cpu=()

start_kandb() {  # a fresh kandb-meta; sets pid, port
  port=$(free_port)
  # The old output goes first: the new server's line must not be read from it.
  rm -rf "$work/kandb" "$work/kandb.out"
  "${server_cpu[@]}" "$build/app/kandb-meta" --bind_addr=127.0.0.1 --port="$port" --data_dir="$work/kandb" \
    >"$work/kandb.out" 2>&1 &
  pid=$!
  pids+=("$pid")
  for _ in $(seq 600); do grep -q listening "$work/kandb.out" 2>/dev/null && return 0; sleep 0.05; done
  echo "kandb-meta did not start: $(cat "$work/kandb.out")" >&2
  exit 1
}

start_redis() {  # a fresh redis-server, every write appended and synced; sets pid, port
  port=$(free_port)
  rm -rf "$work/redis"
  mkdir -p "$work/redis"
  "${server_cpu[@]}" redis-server --port "$port" --bind 127.0.0.1 --dir "$work/redis" --appendonly yes \
    --appendfsync always --save '' --maxclients $((idle_conns + 100)) --daemonize no >"$work/redis.log" 2>&1 &
  pid=$!
  pids+=("$pid")
  for _ in $(seq 600); do redis-cli -p "$port" ping >/dev/null 2>&1 && return 0; sleep 0.05; done
  echo "redis-server did not start: $(cat "$work/redis.log")" >&2
  exit 1
}

# run SERVER METHOD CONNS [bench flags...]: a run against a fresh server;
# sets out (the bench's JSON report), rate (calls a second) and cpu_us (the
# server's CPU time per call).
run() {
  local server=$1 method=$2 n=$3 before
  shift 3
  local flags=(--method "$method" --conns "$n" --duration "${seconds}s" --json "$@")
  if [ "$server" = redis ]; then start_redis; flags+=(--redis); else start_kandb; fi
  before=$(ticks "$pid")
  out=$("${client_cpu[@]}" "$bench" --addr "127.0.0.1:$port" "${flags[@]}" 2>"$work/bench.err" || true)
  cpu_us=$(awk -v t="$(($(ticks "$pid") - before))" -v hz="$clk_tck" -v n="$(field requests <<<"$out")" \
    'BEGIN { if (n > 0) printf "%.2f", t / hz * 1e6 / n; else print 0 }')
  stop "$pid"
  [ "$(field errors <<<"$out")" = 0 ] || echo "$server $method $n: $(tr -d '\n' <<<"$out") $(tail -2 "$work/bench.err")" >&2
  rate=$(field throughput <<<"$out")
}

declare -A col
m() { tr ' ' '\n' <<<"${col[$1]}" | grep . | median; }

closed_round() {  # PART ROUND: one round of the closed loop, under the part's placement
  local part=$1 round=$2 n up set_ probe tso ping
  for n in "${conns[@]}"; do
    run kandb upsert-region "$n"; up=$rate
    run redis set "$n"; set_=$rate
    probe=$("${server_cpu[@]}" "$build/bench/fsync_probe" "$work" "$n" "$seconds")
    run kandb tso "$n"; tso=$rate
    run redis ping "$n"; ping=$rate
    col[$part,$n,up]+="$up "; col[$part,$n,set]+="$set_ "; col[$part,$n,probe]+="$probe "
    col[$part,$n,tso]+="$tso "; col[$part,$n,ping]+="$ping "
    col[$part,$n,up_set]+="$(ratio "$up" "$set_") "
    col[$part,$n,up_probe]+="$(ratio "$up" "$probe") "
    col[$part,$n,tso_ping]+="$(ratio "$tso" "$ping") "
    [ "$json" = 1 ] || printf '%s round %d, %d connections: upsert %.0f/s, SET %.0f/s, probe %.0f/s, tso %.0f/s, PING %.0f/s\n' \
      "$part" "$round" "$n" "$up" "$set_" "$probe" "$tso" "$ping" >&2
  done
}

pipelined_round() {  # ROUND
  local n tso ping tso_cpu
  for n in "${pipelined_conns[@]}"; do
    run kandb tso "$n" --pipeline "$window"; tso=$rate; tso_cpu=$cpu_us
    run redis ping "$n" --pipeline "$window"; ping=$rate
    col[pipe,$n,tso]+="$tso "; col[pipe,$n,ping]+="$ping "
    col[pipe,$n,tso_ping]+="$(ratio "$tso" "$ping") "
    col[pipe,$n,tso_cpu]+="$tso_cpu "; col[pipe,$n,ping_cpu]+="$cpu_us "
    [ "$json" = 1 ] || printf 'pipelined round %d, %d connections: tso %.0f/s (%s us CPU a call), PING %.0f/s (%s us)\n' \
      "$1" "$n" "$tso" "$tso_cpu" "$ping" "$cpu_us" >&2
  done
}

for round in $(seq "$rounds"); do
  if has closed; then server_cpu=(); client_cpu=(); closed_round closed "$round"; fi
  if has pinned; then server_cpu=(taskset -c 0); client_cpu=(taskset -c 1); closed_round pinned "$round"; fi
  if has pipelined; then server_cpu=(); client_cpu=(); pipelined_round "$round"; fi
done

# hold NAME PID ADDR [bench flags...]: VmRSS of PID before and while
# idle_conns connections are held on it; sets idle[NAME,before|connected|held].
declare -A idle
hold() {
  local name=$1 server=$2 addr=$3 client fds base
  shift 3
  idle[$name,before]=$(rss_mb "$server")
  base=$(find "/proc/$server/fd" -mindepth 1 -maxdepth 1 | wc -l)
  "$bench" --addr "$addr" --method idle --conns "$idle_conns" --duration 600s --timeout-ms 30000 "$@" \
    >"$work/idle.out" 2>"$work/idle.err" &
  client=$!
  pids+=("$client")
  # Held once every connection made its call: the server holds a
  # descriptor for each; then a moment for its loop to settle.
  for _ in $(seq 1200); do
    fds=$(find "/proc/$server/fd" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l)
    [ "$fds" -ge $((base + idle_conns)) ] && break
    kill -0 "$client" 2>/dev/null || break
    sleep 0.1
  done
  sleep 1
  idle[$name,connected]=$(rss_mb "$server")
  sleep $((idle_seconds > 1 ? idle_seconds - 1 : 0))
  idle[$name,held]=$(rss_mb "$server")
  [ "$fds" -ge $((base + idle_conns)) ] || echo "$name: only $fds descriptors open: $(tail -3 "$work/idle.err")" >&2
  stop "$client"
}

if has idle; then
  server_cpu=()
  start_kandb
  kandb_pid=$pid
  hold kandb-meta "$kandb_pid" "127.0.0.1:$port"
  stop "$kandb_pid"

  . "$(dirname "$0")/etcd_lib.sh"
  # Ports PREFIX0..2 for clients, (PREFIX+1)0..2 for peers: below the
  # ephemeral range, where the connections of the runs before may hold one.
  prefix=$((1000 + RANDOM % 2200))
  etcd_cluster "$work/etcd" "$prefix" $((prefix + 1))
  port=$(free_port)
  "$build/app/kandb-meta-ha" --bind_addr 127.0.0.1 --port "$port" --etcd "$endpoints" \
    >"$work/ha.out" 2>"$work/ha.err" &
  ha_pid=$!
  pids+=("$ha_pid")
  # Ready once the bench itself gets through its setup and a call: a leader
  # that has just won may still wait out its predecessor's window.
  for _ in $(seq 300); do
    "$bench" --addr "127.0.0.1:$port" --method tso --requests 1 >/dev/null 2>&1 && break
    sleep 0.2
  done
  hold kandb-meta-ha "$ha_pid" "127.0.0.1:$port"
  stop "$ha_pid"

  start_redis
  redis_pid=$pid
  hold redis "$redis_pid" "127.0.0.1:$port" --redis
  stop "$redis_pid"
fi

rows() {  # PART: the closed-loop rows as JSON
  local sep= n
  for n in "${conns[@]}"; do
    printf '%s{"connections": %d, "kandb_upsert": %.0f, "redis_set_always": %.0f, "fdatasync_limit": %.0f, "kandb_per_redis": %.2f, "kandb_per_limit": %.2f, "kandb_tso": %.0f, "redis_ping": %.0f, "tso_per_ping": %.2f}' \
      "$sep" "$n" "$(m "$1,$n,up")" "$(m "$1,$n,set")" "$(m "$1,$n,probe")" "$(m "$1,$n,up_set")" \
      "$(m "$1,$n,up_probe")" "$(m "$1,$n,tso")" "$(m "$1,$n,ping")" "$(m "$1,$n,tso_ping")"
    sep=", "
  done
}
table() {  # PART TITLE: the closed-loop rows as text
  echo "$2"
  printf '%-6s %14s %16s %16s %8s %8s %12s %12s %8s\n' conns "kandb upsert" "redis SET always" "fdatasync limit" \
    kandb/rd kandb/lim "kandb tso" "redis PING" tso/ping
  for n in "${conns[@]}"; do
    printf '%-6s %14.0f %16.0f %16.0f %8.2f %8.2f %12.0f %12.0f %8.2f\n' "$n" "$(m "$1,$n,up")" "$(m "$1,$n,set")" \
      "$(m "$1,$n,probe")" "$(m "$1,$n,up_set")" "$(m "$1,$n,up_probe")" "$(m "$1,$n,tso")" "$(m "$1,$n,ping")" \
      "$(m "$1,$n,tso_ping")"
  done
}
idle_names=(kandb-meta kandb-meta-ha redis)

if [ "$json" = 1 ]; then
  printf '{"client": "kandb-meta-bench", "rounds": %d, "seconds": %s' "$rounds" "$seconds"
  has closed && printf ', "closed": {"rows": [%s]}' "$(rows closed)"
  has pinned && printf ', "pinned": {"server_cpu": 0, "client_cpu": 1, "rows": [%s]}' "$(rows pinned)"
  if has pipelined; then
    printf ', "pipelined": {"pipeline": %d, "rows": [' "$window"
    sep=
    for n in "${pipelined_conns[@]}"; do
      printf '%s{"connections": %d, "kandb_tso": %.0f, "redis_ping": %.0f, "tso_per_ping": %.2f, "kandb_cpu_us_per_call": %.2f, "redis_cpu_us_per_call": %.2f}' \
        "$sep" "$n" "$(m "pipe,$n,tso")" "$(m "pipe,$n,ping")" "$(m "pipe,$n,tso_ping")" "$(m "pipe,$n,tso_cpu")" \
        "$(m "pipe,$n,ping_cpu")"
      sep=", "
    done
    printf ']}'
  fi
  if has idle; then
    printf ', "idle": {"connections": %d, "idle_seconds": %d' "$idle_conns" "$idle_seconds"
    for name in "${idle_names[@]}"; do
      printf ', "%s_mb_before": %s, "%s_mb_connected": %s, "%s_mb_held": %s' "${name//-/_}" \
        "${idle[$name,before]}" "${name//-/_}" "${idle[$name,connected]}" "${name//-/_}" "${idle[$name,held]}"
    done
    printf '}'
  fi
  printf '}\n'
else
  echo "client: kandb-meta-bench for both servers; $rounds round(s) of ${seconds} s; medians"
  has closed && table closed "closed loop, one call in flight per connection, unpinned:"
  has pinned && table pinned "closed loop, server on processor 0, client on processor 1:"
  if has pipelined; then
    echo "pipelined, $window calls in flight per connection (CPU: the server's user + system time per call):"
    printf '%-6s %12s %12s %8s %16s %16s\n' conns "kandb tso" "redis PING" tso/ping "kandb CPU us" "redis CPU us"
    for n in "${pipelined_conns[@]}"; do
      printf '%-6s %12.0f %12.0f %8.2f %16.2f %16.2f\n' "$n" "$(m "pipe,$n,tso")" "$(m "pipe,$n,ping")" \
        "$(m "pipe,$n,tso_ping")" "$(m "pipe,$n,tso_cpu")" "$(m "pipe,$n,ping_cpu")"
    done
  fi
  if has idle; then
    echo "$idle_conns idle connections, resident memory (VmRSS) before, 1 s after connecting, after ${idle_seconds} s idle:"
    printf '%-14s %12s %14s %12s\n' server "before MB" "connected MB" "held MB"
    for name in "${idle_names[@]}"; do
      printf '%-14s %12s %14s %12s\n' "$name" "${idle[$name,before]}" "${idle[$name,connected]}" "${idle[$name,held]}"
    done
  fi
fi
