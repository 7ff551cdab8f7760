#!/usr/bin/env bash
# What TLS on the RPC port costs, beside a real peer that speaks TLS too, in
# one run. Certificates are made here with the openssl command (EC P-256: a
# CA, the server's for 127.0.0.1 and localhost, a client's named "bench"),
# and both servers demand the client certificate. For N = 1, 8 and 64
# connections, each figure against a fresh server:
#   - kandb-meta tso and durable upsert-region (every write synced before
#     it is answered), over TLS and plain;
#   - Redis PING and SET (appendonly, appendfsync always; -P 1 -d 100),
#     over TLS (--tls-port, --port 0, --tls-auth-clients yes) and plain;
#   - new TLS connections a second, each a full handshake, one call and a
#     close: kandb-meta-bench --reconnect against redis-benchmark -k 0 PING.
# Interleaved in ROUNDS rounds (default 1) of SECONDS_PER_RUN seconds each
# (default 3); prints the medians and the medians of the same-round ratios,
# or JSON with --json. Installs redis-server and redis-tools from Debian
# when missing. Both load generators drive all their connections from one
# thread.
#
#   bench/tls_peers.sh [--json] [BUILD_DIR]
set -euo pipefail
json=0
if [ "${1:-}" = "--json" ]; then json=1; shift; fi
build=${1:-build}
rounds=${ROUNDS:-1}
seconds=${SECONDS_PER_RUN:-3}
conns=(1 8 64)

. "$(dirname "$0")/redis_lib.sh"
ensure_redis
command -v openssl >/dev/null || { echo "the openssl command is missing (apt-get install openssl)" >&2; exit 2; }
for f in "$build/app/kandb-meta" "$build/tools/kandb-meta-bench"; do
  [ -x "$f" ] || { echo "missing $f: build first (cmake --build $build)" >&2; exit 2; }
done

# Everything on the same disk: the directory the script is run from.
work=$(mktemp -d "$PWD/.tls-peers.XXXXXX")
pids=()
trap 'for p in "${pids[@]}"; do kill -9 "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT

pki=$work/pki
mkdir -p "$pki"
newkey=(-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes)
openssl req -x509 "${newkey[@]}" -keyout "$pki/ca.key" -out "$pki/ca.pem" -subj /CN=tls-peers-ca -days 2 2>/dev/null
issue() {  # file-name common-name extensions serial
  printf '%b' "$3" >"$pki/$1.ext"
  openssl req "${newkey[@]}" -keyout "$pki/$1.key" -out "$pki/$1.csr" -subj "/CN=$2" 2>/dev/null
  openssl x509 -req -in "$pki/$1.csr" -CA "$pki/ca.pem" -CAkey "$pki/ca.key" -set_serial "$4" -days 2 \
    -extfile "$pki/$1.ext" -out "$pki/$1.pem" 2>/dev/null
}
issue server kandb-meta 'basicConstraints=CA:FALSE\nsubjectAltName=DNS:localhost,IP:127.0.0.1\n' 1
issue client bench 'basicConstraints=CA:FALSE\n' 2

free_port() { echo $((20000 + RANDOM % 20000)); }

# Starts a program that logs `ready` once it serves, on a free port: the
# command is given with @PORT@ where the port goes. Another port is tried when
# the one picked was taken meanwhile. Sets pid and port.
start() {  # ready log command...
  local ready=$1 log=$2; shift 2
  for _ in 1 2 3 4 5; do
    port=$(free_port)
    "${@//@PORT@/$port}" >"$log" 2>&1 &
    pid=$!
    pids+=("$pid")
    for _ in $(seq 600); do
      grep -q "$ready" "$log" 2>/dev/null && return 0
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.05
    done
    kill -9 "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
    grep -q "Address already in use" "$log" || break
  done
  echo "$1 did not start: $(cat "$log")" >&2
  exit 1
}
stop() { kill -9 "$pid"; wait "$pid" 2>/dev/null || true; }

kandb() {  # tls|plain method conns [bench options...] -> calls a second against a fresh server
  local mode=$1 method=$2 n=$3 out errors
  shift 3
  local server_tls=() bench_tls=()
  if [ "$mode" = tls ]; then
    server_tls=(--tls_cert="$pki/server.pem" --tls_key="$pki/server.key" --tls_ca="$pki/ca.pem" --tls_allowed_cn=bench)
    bench_tls=(--tls-cert "$pki/client.pem" --tls-key "$pki/client.key" --tls-ca "$pki/ca.pem")
  fi
  rm -rf "$work/kandb"
  start listening "$work/kandb.out" "$build/app/kandb-meta" --bind_addr=127.0.0.1 --port=@PORT@ \
    --data_dir="$work/kandb" "${server_tls[@]}"
  out=$("$build/tools/kandb-meta-bench" --addr "127.0.0.1:$port" --method "$method" --conns "$n" \
    --duration "${seconds}s" --json "${bench_tls[@]}" "$@" 2>/dev/null || true)
  stop
  errors=$(sed -n 's/^  "errors": *\([0-9]*\).*/\1/p' <<<"$out")
  [ "${errors:-1}" = 0 ] || echo "kandb-meta $mode $method $n $*: ${errors:-no report} errors" >&2
  sed -n 's/.*"throughput": *\([0-9.]*\).*/\1/p' <<<"$out"
}

redis() {  # tls|plain test conns probe-requests [redis-benchmark options...] -> requests a second
  local mode=$1 test=$2 n=$3 probe=$4 requests
  shift 4
  local server=(--port @PORT@) client=()
  if [ "$mode" = tls ]; then
    server=(--port 0 --tls-port @PORT@ --tls-cert-file "$pki/server.pem" --tls-key-file "$pki/server.key"
      --tls-ca-cert-file "$pki/ca.pem" --tls-auth-clients yes)
    client=(--tls --cert "$pki/client.pem" --key "$pki/client.key" --cacert "$pki/ca.pem")
  fi
  [ "$test" = set ] && server+=(--appendonly yes --appendfsync always)
  rm -rf "$work/redis"; mkdir -p "$work/redis"
  start "Ready to accept connections" "$work/redis.log" redis-server --bind 127.0.0.1 --dir "$work/redis" \
    --save '' --daemonize no "${server[@]}"
  client+=(-h 127.0.0.1 -p "$port" -t "$test" -P 1 -d 100 -c "$n" -r 100000 --csv "$@")
  # Enough requests for about $seconds at the rate of a short first run.
  requests=$(redis-benchmark "${client[@]}" -n "$probe" 2>/dev/null |
    awk -F'"' 'NR == 2 {printf "%d", $4 * '"$seconds"'}')
  [ "${requests:-0}" -ge $((2 * n)) ] || requests=$((2 * n))
  redis-benchmark "${client[@]}" -n "$requests" 2>/dev/null | awk -F'"' 'NR == 2 {print $4}'
  stop
}

median() { sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
ratio() { awk -v a="${1:-0}" -v b="${2:-0}" 'BEGIN {print (b > 0 ? a / b : 0)}'; }

declare -A col
for round in $(seq "$rounds"); do
  for n in "${conns[@]}"; do
    tso_tls=$(kandb tls tso "$n"); ping_tls=$(redis tls ping_mbulk "$n" $((200 * n)))
    tso=$(kandb plain tso "$n"); ping=$(redis plain ping_mbulk "$n" $((200 * n)))
    up_tls=$(kandb tls upsert-region "$n"); set_tls=$(redis tls set "$n" $((100 * n)))
    up=$(kandb plain upsert-region "$n"); set_=$(redis plain set "$n" $((100 * n)))
    new=$(kandb tls tso "$n" --reconnect); new_redis=$(redis tls ping_mbulk "$n" $((10 * n + 50)) -k 0)
    for k in tso_tls ping_tls tso ping up_tls set_tls up set_ new new_redis; do col[$n,$k]+="${!k:-0} "; done
    col[$n,tso_r]+="$(ratio "$tso_tls" "$tso") "
    col[$n,tso_ping_r]+="$(ratio "$tso_tls" "$ping_tls") "
    col[$n,up_r]+="$(ratio "$up_tls" "$up") "
    col[$n,up_set_r]+="$(ratio "$up_tls" "$set_tls") "
    col[$n,new_r]+="$(ratio "$new" "$new_redis") "
    [ "$json" = 1 ] || echo "round $round, $n connections: tso TLS $tso_tls/s plain $tso/s; PING TLS $ping_tls/s plain $ping/s;" \
      "upsert TLS $up_tls/s plain $up/s; SET TLS $set_tls/s plain $set_/s; new TLS connections $new/s, Redis $new_redis/s" >&2
  done
done

m() { tr ' ' '\n' <<<"${col[$1,$2]}" | grep . | median; }
if [ "$json" = 1 ]; then
  printf '{"rounds": %d, "seconds": %s, "rows": [' "$rounds" "$seconds"
  sep=
  for n in "${conns[@]}"; do
    printf '%s{"connections": %d, "kandb_tso_tls": %.0f, "kandb_tso": %.0f, "redis_ping_tls": %.0f, "redis_ping": %.0f, "tso_tls_per_plain": %.2f, "tso_tls_per_ping_tls": %.2f, "kandb_upsert_tls": %.0f, "kandb_upsert": %.0f, "redis_set_tls": %.0f, "redis_set": %.0f, "upsert_tls_per_plain": %.2f, "upsert_tls_per_set_tls": %.2f, "kandb_new_tls_connections": %.0f, "redis_new_tls_connections": %.0f, "new_connections_per_redis": %.2f}' \
      "$sep" "$n" "$(m "$n" tso_tls)" "$(m "$n" tso)" "$(m "$n" ping_tls)" "$(m "$n" ping)" "$(m "$n" tso_r)" \
      "$(m "$n" tso_ping_r)" "$(m "$n" up_tls)" "$(m "$n" up)" "$(m "$n" set_tls)" "$(m "$n" set_)" \
      "$(m "$n" up_r)" "$(m "$n" up_set_r)" "$(m "$n" new)" "$(m "$n" new_redis)" "$(m "$n" new_r)"
    sep=", "
  done
  printf ']}\n'
else
  echo "calls a second on kept connections (tso beside Redis PING):"
  printf '%-6s %10s %10s %9s %11s %11s %13s\n' conns "tso TLS" "tso plain" TLS/plain "PING TLS" "PING plain" tsoTLS/PINGTLS
  for n in "${conns[@]}"; do
    printf '%-6s %10.0f %10.0f %9.2f %11.0f %11.0f %13.2f\n' "$n" "$(m "$n" tso_tls)" "$(m "$n" tso)" \
      "$(m "$n" tso_r)" "$(m "$n" ping_tls)" "$(m "$n" ping)" "$(m "$n" tso_ping_r)"
  done
  echo "durable writes a second (upsert-region beside Redis SET, appendfsync always):"
  printf '%-6s %10s %12s %9s %10s %10s %13s\n' conns "upsert TLS" "upsert plain" TLS/plain "SET TLS" "SET plain" upTLS/SETTLS
  for n in "${conns[@]}"; do
    printf '%-6s %10.0f %12.0f %9.2f %10.0f %10.0f %13.2f\n' "$n" "$(m "$n" up_tls)" "$(m "$n" up)" \
      "$(m "$n" up_r)" "$(m "$n" set_tls)" "$(m "$n" set_)" "$(m "$n" up_set_r)"
  done
  echo "new TLS connections a second (connect, full handshake, one call, close):"
  printf '%-6s %10s %10s %10s\n' conns kandb-meta Redis kandb/Redis
  for n in "${conns[@]}"; do
    printf '%-6s %10.0f %10.0f %10.2f\n' "$n" "$(m "$n" new)" "$(m "$n" new_redis)" "$(m "$n" new_r)"
  done
fi
