// The store methods: store heartbeats, store reads and store removal. The
// statistics a store reports live in memory (the scheduler); what must
// outlive a restart or a takeover (address, labels, that the store takes
// part, the operator's removal) is written to the store's record.

#include <algorithm>
#include <string>
#include <utility>

#include "common/clock.h"
#include "meta/keys.h"
#include "meta/pd_service.h"

namespace kandb::meta {

namespace {

std::string StoreName(uint64_t store_id) { return "store " + std::to_string(store_id); }

uint64_t ReplicasOf(const Scheduler::ReplicaCounts& replicas, uint64_t store_id) {
  auto it = replicas.find(store_id);
  return it == replicas.end() ? 0 : it->second;
}

}  // namespace

Status PdService::ReadStore(uint64_t store_id, pdpb::Store* out, bool* found) {
  std::string value;
  Status s = store_->Get(StoreKey(store_id), &value, found);
  if (!s.ok() || !*found) return s;
  if (!pdpb::Decode(value.size(), value.data(), out)) return Status::Corruption("bad store record");
  return Status::OK();
}

Status PdService::StoreHeartbeat(const pdpb::StoreHeartbeatRequest& req, pdpb::StoreHeartbeatResponse* resp) {
  const uint64_t id = req.store.id;
  if (id == 0) return Status::InvalidArgument("store id 0");
  // The record as this heartbeat would leave it.
  auto merged = [&req, id](const pdpb::Store& record, bool found) {
    pdpb::Store updated = record;
    updated.id = id;
    if (!req.store.address.empty() || !found) updated.address = req.store.address;
    updated.labels = req.store.labels;
    if (updated.first_heartbeat_ms == 0) updated.first_heartbeat_ms = static_cast<uint64_t>(WallNs() / 1000000);
    return updated;
  };
  pdpb::Store record;
  bool found = false;
  Status s = ReadStore(id, &record, &found);
  if (!s.ok()) return s;
  if (record.node_state == pdpb::kNodeTombstone) {
    return Status::InvalidArgument(StoreName(id) + " is removed (tombstone)");
  }
  if (!found && req.store.address.empty()) return Status::InvalidArgument(StoreName(id) + " has no address");
  // The statistics count before any write: a store whose record write
  // fails is still alive, and says so again at its next heartbeat.
  scheduler_.ReportStore(id, req.stats);
  pdpb::Store updated = merged(record, found);
  if (!found || !(updated == record)) {
    if (store_record_hook_) store_record_hook_();
    // A change (rare: a new store, a new address or label) is read again
    // and written under the lock, so that it cannot undo a removal that
    // came in between; an unchanged record takes no lock at all.
    MutexLock lock(&store_record_mutex_);
    s = ReadStore(id, &record, &found);
    if (!s.ok()) return s;
    if (record.node_state == pdpb::kNodeTombstone) {
      return Status::InvalidArgument(StoreName(id) + " is removed (tombstone)");
    }
    updated = merged(record, found);
    s = store_->Put({{StoreKey(id), pdpb::Encode(updated)}});
    if (!s.ok()) return s;
  }
  uint8_t state = scheduler_.StateOf(updated);
  if (state == pdpb::kStoreOffline) {
    s = FinishRemoval(id, &state);
    if (!s.ok()) return s;
  }
  resp->state = state;
  return Status::OK();
}

Status PdService::FinishRemoval(uint64_t store_id, uint8_t* state) {
  std::shared_ptr<const std::vector<pdpb::Store>> stores;
  Scheduler::ReplicaCounts replicas;
  bool counted = false;
  Status s = LoadStores(&stores, &replicas, &counted);
  if (!s.ok()) return s;
  // Counts from the records themselves, and no add on its way to it:
  // without them (the copy cannot stand for the records) a removal is
  // never finished on a guess.
  if (!counted || ReplicasOf(replicas, store_id) != 0 || scheduler_.PendingAddsTo(store_id) != 0) return Status::OK();
  MutexLock lock(&store_record_mutex_);
  pdpb::Store record;
  bool found = false;
  s = ReadStore(store_id, &record, &found);
  if (!s.ok() || !found) return s;
  if (record.node_state != pdpb::kNodeOffline) return Status::OK();
  record.node_state = pdpb::kNodeTombstone;
  s = store_->Put({{StoreKey(store_id), pdpb::Encode(record)}});
  if (!s.ok()) return s;
  *state = pdpb::kStoreTombstone;
  return Status::OK();
}

Status PdService::GetStore(const pdpb::GetStoreRequest& req, pdpb::GetStoreResponse* resp) {
  std::shared_ptr<const std::vector<pdpb::Store>> stores;
  Scheduler::ReplicaCounts replicas;
  bool counted = false;
  Status s = LoadStores(&stores, &replicas, &counted);
  if (!s.ok()) return s;
  for (const pdpb::Store& store : *stores) {
    if (store.id != req.store_id) continue;
    resp->store = scheduler_.Info(store, ReplicasOf(replicas, store.id), counted);
    return Status::OK();
  }
  return Status::NotFound(StoreName(req.store_id) + " not found");
}

Status PdService::GetAllStores(const pdpb::GetAllStoresRequest& req, pdpb::GetAllStoresResponse* resp) {
  std::shared_ptr<const std::vector<pdpb::Store>> stores;
  Scheduler::ReplicaCounts replicas;
  bool counted = false;
  Status s = LoadStores(&stores, &replicas, &counted);
  if (!s.ok()) return s;
  pdpb::GetAllStoresResponse answer;
  answer.stores.reserve(stores->size());
  for (const pdpb::Store& store : *stores) {
    pdpb::StoreInfo info = scheduler_.Info(store, ReplicasOf(replicas, store.id), counted);
    if (req.exclude_tombstones && info.state == pdpb::kStoreTombstone) continue;
    answer.stores.push_back(std::move(info));
  }
  // The records come in the text order of their keys; operators read ids.
  std::sort(answer.stores.begin(), answer.stores.end(),
            [](const pdpb::StoreInfo& a, const pdpb::StoreInfo& b) { return a.store.id < b.store.id; });
  *resp = std::move(answer);
  return Status::OK();
}

Status PdService::RemoveStore(const pdpb::RemoveStoreRequest& req, pdpb::RemoveStoreResponse* resp) {
  const uint64_t id = req.store_id;
  {
    MutexLock lock(&store_record_mutex_);
    pdpb::Store record;
    bool found = false;
    Status s = ReadStore(id, &record, &found);
    if (!s.ok()) return s;
    if (!found) return Status::NotFound(StoreName(id) + " not found");
    if (record.node_state == pdpb::kNodeTombstone) {
      resp->state = pdpb::kStoreTombstone;
      return Status::OK();
    }
    if (record.node_state != pdpb::kNodeOffline) {
      record.node_state = pdpb::kNodeOffline;
      s = store_->Put({{StoreKey(id), pdpb::Encode(record)}});
      if (!s.ok()) return s;
    }
  }
  uint8_t state = pdpb::kStoreOffline;
  Status s = FinishRemoval(id, &state);
  if (!s.ok()) return s;
  resp->state = state;
  return Status::OK();
}

}  // namespace kandb::meta
