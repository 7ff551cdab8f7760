// Region heartbeats and replica scheduling. Four policies run on every
// heartbeat, and their commands are answered in this order: learner
// promotion and auto-heal for each reported region, then stale-replica
// clean-up, then leadership transfers.
//
// Until a store of the cluster sends store heartbeats, the choice rules are
// deliberately simple: the first eligible store in the key order of its
// record (not the least loaded one), at most one change per region per
// heartbeat, and the reporting store never removes itself. From then on the
// scheduler decides auto-heal from liveness, load and failure domains
// (scheduler.h), still one change per region per heartbeat.

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "meta/keys.h"
#include "meta/pd_service.h"
#include "meta/routing.h"

namespace kandb::meta {
namespace {

using pdpb::RegionHeartbeatEntry;
using pdpb::ScheduleCommand;

ScheduleCommand Command(uint32_t kind, uint64_t region_id, uint64_t store_id,
                        std::string address = std::string()) {
  ScheduleCommand c;
  c.kind = kind;
  c.region_id = region_id;
  c.store_id = store_id;
  c.address = std::move(address);
  return c;
}

// Grows an under-replicated region by one replica: the first store, in key
// order, that holds no member and has an address to reach it at.
void ScheduleAddPeer(const RegionHeartbeatEntry& entry, const std::vector<pdpb::Store>& stores,
                     std::vector<ScheduleCommand>* commands) {
  for (const pdpb::Store& st : stores) {
    if (ContainsId(entry.member_store_ids, st.id) || st.address.empty()) continue;
    commands->push_back(Command(pdpb::kAddPeer, entry.region_id, st.id, st.address));
    return;
  }
}

// Shrinks an over-replicated region by one replica: the first member the
// reporter marks as a candidate, else the first member at all, the
// reporting store itself never being chosen. A chosen id of 0 is no store.
void ScheduleRemovePeer(const RegionHeartbeatEntry& entry, uint64_t reporter,
                        std::vector<ScheduleCommand>* commands) {
  const std::vector<uint64_t>& members = entry.member_store_ids;
  auto chosen = std::find_if(members.begin(), members.end(), [&](uint64_t m) {
    return m != reporter && ContainsId(entry.candidate_store_ids, m);
  });
  if (chosen == members.end()) {
    chosen = std::find_if(members.begin(), members.end(), [&](uint64_t m) { return m != reporter; });
  }
  if (chosen == members.end() || *chosen == 0) return;
  commands->push_back(Command(pdpb::kRemovePeer, entry.region_id, *chosen));
}

}  // namespace

Status PdService::LoadStores(std::shared_ptr<const std::vector<pdpb::Store>>* stores,
                             Scheduler::ReplicaCounts* replicas, bool* counted) {
  replicas->clear();
  const bool from_index = router_ != nullptr && router_->Stores(stores, replicas);
  if (counted != nullptr) *counted = from_index;
  if (from_index) return Status::OK();
  // The registered stores in the key order of their records; records that
  // do not decode are skipped.
  std::vector<store::KeyValue> records;
  Status s = store_->Scan(kStorePrefix, kStoreScanEnd, kStoreScanLimit, &records);
  if (!s.ok()) return s;
  auto list = std::make_shared<std::vector<pdpb::Store>>();
  list->reserve(records.size());
  for (const store::KeyValue& record : records) {
    pdpb::Store st;
    if (pdpb::Decode(record.second.size(), record.second.data(), &st)) list->push_back(std::move(st));
  }
  *stores = std::move(list);
  return Status::OK();
}

void PdService::StaleByReads(const pdpb::RegionHeartbeatRequest& req, const std::vector<uint64_t>* known,
                             std::vector<ScheduleCommand>* commands) {
  for (size_t i = 0; i < req.region_ids.size(); i++) {
    const uint64_t region_id = req.region_ids[i];
    std::string value;
    bool found = false;
    if (!store_->Get(RegionKey(region_id), &value, &found).ok() || !found) continue;
    pdpb::Region region;
    if (!pdpb::Decode(value.size(), value.data(), &region)) continue;
    if (StaleIn(region, req.store_id, known != nullptr ? (*known)[i] : 0)) {
      commands->push_back(Command(pdpb::kDestroyStaleReplica, region_id, req.store_id));
    }
  }
}

Status PdService::RegionHeartbeat(const pdpb::RegionHeartbeatRequest& req,
                                  pdpb::RegionHeartbeatResponse* resp) {
  // A store list that cannot be read fails the heartbeat rather than
  // scheduling from a partial view; the store repeats its heartbeat anyway.
  // The records come from the routing index, which follows their writes,
  // so that a heartbeat costs what its own entries need; only when the
  // index cannot stand for them are they read.
  std::shared_ptr<const std::vector<pdpb::Store>> loaded;
  Scheduler::ReplicaCounts replicas;
  Status s = LoadStores(&loaded, &replicas);
  if (!s.ok()) return s;
  const std::vector<pdpb::Store>& stores = *loaded;

  pdpb::RegionHeartbeatResponse answer;
  std::vector<ScheduleCommand>& commands = answer.commands;

  // Once a store of the cluster sends store heartbeats, auto-heal follows
  // what they tell; until then it is the first-store rule.
  const bool informed = scheduler_.Active(stores);
  std::vector<ScheduleCommand> healed;
  std::vector<bool> changing;
  if (informed) {
    scheduler_.Heal(req.store_id, req.regions, stores, replicas, &healed);
    // A region with a change under way keeps its leader until it is done:
    // a transfer chosen for it already, or one onto a replica about to go.
    changing.resize(healed.size());
    for (size_t i = 0; i < healed.size(); i++) changing[i] = healed[i].kind != 0;
  } else {
    scheduler_.NoteDesigned(req.regions);
  }

  // Promotion (always on) and auto-heal (when a target is set).
  for (size_t i = 0; i < req.regions.size(); i++) {
    const RegionHeartbeatEntry& entry = req.regions[i];
    for (uint64_t learner : entry.caught_up_learner_store_ids) {
      commands.push_back(Command(pdpb::kPromoteLearner, entry.region_id, learner));
    }
    if (informed) {
      if (healed[i].kind != 0) commands.push_back(std::move(healed[i]));
      continue;
    }
    if (target_replicas_ == 0) continue;
    const size_t members = entry.member_store_ids.size();
    if (target_replicas_ > members) {
      ScheduleAddPeer(entry, stores, &commands);
    } else if (target_replicas_ < members) {
      ScheduleRemovePeer(entry, req.store_id, &commands);
    }
  }

  // Stale replicas: a region whose record no longer lists the reporter. A
  // record that is absent, unreadable or undecodable gives no command: the
  // region may be newer than its record (a split not yet reported), and
  // destroying a replica on missing knowledge could lose the only copy.
  // Told by the routing index when it stands for the records: a read per
  // region costs the replicated server a round trip to etcd each, and a
  // store reports every region it follows.
  // A store that tells the membership version each replica knows (one per
  // id) keeps a replica its region's record has not caught up with.
  const std::vector<uint64_t>* known =
      req.region_conf_versions.size() == req.region_ids.size() ? &req.region_conf_versions : nullptr;
  std::vector<bool> stale;
  if (router_ != nullptr && !req.region_ids.empty() &&
      router_->StaleReplicas(req.store_id, req.region_ids, known, &stale)) {
    for (size_t i = 0; i < req.region_ids.size(); i++) {
      if (stale[i]) commands.push_back(Command(pdpb::kDestroyStaleReplica, req.region_ids[i], req.store_id));
    }
  } else {
    StaleByReads(req, known, &commands);
  }

  // Leader balancing: from the regions' last reporters the designed way;
  // from the counts the stores report once they send store heartbeats.
  BalanceLeaders(req, stores.size(), !informed, &answer);
  if (informed) scheduler_.BalanceLeaders(req.store_id, req.regions, changing, scheduler_.Unwell(stores), &commands);
  scheduler_.CountIssued(answer.commands, informed);
  *resp = std::move(answer);
  return Status::OK();
}

void PdService::BalanceLeaders(const pdpb::RegionHeartbeatRequest& req, size_t candidate_stores, bool balance,
                               pdpb::RegionHeartbeatResponse* resp) {
  MutexLock lock(&heartbeat_mutex_);
  for (const RegionHeartbeatEntry& entry : req.regions) {
    auto [mark, fresh] = heartbeat_marks_.try_emplace(entry.region_id, req.store_id);
    if (!fresh && mark->second != req.store_id) {
      if (--led_counts_[mark->second] == 0) led_counts_.erase(mark->second);
      mark->second = req.store_id;
      fresh = true;
    }
    if (fresh) led_counts_[req.store_id]++;
  }
  if (!balance) return;

  // Counted once per heartbeat, from the counts kept beside the marks (a
  // count over every mark would cost each heartbeat the whole cluster);
  // transfers chosen below do not change the figures until the stores
  // report the new leadership.
  auto led = [this](uint64_t store_id) {
    heartbeat_mutex_.AssertHeld();  // called below, under the lock
    auto it = led_counts_.find(store_id);
    return it == led_counts_.end() ? uint64_t{0} : it->second;
  };
  const uint64_t own = led(req.store_id);
  if (own < 2 || candidate_stores < 2) return;
  for (const RegionHeartbeatEntry& entry : req.regions) {
    uint64_t target = 0;
    bool chosen = false;
    uint64_t best = own - 1;  // a transfer must leave the target clearly less loaded
    for (uint64_t member : entry.member_store_ids) {
      if (member == req.store_id || !ContainsId(entry.candidate_store_ids, member)) continue;
      const uint64_t count = led(member);
      if (count < best) {  // strict: on equal counts the earlier member stays
        best = count;
        target = member;
        chosen = true;
      }
    }
    if (chosen) resp->commands.push_back(Command(pdpb::kTransferLeader, entry.region_id, target));
  }
}

}  // namespace kandb::meta
