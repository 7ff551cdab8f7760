#include "meta/routing.h"

#include <utility>

namespace kandb::meta {

Status AnswerRoute(pdpb::Region region, const StoreLookup& lookup, pdpb::GetRegionResponse* resp) {
  pdpb::GetRegionResponse answer;
  if (!region.peers.empty()) {
    answer.leader = region.peers.front();
    std::string value;
    bool found = false;
    Status s = lookup(answer.leader.store_id, &value, &found);
    if (!s.ok()) return s;
    if (found && !pdpb::Decode(value.size(), value.data(), &answer.leader_store)) {
      return Status::Corruption("bad store record");
    }
    // The peers' stores, in peer order; absent and undecodable records are
    // left out (the leader's was already checked above).
    answer.stores.reserve(region.peers.size());
    for (const pdpb::Peer& peer : region.peers) {
      found = false;
      s = lookup(peer.store_id, &value, &found);
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
