#ifndef KANDB_TOOLS_SAFE_POINT_VIEW_H_
#define KANDB_TOOLS_SAFE_POINT_VIEW_H_

// How kandb-meta-ctl shows GC safe points ("Pd.GetGcSafePoint",
// "Pd.UpdateServiceSafePoint"). A safe point is a timestamp: its number,
// and beside it the wall-clock time of its physical part when it has one.
// Expiries are shown against `now_ms`, the caller's wall clock in
// milliseconds since the Unix epoch.

#include <cstdint>
#include <string>

#include "pdpb/messages.h"

namespace kandb::tools {

// "449960217002803200 (2024-03-16T08:00:00.000Z)", or "100" for a value
// whose physical part is 0.
std::string SafePointText(uint64_t safe_point);

// service "gc_worker" safe point 449960217002803200 (2024-03-16T08:00:00.000Z) expires in 59s (2024-03-16T08:01:00.000Z)
std::string ServiceSafePointLine(const pdpb::ServiceSafePoint& entry, uint64_t now_ms);

// "gc safe point ..." then one line per live service, or "no service holds
// it back".
std::string GcSafePointPage(const pdpb::GetGcSafePointResponse& response, uint64_t now_ms);

// The answer to an update: a refusal first says so; then the service's
// entry (or that it has none) and the GC safe point.
std::string ServiceUpdateText(const pdpb::UpdateServiceSafePointResponse& response, uint64_t now_ms);

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_SAFE_POINT_VIEW_H_
