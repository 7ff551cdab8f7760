#ifndef KANDB_PDPB_STATS_H_
#define KANDB_PDPB_STATS_H_

// The messages of "Pd.Stats": the server's live statistics, counters since
// it started and the state of the moment. Same encoding and the same four
// functions per type as the messages in messages.h.
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

namespace kandb::pdpb {

struct StatsRequest {
  bool operator==(const StatsRequest&) const = default;
};

struct LatencyHistogram {
  std::vector<uint64_t> bounds_micros;  // 1, repeated, ascending
  std::vector<uint64_t> counts;         // 2, repeated, bounds + 1 of them
  uint64_t count = 0;                   // 3, samples in all
  uint64_t sum_nanos = 0;               // 4, their sum
  bool operator==(const LatencyHistogram&) const = default;
};

// Failed calls of one method that ended with one Status code.
struct ErrorCount {
  uint32_t code = 0;   // 1, u32 in u64; 5 stands for 5 and every higher code
  uint64_t count = 0;  // 2
  bool operator==(const ErrorCount&) const = default;
};

struct MethodStats {
  std::string method;               // 1
  uint64_t requests = 0;            // 2, calls answered, failures included
  std::vector<ErrorCount> errors;   // 3, repeated, codes that occurred, ascending
  LatencyHistogram latency;         // 4, request read to answer written
  bool operator==(const MethodStats&) const = default;
};

struct ConnectionStats {
  uint64_t open = 0;            // 1, being served now
  uint64_t accepted = 0;        // 2, since start
  uint64_t failed_accepts = 0;  // 3, accept failures and calls refused a worker thread
  bool operator==(const ConnectionStats&) const = default;
};

struct EngineStats {
  uint64_t write_groups = 0;          // 1
  uint64_t batches = 0;               // 2
  uint64_t max_group_size = 0;        // 3
  uint64_t syncs = 0;                 // 4, log fdatasyncs
  LatencyHistogram sync_latency;      // 5
  uint64_t log_bytes = 0;             // 6
  uint64_t memtable_bytes = 0;        // 7, now
  uint64_t immutable_memtables = 0;   // 8, now
  uint64_t table_files = 0;           // 9, now
  uint64_t table_bytes = 0;           // 10, now
  uint64_t flushes = 0;               // 11
  uint64_t flush_nanos = 0;           // 12
  uint64_t compactions = 0;           // 13
  uint64_t compaction_nanos = 0;      // 14
  uint64_t disk_full_faults = 0;      // 15
  uint64_t sync_faults = 0;           // 16
  uint64_t other_faults = 0;          // 17
  std::string last_fault;             // 18
  bool operator==(const EngineStats&) const = default;
};

struct RoutingStats {
  uint64_t index_regions = 0;  // 1, region records in the routing index, now
  uint64_t index_lookups = 0;  // 2, routing answered by the index
  uint64_t walk_lookups = 0;   // 3, routing answered by the walk over the records
  bool operator==(const RoutingStats&) const = default;
};

struct StatsResponse {
  uint64_t uptime_ms = 0;                // 1
  std::vector<MethodStats> methods;      // 2, repeated, in registration order
  uint64_t unknown_method_requests = 0;  // 3
  ConnectionStats connections;           // 4
  // False when the metadata store has no engine of its own (it lies on
  // etcd); `engine` is then all zero.
  bool has_engine = false;               // 5
  EngineStats engine;                    // 6
  RoutingStats routing;                  // 7
  bool operator==(const StatsResponse&) const = default;
};

#define KANDB_PDPB_DECLARE_CODEC(M)                    \
  void EncodeTo(const M& m, std::string* out);         \
  std::string Encode(const M& m);                      \
  bool Decode(size_t size, const char* data, M* out);  \
  size_t EncodedSize(const M& m);

KANDB_PDPB_DECLARE_CODEC(StatsRequest)
KANDB_PDPB_DECLARE_CODEC(LatencyHistogram)
KANDB_PDPB_DECLARE_CODEC(ErrorCount)
KANDB_PDPB_DECLARE_CODEC(MethodStats)
KANDB_PDPB_DECLARE_CODEC(ConnectionStats)
KANDB_PDPB_DECLARE_CODEC(EngineStats)
KANDB_PDPB_DECLARE_CODEC(RoutingStats)
KANDB_PDPB_DECLARE_CODEC(StatsResponse)

#undef KANDB_PDPB_DECLARE_CODEC

}  // namespace kandb::pdpb

#endif  // KANDB_PDPB_STATS_H_
