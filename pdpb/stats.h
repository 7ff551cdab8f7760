#ifndef KANDB_PDPB_STATS_H_
#define KANDB_PDPB_STATS_H_

// The messages of "Pd.Stats": the server's live statistics, counters since
// it started and the state of the moment. Declared and encoded as the
// messages in messages.h.
//
// Latencies are histograms with their bucket bounds carried along, so that
// a reader needs no knowledge of the server's bucket layout: counts[i] is
// the number of samples of at most bounds_micros[i] microseconds (and more
// than the bound before), and the one count past the last bound holds the
// slower samples. Counts are per bucket, not cumulative.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "pdpb/fields.h"

namespace kandb::pdpb {

struct StatsRequest {
  bool operator==(const StatsRequest&) const = default;
};
// No fields: an empty request.
constexpr auto FieldsOf(const StatsRequest*) { return std::tuple<>(); }
void EncodeTo(const StatsRequest& m, std::string* out);
std::string Encode(const StatsRequest& m);
bool Decode(size_t size, const char* data, StatsRequest* out);
size_t EncodedSize(const StatsRequest& m);

struct LatencyHistogram {
  std::vector<uint64_t> bounds_micros;  // repeated, ascending
  std::vector<uint64_t> counts;         // repeated, bounds + 1 of them
  uint64_t count = 0;                   // samples in all
  uint64_t sum_nanos = 0;               // their sum
  bool operator==(const LatencyHistogram&) const = default;
};
KANDB_PDPB_FIELDS(LatencyHistogram, RepeatedU64(1, &LatencyHistogram::bounds_micros),
                  RepeatedU64(2, &LatencyHistogram::counts), U64(3, &LatencyHistogram::count),
                  U64(4, &LatencyHistogram::sum_nanos))

// Failed calls of one method that ended with one Status code.
struct ErrorCount {
  uint32_t code = 0;   // u32 in u64; 5 stands for 5 and every higher code
  uint64_t count = 0;
  bool operator==(const ErrorCount&) const = default;
};
KANDB_PDPB_FIELDS(ErrorCount, U32(1, &ErrorCount::code), U64(2, &ErrorCount::count))

struct MethodStats {
  std::string method;
  uint64_t requests = 0;            // calls answered, failures included
  std::vector<ErrorCount> errors;   // repeated, codes that occurred, ascending
  LatencyHistogram latency;         // request read to answer written
  bool operator==(const MethodStats&) const = default;
};
KANDB_PDPB_FIELDS(MethodStats, Bytes(1, &MethodStats::method), U64(2, &MethodStats::requests),
                  RepeatedMessage(3, &MethodStats::errors), Message(4, &MethodStats::latency))

struct ConnectionStats {
  uint64_t open = 0;            // being served now
  uint64_t accepted = 0;        // since start
  uint64_t failed_accepts = 0;  // accept failures and calls refused a worker thread
  // TLS clients refused during their handshake (a certificate or a name
  // not let in, no TLS, a handshake not done in time); absent without TLS.
  uint64_t tls_refused = 0;
  bool operator==(const ConnectionStats&) const = default;
};
KANDB_PDPB_FIELDS(ConnectionStats, U64(1, &ConnectionStats::open), U64(2, &ConnectionStats::accepted),
                  U64(3, &ConnectionStats::failed_accepts), U64IfSet(4, &ConnectionStats::tls_refused))

struct EngineStats {
  uint64_t write_groups = 0;
  uint64_t batches = 0;
  uint64_t max_group_size = 0;
  uint64_t syncs = 0;                 // log fdatasyncs
  LatencyHistogram sync_latency;
  uint64_t log_bytes = 0;
  uint64_t memtable_bytes = 0;        // now
  uint64_t immutable_memtables = 0;   // now
  uint64_t table_files = 0;           // now
  uint64_t table_bytes = 0;           // now
  uint64_t flushes = 0;
  uint64_t flush_nanos = 0;
  uint64_t compactions = 0;
  uint64_t compaction_nanos = 0;
  uint64_t disk_full_faults = 0;
  uint64_t sync_faults = 0;
  uint64_t other_faults = 0;
  std::string last_fault;
  bool operator==(const EngineStats&) const = default;
};
KANDB_PDPB_FIELDS(EngineStats, U64(1, &EngineStats::write_groups), U64(2, &EngineStats::batches),
                  U64(3, &EngineStats::max_group_size), U64(4, &EngineStats::syncs),
                  Message(5, &EngineStats::sync_latency), U64(6, &EngineStats::log_bytes),
                  U64(7, &EngineStats::memtable_bytes), U64(8, &EngineStats::immutable_memtables),
                  U64(9, &EngineStats::table_files), U64(10, &EngineStats::table_bytes),
                  U64(11, &EngineStats::flushes), U64(12, &EngineStats::flush_nanos),
                  U64(13, &EngineStats::compactions), U64(14, &EngineStats::compaction_nanos),
                  U64(15, &EngineStats::disk_full_faults), U64(16, &EngineStats::sync_faults),
                  U64(17, &EngineStats::other_faults), Bytes(18, &EngineStats::last_fault))

struct RoutingStats {
  uint64_t index_regions = 0;  // region records in the routing index, now
  uint64_t index_lookups = 0;  // routing answered by the index
  uint64_t walk_lookups = 0;   // routing answered by the walk over the records
  bool operator==(const RoutingStats&) const = default;
};
KANDB_PDPB_FIELDS(RoutingStats, U64(1, &RoutingStats::index_regions), U64(2, &RoutingStats::index_lookups),
                  U64(3, &RoutingStats::walk_lookups))

// The scheduler's view of the cluster: stores by state, regions that need
// repair (as their leaders last reported them), and the commands issued
// since the server started, by kind.
struct SchedulingStats {
  uint64_t stores_unknown = 0;  // never sent a store heartbeat
  uint64_t stores_up = 0;
  uint64_t stores_disconnected = 0;
  uint64_t stores_down = 0;
  uint64_t stores_offline = 0;
  uint64_t stores_tombstone = 0;
  uint64_t regions_missing_replica = 0;   // fewer members than the target
  uint64_t regions_on_down_store = 0;     // a member on a Down store
  uint64_t regions_on_offline_store = 0;  // a member on an Offline store
  uint64_t promote_learner = 0;
  uint64_t add_peer = 0;
  uint64_t remove_peer = 0;
  uint64_t destroy_stale_replica = 0;
  uint64_t transfer_leader = 0;
  bool operator==(const SchedulingStats&) const = default;
};
KANDB_PDPB_FIELDS(SchedulingStats, U64(1, &SchedulingStats::stores_unknown),
                  U64(2, &SchedulingStats::stores_up),
                  U64(3, &SchedulingStats::stores_disconnected), U64(4, &SchedulingStats::stores_down),
                  U64(5, &SchedulingStats::stores_offline), U64(6, &SchedulingStats::stores_tombstone),
                  U64(7, &SchedulingStats::regions_missing_replica), U64(8, &SchedulingStats::regions_on_down_store),
                  U64(9, &SchedulingStats::regions_on_offline_store), U64(10, &SchedulingStats::promote_learner),
                  U64(11, &SchedulingStats::add_peer), U64(12, &SchedulingStats::remove_peer),
                  U64(13, &SchedulingStats::destroy_stale_replica), U64(14, &SchedulingStats::transfer_leader))

struct StatsResponse {
  uint64_t uptime_ms = 0;
  std::vector<MethodStats> methods;      // repeated, in registration order
  uint64_t unknown_method_requests = 0;
  ConnectionStats connections;
  // False when the metadata store has no engine of its own (it lies on
  // etcd); `engine` is then all zero.
  bool has_engine = false;
  EngineStats engine;
  RoutingStats routing;
  SchedulingStats scheduling;
  bool operator==(const StatsResponse&) const = default;
};
KANDB_PDPB_FIELDS(StatsResponse, U64(1, &StatsResponse::uptime_ms),
                  RepeatedMessage(2, &StatsResponse::methods),
                  U64(3, &StatsResponse::unknown_method_requests), Message(4, &StatsResponse::connections),
                  Bool(5, &StatsResponse::has_engine), Message(6, &StatsResponse::engine),
                  Message(7, &StatsResponse::routing), Message(8, &StatsResponse::scheduling))

}  // namespace kandb::pdpb

#endif  // KANDB_PDPB_STATS_H_
