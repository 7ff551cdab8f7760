#!/usr/bin/env bash
# What the HTTP status port costs the RPC port. One kandb-meta with
# --status_addr; timestamps (kandb-meta-bench --method tso, CONNS
# connections, 16 by default) for SECONDS_PER_RUN seconds (5) under three
# conditions, alternating in ROUNDS rounds (3):
#   (a) nobody reads the status port;
#   (b) a real Prometheus scrapes /metrics every second (started for the
#       run, and the run begins once it has scraped);
#   (c) two curl clients ask /health and /metrics at HTTP_RATE requests per
#       second in all (50 by default: half each, one request at a time,
#       kept-alive connections), far more often than any scraper would.
# Prometheus and curl run on the same machine as the server and the load
# generator: their own CPU is part of what (b) and (c) cost.
#
# Prints the median tso/s of each condition, the median of the same-round
# ratios to (a) and the CPU the reader itself took (Prometheus's or the
# curl clients', in percent of one core over the run); then the size of one /metrics answer and the
# server's CPU time per /metrics and per /health request, from
# /proc/PID/stat over many sequential requests on an otherwise idle server.
#
#   bench/status_scrape.sh [BUILD_DIR]     (BUILD_DIR: $BUILD, else build-rel)
#
# Builds nothing: needs kandb-meta and kandb-meta-bench built in BUILD_DIR,
# Debian's prometheus (PROMETHEUS names another binary) and curl.
set -euo pipefail
build=${1:-${BUILD:-build-rel}}
rounds=${ROUNDS:-3}
seconds=${SECONDS_PER_RUN:-5}
conns=${CONNS:-16}
http_rate=${HTTP_RATE:-50}
cost_requests=${COST_REQUESTS:-2000}
server=$build/app/kandb-meta
bench=$build/tools/kandb-meta-bench
prometheus=${PROMETHEUS:-/usr/bin/prometheus}
for f in "$server" "$bench"; do
  [ -x "$f" ] || { echo "missing $f: build first (cmake --build $build)" >&2; exit 2; }
done
[ -x "$prometheus" ] || { echo "missing $prometheus: apt-get install prometheus" >&2; exit 2; }
command -v curl >/dev/null || { echo "missing curl: apt-get install curl" >&2; exit 2; }

. "$(dirname "$0")/server_lib.sh"
prom_pid=
hammer_pids=
trap 'for p in $pid $prom_pid $hammer_pids; do kill -9 "$p" 2>/dev/null || true; done; rm -rf "$work"' EXIT

# A port of 127.0.0.1 that nobody listens on now.
free_port() {
  local p
  while :; do
    p=$((20000 + RANDOM % 20000))
    (exec 3<>"/dev/tcp/127.0.0.1/$p") 2>/dev/null || { echo "$p"; return; }
  done
}

status_port=$(free_port)
start --status_addr=127.0.0.1:$status_port
status=http://127.0.0.1:$status_port

# ticks PID...: CPU time (user + system, all threads) of the processes, in clock ticks.
ticks() {
  local p sum=0
  for p in "$@"; do sum=$((sum + $(awk '{sub(/.*\) /, ""); print $12 + $13}' "/proc/$p/stat"))); done
  echo $sum
}
hz=$(getconf CLK_TCK)
# percent T0 T1: the ticks between as a share of one core over a run.
percent() { echo "($2 - $1) * 100 / $hz / $seconds" | bc -l; }

# tso: one run of the load generator; prints its calls per second.
tso() {
  local out
  out=$("$bench" --addr 127.0.0.1:$port --method tso --conns "$conns" --duration "${seconds}s" --json \
    2>"$work/bench.err" || true)
  if [ -z "$(field throughput <<<"$out")" ] || [ "$(field errors <<<"$out")" != 0 ] ||
    [ "$(field wrong_answers <<<"$out")" != 0 ]; then
    echo "tso run failed: $out $(tail -3 "$work/bench.err") $(cat "$work/err")" >&2
    exit 1
  fi
  field throughput <<<"$out"
}

# prom_query QUERY: the JSON answer of Prometheus's instant query.
prom_query() { curl -sf "http://127.0.0.1:$prom_port/api/v1/query" --data-urlencode "query=$1" || true; }

# A Prometheus scraping the status port every second, once it has scraped.
start_prometheus() {
  rm -rf "$work/prom"
  mkdir -p "$work/prom"
  cat >"$work/prom/prometheus.yml" <<EOF
global:
  scrape_interval: 1s
  scrape_timeout: 1s
scrape_configs:
  - job_name: kandb-meta
    static_configs:
      - targets: ['127.0.0.1:$status_port']
EOF
  prom_port=$(free_port)
  "$prometheus" --config.file="$work/prom/prometheus.yml" --storage.tsdb.path="$work/prom/data" \
    --web.listen-address=127.0.0.1:$prom_port >"$work/prom/log" 2>&1 &
  prom_pid=$!
  # Prometheus applies its targets some 5 s after it starts.
  for _ in $(seq 600); do
    prom_query 'up{job="kandb-meta"}' | grep -q '"1"\]' && return 0
    kill -0 $prom_pid 2>/dev/null || break
    sleep 0.1
  done
  echo "Prometheus never scraped the status port: $(tail -5 "$work/prom/log")" >&2
  exit 1
}
stop_prometheus() { kill -9 $prom_pid; wait $prom_pid 2>/dev/null || true; prom_pid=; }

# Two serial curl clients at half of HTTP_RATE each, each request's status
# code on its own line of $work/codes.*.
start_hammer() {
  local path
  hammer_pids=
  for path in health metrics; do
    curl -s --rate "$((http_rate / 2))/s" -w '%{stderr}%{http_code}\n' "$status/$path?n=[1-1000000]" \
      >/dev/null 2>"$work/codes.$path" &
    hammer_pids+=" $!"
  done
}
stop_hammer() {
  local p
  for p in $hammer_pids; do kill -9 "$p"; wait "$p" 2>/dev/null || true; done
  hammer_pids=
}

: >"$work/rows"
# The three conditions of a round; each sets its figures.
run_a() { a=$(tso); }
run_b() {
  start_prometheus
  local p0
  p0=$(ticks $prom_pid)
  b=$(tso)
  b_cpu=$(percent "$p0" "$(ticks $prom_pid)")
  scrapes=$(prom_query "count_over_time(up{job=\"kandb-meta\"}[${seconds}s])" | sed -n 's/.*,"\([0-9]*\)"\].*/\1/p')
  failed=$(prom_query "count_over_time(up{job=\"kandb-meta\"}[${seconds}s]) - sum_over_time(up{job=\"kandb-meta\"}[${seconds}s])" |
    sed -n 's/.*,"\([0-9]*\)"\].*/\1/p')
  stop_prometheus
  [ "${failed:-1}" = 0 ] || { echo "$failed of $scrapes scrapes failed" >&2; exit 1; }
}
run_c() {
  start_hammer
  local h0 other
  # shellcheck disable=SC2086  # one pid a word
  h0=$(ticks $hammer_pids)
  c=$(tso)
  # shellcheck disable=SC2086
  c_cpu=$(percent "$h0" "$(ticks $hammer_pids)")
  stop_hammer
  answered=$(cat "$work"/codes.* | grep -c '^200$' || true)
  other=$(cat "$work"/codes.* | grep -vc '^200$' || true)
  [ "$other" = 0 ] || { echo "$other status requests not answered 200" >&2; exit 1; }
}

# Warms the server and the load generator's path up; not counted.
seconds=1 tso >/dev/null
# Each round starts with another condition, so that none always runs first.
orders=("a b c" "b c a" "c a b")
for round in $(seq "$rounds"); do
  for cond in ${orders[$(((round - 1) % 3))]}; do "run_$cond"; done
  echo "$a $b $c $(echo "$b / $a" | bc -l) $(echo "$c / $a" | bc -l) $scrapes $answered $b_cpu $c_cpu" >>"$work/rows"
  echo "round $round: none $a/s, prometheus $b/s ($scrapes scrapes), status requests $c/s ($answered answered)" >&2
done

col() { awk -v c="$1" '{print $c}' "$work/rows" | median; }
echo "# tso at $conns connections, ${seconds}s runs, median of $rounds rounds, each in another order; ratio: median of same-round ratios"
printf '%-52s %12s %9s %14s\n' condition tso/s ratio "reader CPU %"
printf '%-52s %12.0f %9.3f %14s\n' "(a) no reader of the status port" "$(col 1)" 1 -
printf '%-52s %12.0f %9.3f %14.2f\n' "(b) Prometheus scraping /metrics every 1 s" "$(col 2)" "$(col 4)" "$(col 8)"
printf '%-52s %12.0f %9.3f %14.2f\n' "(c) /health + /metrics at $http_rate req/s in all" "$(col 3)" "$(col 5)" "$(col 9)"
echo "# scrapes per ${seconds}s run (b): $(col 6); status requests answered while each (c) run lasted: $(col 7)"

# The cost of one request, on the server alone: CPU time (user + system,
# all threads) over COST_REQUESTS sequential requests, less what the idle
# server spends in as long.
cpu_ticks() { ticks "$pid"; }
per_request_ms() {  # path -> server CPU milliseconds per request
  local t0 t1 idle0 idle1 start_ns end_ns elapsed
  idle0=$(cpu_ticks); sleep 2; idle1=$(cpu_ticks)
  start_ns=$(date +%s%N); t0=$(cpu_ticks)
  curl -s "$status/$1?n=[1-$cost_requests]" >/dev/null
  t1=$(cpu_ticks); end_ns=$(date +%s%N)
  elapsed=$(echo "($end_ns - $start_ns) / 1000000000" | bc -l)
  echo "(($t1 - $t0) - ($idle1 - $idle0) * $elapsed / 2) * 1000 / $hz / $cost_requests" | bc -l
}
size=$(curl -s "$status/metrics" | wc -c)
metrics_ms=$(per_request_ms metrics)
health_ms=$(per_request_ms health)
printf '# one /metrics answer: %d bytes; server CPU per /metrics %.3f ms, per /health %.3f ms (%d requests each)\n' \
  "$size" "$metrics_ms" "$health_ms" "$cost_requests"
stop
