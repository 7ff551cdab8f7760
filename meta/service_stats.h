#ifndef KANDB_META_SERVICE_STATS_H_
#define KANDB_META_SERVICE_STATS_H_

// The parts of the "Pd.Stats" answer that come from below the service: the
// RPC server's counters and the storage engine's, put into their messages.

#include "common/latency_histogram.h"
#include "lsm/db_stats.h"
#include "pdpb/stats.h"
#include "rpc/server_stats.h"

namespace kandb::meta {

// The histogram with its bucket bounds, as the message carries it.
pdpb::LatencyHistogram HistogramMessage(const LatencyHistogram& histogram);

// Sets the uptime, the methods, the unknown-method count and the
// connections of *out from `server`.
void SetServerStats(const kanrpc::ServerStats& server, pdpb::StatsResponse* out);

// The engine part of the answer.
pdpb::EngineStats EngineStatsMessage(const lsm::EngineStats& engine);

}  // namespace kandb::meta

#endif  // KANDB_META_SERVICE_STATS_H_
