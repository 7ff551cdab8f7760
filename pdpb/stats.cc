#include "pdpb/stats.h"

#include "pdpb/codec.h"

namespace kandb::pdpb {

KANDB_PDPB_DEFINE_CODEC(StatsRequest)
KANDB_PDPB_DEFINE_CODEC(LatencyHistogram)
KANDB_PDPB_DEFINE_CODEC(ErrorCount)
KANDB_PDPB_DEFINE_CODEC(MethodStats)
KANDB_PDPB_DEFINE_CODEC(ConnectionStats)
KANDB_PDPB_DEFINE_CODEC(EngineStats)
KANDB_PDPB_DEFINE_CODEC(RoutingStats)
KANDB_PDPB_DEFINE_CODEC(SchedulingStats)
KANDB_PDPB_DEFINE_CODEC(StatsResponse)

}  // namespace kandb::pdpb
