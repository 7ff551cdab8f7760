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
. "$(dirname "$0")/server_lib.sh"

header=--header
for kind in "${kinds[@]}"; do
  rm -rf "$work/state"
  start
  "$bench" --addr=127.0.0.1:$port --kind="$kind" --seconds="${SECONDS_PER_KIND:-5}" \
    --bulk-mib="${BULK_MIB:-1280}" $header
  header=
  stop
done
