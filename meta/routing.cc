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
    // left out. The first peer is the leader, whose record was just read
    // and checked: it is not read a second time.
    answer.stores.reserve(region.peers.size());
    if (found) answer.stores.push_back(answer.leader_store);
    for (size_t i = 1; i < region.peers.size(); ++i) {
      const pdpb::Peer& peer = region.peers[i];
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
