#ifndef KANDB_META_ROUTING_H_
#define KANDB_META_ROUTING_H_

// The rules of routing a key that the walk over the region records and the
// region index share, so that both answer alike.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <functional>
#include <string>
#include <string_view>

#include "common/status.h"
#include "pdpb/messages.h"

namespace kandb::meta {

// Whether [start, end) holds `key`, an empty bound being open. Bytes
// compare unsigned, a proper prefix being smaller.
inline bool RangeCovers(std::string_view start, std::string_view end, std::string_view key) {
  return (start.empty() || start <= key) && (end.empty() || key < end);
}

// Whether [start, end) and [from, to) share a key, an empty end or `to`
// being open: the ranges a scan of [from, to) answers. A range whose end
// is not above its start shares none.
inline bool RangeMeets(std::string_view start, std::string_view end, std::string_view from, std::string_view to) {
  const std::string_view low = std::max(start, from);
  return (end.empty() || low < end) && (to.empty() || low < to);
}

// Whether a store's replica of a region is stale by the region's record:
// the record places no replica on the store and is at least as new as the
// membership the replica knows (`known`, its conf_version; 0 when the
// store did not say, which any record passes).
inline bool StaleIn(const pdpb::Region& record, uint64_t store_id, uint64_t known) {
  return record.epoch.conf_version >= known &&
         std::none_of(record.peers.begin(), record.peers.end(),
                      [store_id](const pdpb::Peer& p) { return p.store_id == store_id; });
}

// Reads the record of one store: fails when the read fails, else sets
// *found and, when found, *value.
using StoreLookup = std::function<Status(uint64_t store_id, std::string* value, bool* found)>;

// Completes the answer for the region that covers the key: no leader and no
// stores for a region without peers; otherwise its first peer stands for
// the leader (no leadership is known here), with that peer's store record
// (left empty when absent; "bad store record" when it does not decode),
// and the store records of the peers, in peer order, that exist and
// decode. *resp is set only on success.
//
// With `leader_store`, the peer on that store stands for the leader when
// one is a member (the first peer otherwise): a region read by id presents
// the peer whose store last reported the region.
Status AnswerRoute(pdpb::Region region, const StoreLookup& lookup, pdpb::GetRegionResponse* resp,
                   std::optional<uint64_t> leader_store = std::nullopt);

// The index of the peer presented as the region's leader: the one on
// `leader_store` when one is, else the first (0 for a region without peers).
size_t LeaderIndex(const pdpb::Region& region, std::optional<uint64_t> leader_store);

}  // namespace kandb::meta

#endif  // KANDB_META_ROUTING_H_
