// The answer of "Pd.Stats": the RPC server's and the engine's counters in
// their messages, and PdService::GetStats, which adds routing's.

#include "meta/service_stats.h"

#include "meta/pd_service.h"
#include "rpc/server.h"

namespace kandb::meta {

pdpb::LatencyHistogram HistogramMessage(const LatencyHistogram& histogram) {
  pdpb::LatencyHistogram out;
  out.bounds_micros.reserve(kLatencyBoundedBuckets);
  for (int i = 0; i < kLatencyBoundedBuckets; ++i) out.bounds_micros.push_back(LatencyBucketBoundMicros(i));
  out.counts.assign(histogram.buckets.begin(), histogram.buckets.end());
  out.count = histogram.count;
  out.sum_nanos = histogram.sum_nanos;
  return out;
}

void SetServerStats(const kanrpc::ServerStats& server, pdpb::StatsResponse* out) {
  out->uptime_ms = server.uptime_ms;
  out->methods.clear();
  out->methods.reserve(server.methods.size());
  for (const kanrpc::MethodStats& method : server.methods) {
    pdpb::MethodStats m;
    m.method = method.method;
    m.requests = method.requests;
    for (size_t code = 0; code < method.errors.size(); ++code) {
      if (method.errors[code] != 0) m.errors.push_back({static_cast<uint32_t>(code), method.errors[code]});
    }
    m.latency = HistogramMessage(method.latency);
    out->methods.push_back(std::move(m));
  }
  out->unknown_method_requests = server.unknown_method_requests;
  out->connections.open = server.open_connections;
  out->connections.accepted = server.accepted_connections;
  out->connections.failed_accepts = server.failed_accepts;
  out->connections.tls_refused = server.tls_refused;
}

pdpb::EngineStats EngineStatsMessage(const lsm::EngineStats& engine) {
  pdpb::EngineStats out;
  out.write_groups = engine.write_groups;
  out.batches = engine.batches;
  out.max_group_size = engine.max_group_size;
  out.syncs = engine.syncs;
  out.sync_latency = HistogramMessage(engine.sync_latency);
  out.log_bytes = engine.log_bytes;
  out.memtable_bytes = engine.memtable_bytes;
  out.immutable_memtables = engine.immutable_memtables;
  out.table_files = engine.table_files;
  out.table_bytes = engine.table_bytes;
  out.flushes = engine.flushes;
  out.flush_nanos = engine.flush_nanos;
  out.compactions = engine.compactions;
  out.compaction_nanos = engine.compaction_nanos;
  out.disk_full_faults = engine.disk_full_faults;
  out.sync_faults = engine.sync_faults;
  out.other_faults = engine.other_faults;
  out.last_fault = engine.last_fault;
  return out;
}

void PdService::GetStats(const kanrpc::RpcServer& server, pdpb::StatsResponse* resp) {
  SetServerStats(server.Stats(), resp);
  lsm::EngineStats engine;
  resp->has_engine = store_->GetEngineStats(&engine);
  if (resp->has_engine) resp->engine = EngineStatsMessage(engine);
  resp->routing.index_regions = router_ != nullptr ? router_->regions() : 0;
  resp->routing.index_lookups = index_lookups_.Load();
  resp->routing.walk_lookups = walk_lookups_.Load();
  // Store states need the records; without a copy that stands for them
  // only the counters are given (a scan here would cost every caller).
  std::shared_ptr<const std::vector<pdpb::Store>> stores;
  if (router_ == nullptr || !router_->StoresAsHeld(&stores)) stores = std::make_shared<std::vector<pdpb::Store>>();
  scheduler_.FillStats(*stores, &resp->scheduling);
}

}  // namespace kandb::meta
