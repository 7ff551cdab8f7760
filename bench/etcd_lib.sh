# Sourced by the benchmark scripts that run the replicated server: a
# three-member etcd cluster on 127.0.0.1. `pids` must be an array; the
# members' ids are added to it so that the caller stops them.

# etcd_cluster DIR CLIENT_PREFIX PEER_PREFIX: members m0..m2 on ports
# CLIENT_PREFIX0..2 (clients) and PEER_PREFIX0..2 (peers), data and logs
# under DIR; sets `endpoints` to the members' client URLs.
etcd_cluster() {
  local dir=$1 client=$2 peer=$3
  local cluster=m0=http://127.0.0.1:${peer}0,m1=http://127.0.0.1:${peer}1,m2=http://127.0.0.1:${peer}2
  mkdir -p "$dir"
  for i in 0 1 2; do
    etcd --name m$i --data-dir "$dir/m$i" \
      --listen-client-urls http://127.0.0.1:$client$i --advertise-client-urls http://127.0.0.1:$client$i \
      --listen-peer-urls http://127.0.0.1:$peer$i --initial-advertise-peer-urls http://127.0.0.1:$peer$i \
      --initial-cluster "$cluster" --initial-cluster-state new --max-txn-ops 10000 \
      --quota-backend-bytes 8589934592 --log-level warn >"$dir/etcd$i.log" 2>&1 &
    pids+=($!)
  done
  endpoints=http://127.0.0.1:${client}0,http://127.0.0.1:${client}1,http://127.0.0.1:${client}2
}
