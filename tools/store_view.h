#ifndef KANDB_TOOLS_STORE_VIEW_H_
#define KANDB_TOOLS_STORE_VIEW_H_

// How kandb-meta-ctl shows the stores as the service knows them
// ("Pd.GetAllStores", "Pd.GetStore"): one line per store for the list, a
// page for one store. Two counts that look alike differ in their source:
// "replicas" counts the region records that place a replica on the store,
// the server's own view; "regions" and "leaders" are what the store last
// reported of itself. What a store reports is shown as "-" (or "not
// reported") until this server took a store heartbeat from it. Heartbeat
// ages are measured against `now_ms`, the caller's wall clock in
// milliseconds since the Unix epoch; a heartbeat stamped later than that
// (clocks apart) counts as 0s old.

#include <cstdint>
#include <string>
#include <vector>

#include "pdpb/messages.h"

namespace kandb::tools {

// "up", "disconnected", "down", "offline", "tombstone", "unknown", or
// "state N" for a value without a name.
std::string StoreStateText(uint8_t state);

// "zone=z1,host=h1" in the store's order, keys and values escaped; "-"
// without labels.
std::string StoreLabelsText(const std::vector<pdpb::StoreLabel>& labels);

// store 1 up address "127.0.0.1:20160" labels zone=z1 replicas 12 regions 12 leaders 4 available 80.0 GiB/100.0 GiB heartbeat 3s ago
// and, before the first report: ... regions - leaders - available - heartbeat none
std::string StoreLine(const pdpb::StoreInfo& info, uint64_t now_ms);

// The page of one store: one "name  value" line per figure, with the
// node state, exact byte counts, snapshots and both heartbeat times.
std::string StorePage(const pdpb::StoreInfo& info, uint64_t now_ms);

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_STORE_VIEW_H_
