#ifndef KANDB_TOOLS_STATS_VIEW_H_
#define KANDB_TOOLS_STATS_VIEW_H_

// How kandb-meta-ctl shows the server's live statistics ("Pd.Stats"): a
// readable page of the counters since start (and of the scheduler's view of
// the stores and regions at the moment), the Prometheus text
// exposition format for a textfile collector, and the page of rates over
// an interval that `stats --watch` redraws.

#include <string>

#include "pdpb/stats.h"

namespace kandb::tools {

// The counters since start, for people.
std::string StatsText(const pdpb::StatsResponse& stats);

// The Prometheus text exposition format (version 0.0.4): every name starts
// with "kandb_meta_", every family has its HELP and TYPE lines, latencies
// are histograms in seconds with cumulative "le" buckets ending in "+Inf".
// The engine's families are left out when the server has no engine of its
// own; kandb_meta_engine_present tells which.
std::string StatsPrometheus(const pdpb::StatsResponse& stats);

// The rates between two answers of the same server, `before` the older
// (taken from the server's uptime, so the client's own delays do not
// count), for people. A `before` from an earlier run of the server (a
// larger uptime) counts as all zero.
std::string StatsRates(const pdpb::StatsResponse& before, const pdpb::StatsResponse& now);

// "Unknown" for codes without a name.
const char* StatusCodeName(uint32_t code);

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_STATS_VIEW_H_
