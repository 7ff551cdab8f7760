#ifndef KANDB_META_ROUTING_H_
#define KANDB_META_ROUTING_H_

// The rules of routing a key that the walk over the region records and the
// region index share, so that both answer alike.

#include <cstdint>
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

// Reads the record of one store: fails when the read fails, else sets
// *found and, when found, *value.
using StoreLookup = std::function<Status(uint64_t store_id, std::string* value, bool* found)>;

// Completes the answer for the region that covers the key: no leader and no
// stores for a region without peers; otherwise its first peer stands for
// the leader (no leadership is known here), with that peer's store record
// (left empty when absent; "bad store record" when it does not decode),
// and the store records of the peers, in peer order, that exist and
// decode. *resp is set only on success.
Status AnswerRoute(pdpb::Region region, const StoreLookup& lookup, pdpb::GetRegionResponse* resp);

}  // namespace kandb::meta

#endif  // KANDB_META_ROUTING_H_
