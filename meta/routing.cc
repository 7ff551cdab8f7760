#include "meta/routing.h"

#include <utility>

namespace kandb::meta {

size_t LeaderIndex(const pdpb::Region& region, std::optional<uint64_t> leader_store) {
  if (!leader_store.has_value()) return 0;
  for (size_t i = 0; i < region.peers.size(); ++i) {
    if (region.peers[i].store_id == *leader_store) return i;
  }
  return 0;
}

Status AnswerRoute(pdpb::Region region, const StoreLookup& lookup, pdpb::GetRegionResponse* resp,
                   std::optional<uint64_t> leader_store) {
  pdpb::GetRegionResponse answer;
  if (!region.peers.empty()) {
    const size_t leader = LeaderIndex(region, leader_store);
    answer.leader = region.peers[leader];
    std::string value;
    bool found = false;
    Status s = lookup(answer.leader.store_id, &value, &found);
    if (!s.ok()) return s;
    if (found && !pdpb::Decode(value.size(), value.data(), &answer.leader_store)) {
      return Status::Corruption("bad store record");
    }
    const bool leader_found = found;
    // The peers' stores, in peer order; absent and undecodable records are
    // left out. The leader's record was just read and checked: it is not
    // read a second time.
    answer.stores.reserve(region.peers.size());
    for (size_t i = 0; i < region.peers.size(); ++i) {
      if (i == leader) {
        if (leader_found) answer.stores.push_back(answer.leader_store);
        continue;
      }
      found = false;
      s = lookup(region.peers[i].store_id, &value, &found);
      if (!s.ok()) return s;
      pdpb::Store store;
      if (found && pdpb::Decode(value.size(), value.data(), &store)) answer.stores.push_back(std::move(store));
    }
  }
  answer.region = std::move(region);
  *resp = std::move(answer);
  return Status::OK();
}

}  // namespace kandb::meta
