# Sourced by the benchmark scripts: a kandb-meta server on a scratch state
# directory and a free port. Set `server` (the binary) before sourcing;
# `work` (the scratch directory, removed on exit), `pid` and `port` are set
# here and by start.

work=$(mktemp -d)
pid=
trap '[ -n "$pid" ] && kill -9 $pid 2>/dev/null; rm -rf "$work"' EXIT

start() {  # a server on $work/state, with the flags given added; sets pid, port
  for _ in 1 2 3 4 5; do
    port=$((20000 + RANDOM % 20000))
    rm -f "$work/out"
    "$server" --bind_addr=127.0.0.1 --port=$port --data_dir="$work/state" "$@" >"$work/out" 2>"$work/err" &
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

# field NAME < json: the number after "NAME": in the bench's JSON report.
field() { sed -n "s/.*\"$1\": *\\([0-9.e+-]*\\).*/\\1/p" | head -1; }
# median < numbers, one a line.
median() { sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }
