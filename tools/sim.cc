#include "tools/sim.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <set>
#include <thread>
#include <utility>

#include "common/clock.h"
#include "tools/text.h"

namespace kandb::tools::sim {
namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;
// Region records per UpsertRegion call at setup and when flushing changes:
// within the replicated server's limit of one etcd transaction (127
// records), so that the same calls work on both servers.
constexpr size_t kUpsertBatch = 100;
// Peer identifiers fetched at a time for the replicas that snapshots create.
constexpr uint32_t kPeerIdBlock = 4096;
// How often the run looks at the whole cluster to decide whether it is done.
constexpr int64_t kCheckMs = 200;

const char* const kKindNames[6] = {"unknown", "promote-learner", "add-peer", "remove-peer", "destroy-stale-replica",
                                   "transfer-leader"};

bool Has(const std::vector<uint32_t>& v, uint32_t x) { return std::find(v.begin(), v.end(), x) != v.end(); }

Spread SpreadOf(const std::vector<uint64_t>& values) {
  Spread s;
  if (values.empty()) return s;
  s.max = *std::max_element(values.begin(), values.end());
  s.min = *std::min_element(values.begin(), values.end());
  s.ratio = s.min == 0 ? 0 : static_cast<double>(s.max) / static_cast<double>(s.min);
  return s;
}

Status ParseEvent(std::string_view item, SimEvent* e) {
  const Status bad = Status::InvalidArgument(
      "bad event '" + std::string(item) +
      "': want kill:N@T, add:N@T, remove:N@T, zone-down:ZONE@T, drain-leaders:N@T or split:N@T");
  const size_t colon = item.find(':');
  const size_t at = item.rfind('@');
  if (colon == std::string_view::npos || at == std::string_view::npos || at < colon) return bad;
  const std::string_view kind = item.substr(0, colon);
  const std::string_view arg = item.substr(colon + 1, at - colon - 1);
  if (!ParseDurationMillis(item.substr(at + 1), &e->at_ms).ok()) return bad;
  if (kind == "zone-down") {
    if (arg.empty()) return bad;
    e->kind = SimEvent::kZoneDown;
    e->zone = std::string(arg);
    return Status::OK();
  }
  if (kind == "kill") {
    e->kind = SimEvent::kKill;
  } else if (kind == "add") {
    e->kind = SimEvent::kAdd;
  } else if (kind == "remove") {
    e->kind = SimEvent::kRemove;
  } else if (kind == "drain-leaders") {
    e->kind = SimEvent::kDrainLeaders;
  } else if (kind == "split") {
    e->kind = SimEvent::kSplit;
  } else {
    return bad;
  }
  if (!ParseUint(arg, UINT32_MAX, &e->arg).ok()) return bad;
  if (e->kind == SimEvent::kAdd && e->arg == 0) return bad;
  // The cut keys carry an 8-digit counter: more parts would not sort.
  if (e->kind == SimEvent::kSplit && (e->arg < 2 || e->arg > 10000000)) return bad;
  return Status::OK();
}

}  // namespace

Status ParseEvents(std::string_view text, std::vector<SimEvent>* out) {
  std::vector<SimEvent> events;
  while (!text.empty()) {
    const size_t comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    SimEvent e;
    Status s = ParseEvent(item, &e);
    if (!s.ok()) return s;
    events.push_back(std::move(e));
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
  }
  std::stable_sort(events.begin(), events.end(),
                   [](const SimEvent& a, const SimEvent& b) { return a.at_ms < b.at_ms; });
  *out = std::move(events);
  return Status::OK();
}

std::vector<pdpb::StoreLabel> StoreLabels(const SimOptions& options, uint64_t index) {
  const uint64_t zones = std::max<uint64_t>(1, options.zones);
  const uint64_t zone = index % zones;
  // The store's place among the stores of its zone, and so its host there.
  const uint64_t nth = index / zones;
  const uint64_t host_in_zone = options.hosts_per_zone == 0 ? nth : nth % options.hosts_per_zone;
  std::vector<pdpb::StoreLabel> labels;
  labels.push_back({"zone", "z" + std::to_string(zone)});
  if (options.racks_per_zone > 0) {
    labels.push_back({"rack", "r" + std::to_string(zone + zones * (host_in_zone % options.racks_per_zone))});
  }
  labels.push_back({"host", "h" + std::to_string(zone + zones * host_in_zone)});
  return labels;
}

// ---- ClusterModel

ClusterModel::ClusterModel(SimOptions options) : options_(std::move(options)), random_(options_.seed) {}

std::string ClusterModel::RegionKey(uint64_t index) {
  char key[32];
  std::snprintf(key, sizeof(key), "sim/%010llu", static_cast<unsigned long long>(index));
  return key;
}

int64_t ClusterModel::StoreIndex(uint64_t id) const {
  auto it = store_index_.find(id);
  return it == store_index_.end() ? -1 : static_cast<int64_t>(it->second);
}

void ClusterModel::AddStore(uint64_t id) {
  Store st;
  const uint64_t index = stores_.size();
  st.id = id;
  // Never connected to: the server only hands the address out.
  st.address = "127.0.0.1:" + std::to_string(20160 + index);
  st.labels = StoreLabels(options_, index);
  for (const pdpb::StoreLabel& l : st.labels) {
    if (l.key == "zone") st.zone = l.value;
    if (l.key == "host") st.host = l.value;
  }
  store_index_[id] = static_cast<uint32_t>(index);
  stores_.push_back(std::move(st));
}

Status ClusterModel::PlaceRegions(uint64_t first_region_id, uint64_t first_peer_id) {
  const uint64_t n = stores_.size();
  if (n < options_.replicas || options_.replicas == 0) {
    return Status::InvalidArgument("need at least " + std::to_string(options_.replicas) + " stores for " +
                                   std::to_string(options_.replicas) + " replicas");
  }
  first_region_id_ = first_region_id;
  regions_.assign(options_.regions, Region());
  uint64_t peer_id = first_peer_id;
  region_index_.clear();
  for (uint64_t r = 0; r < options_.regions; ++r) {
    Region& region = regions_[r];
    region.id = first_region_id + r;
    region_index_[region.id] = static_cast<uint32_t>(r);
    if (r > 0) region.start_key = RegionKey(r);
    if (r + 1 < options_.regions) region.end_key = RegionKey(r + 1);
    // Walk the stores from a position that turns with the region, taking
    // stores of zones not used yet; creation order interleaves the zones,
    // so neighbours are in distinct zones and the load spreads evenly.
    std::set<std::string> zones;
    for (int pass = 0; pass < 2 && region.peers.size() < options_.replicas; ++pass) {
      for (uint64_t k = 0; k < n && region.peers.size() < options_.replicas; ++k) {
        const uint32_t s = static_cast<uint32_t>((r + k) % n);
        const bool taken = std::any_of(region.peers.begin(), region.peers.end(),
                                       [&](const Peer& p) { return p.store == s; });
        if (taken || (pass == 0 && zones.count(stores_[s].zone) > 0)) continue;
        zones.insert(stores_[s].zone);
        region.peers.push_back(Peer{peer_id++, s, false});
        stores_[s].replicas++;
      }
    }
    SetLeader(static_cast<uint32_t>(r), static_cast<int32_t>(region.peers[0].store));
  }
  min_live_ = options_.replicas;
  return Status::OK();
}

void ClusterModel::AddPeerIds(uint64_t first, uint64_t count) {
  next_peer_id_ = first;
  peer_id_end_ = first + count;
}

void ClusterModel::SetLeader(uint32_t region, int32_t store) {
  Region& r = regions_[region];
  if (r.leader >= 0) stores_[r.leader].leaders--;
  r.leader = store;
  if (store >= 0) stores_[store].leaders++;
}

void ClusterModel::ScheduleElection(uint32_t region, int64_t now) {
  SetLeader(region, -1);
  // The followers notice the silence and elect within about one heartbeat.
  elections_.emplace_back(now + options_.region_heartbeat_ms, region);
}

uint64_t ClusterModel::LiveMembers(const Region& r) const {
  uint64_t live = 0;
  for (const Peer& p : r.peers) live += stores_[p.store].alive() ? 1 : 0;
  return live;
}

void ClusterModel::Observe(uint32_t region) {
  Region& r = regions_[region];
  const uint64_t live = LiveMembers(r);
  min_live_ = std::min(min_live_, live);
  if (live < 2) r.below_two = true;
  // Without a majority of its members nothing of the region commits again:
  // no member in this model ever comes back.
  if (live < r.peers.size() / 2 + 1) r.lost_quorum = true;
}

void ClusterModel::MarkDirty(uint32_t region) {
  if (regions_[region].dirty) return;
  regions_[region].dirty = true;
  dirty_.push_back(region);
}

void ClusterModel::KillStore(uint32_t index, int64_t now) {
  now_ = now;
  Store& st = stores_[index];
  if (!st.alive()) return;
  st.killed = true;
  // Whatever it was receiving or sending is lost with it.
  for (uint32_t region : st.queued) DropAdding(region, index);
  st.queued.clear();
  std::vector<Snapshot> kept;
  for (const Snapshot& snap : active_) {
    if (snap.target == index || snap.sender == static_cast<int32_t>(index)) {
      stores_[snap.target].receiving--;
      if (snap.sender >= 0) stores_[snap.sender].sending--;
      DropAdding(snap.region, snap.target);
      if (snap.target != index) StartSnapshots(snap.target);
    } else {
      kept.push_back(snap);
    }
  }
  active_ = std::move(kept);
  for (uint32_t r = 0; r < regions_.size(); ++r) {
    Region& region = regions_[r];
    const bool member = std::any_of(region.peers.begin(), region.peers.end(),
                                    [&](const Peer& p) { return p.store == index; });
    if (!member) continue;
    if (region.leader == static_cast<int32_t>(index)) ScheduleElection(r, now);
    Observe(r);
  }
}

uint64_t ClusterModel::KillZone(const std::string& zone, int64_t now) {
  uint64_t killed = 0;
  for (uint32_t i = 0; i < stores_.size(); ++i) {
    if (stores_[i].zone == zone && stores_[i].alive()) {
      KillStore(i, now);
      ++killed;
    }
  }
  return killed;
}

void ClusterModel::MarkRemoving(uint32_t index) { stores_[index].removing = true; }

uint64_t ClusterModel::DrainLeaders(uint32_t index) {
  uint64_t moved = 0;
  for (uint32_t r = 0; r < regions_.size(); ++r) {
    Region& region = regions_[r];
    if (region.leader != static_cast<int32_t>(index)) continue;
    for (const Peer& p : region.peers) {
      if (p.store != index && stores_[p.store].alive()) {
        SetLeader(r, static_cast<int32_t>(p.store));
        ++moved;
        break;
      }
    }
  }
  return moved;
}

uint64_t ClusterModel::SplitPeerIds(uint32_t index, uint64_t parts) const {
  return index < regions_.size() && parts > 1 ? (parts - 1) * regions_[index].peers.size() : 0;
}

bool ClusterModel::Split(uint32_t index, uint64_t parts, uint64_t first_region_id) {
  if (index >= regions_.size() || parts < 2 || regions_[index].lost_quorum) return false;
  if (spare_peer_ids() < SplitPeerIds(index, parts)) return false;
  // The new ranges cut the region's own just after its start: its start
  // key followed by a counter sorts after the start and before any later
  // region's start.
  const Region parent = regions_[index];
  if (parent.leader < 0) return false;
  std::vector<std::string> cuts;
  for (uint64_t k = 1; k < parts; ++k) {
    char suffix[24];
    std::snprintf(suffix, sizeof(suffix), "/%08llu", static_cast<unsigned long long>(k));
    cuts.push_back(parent.start_key + suffix);
  }
  regions_[index].end_key = cuts[0];
  regions_[index].version++;
  MarkDirty(index);
  for (uint64_t k = 1; k < parts; ++k) {
    Region child;
    child.id = first_region_id + k - 1;
    child.start_key = cuts[k - 1];
    child.end_key = k + 1 < parts ? cuts[k] : parent.end_key;
    child.version = parent.version + 1;
    child.conf_version = parent.conf_version;
    for (const Peer& p : parent.peers) {
      child.peers.push_back(Peer{next_peer_id_++, p.store, false});
      stores_[p.store].replicas++;
    }
    const uint32_t ci = static_cast<uint32_t>(regions_.size());
    region_index_[child.id] = ci;
    regions_.push_back(std::move(child));
    SetLeader(ci, parent.leader);
    MarkDirty(ci);
  }
  return true;
}

void ClusterModel::StopStore(uint32_t index, int64_t now) {
  if (!stores_[index].alive()) return;
  // The same loss as a kill, but the store counts as removed, not dead.
  KillStore(index, now);
  stores_[index].killed = false;
  stores_[index].stopped = true;
}

void ClusterModel::DropAdding(uint32_t region, uint32_t target) {
  std::vector<uint32_t>& adding = regions_[region].adding;
  adding.erase(std::remove(adding.begin(), adding.end(), target), adding.end());
}

void ClusterModel::Enqueue(uint32_t region, uint32_t target) {
  regions_[region].adding.push_back(target);
  stores_[target].queued.push_back(region);
  StartSnapshots(target);
}

void ClusterModel::StartSnapshots(uint32_t store) {
  Store& st = stores_[store];
  while (!st.queued.empty() && st.receiving < options_.snapshot_concurrency) {
    const uint32_t region = st.queued.front();
    st.queued.pop_front();
    st.receiving++;
    const int32_t sender = regions_[region].leader;
    if (sender >= 0) stores_[sender].sending++;
    active_.push_back(Snapshot{region, store, sender, now_ + options_.snapshot_ms});
  }
}

void ClusterModel::Apply(const pdpb::ScheduleCommand& command, int64_t now) {
  now_ = now;
  const uint32_t kind = command.kind <= pdpb::kTransferLeader ? command.kind : 0;
  commands_[kind]++;
  const int64_t target = StoreIndex(command.store_id);
  auto found = region_index_.find(command.region_id);
  if (found == region_index_.end() || target < 0) {
    ignored_++;
    return;
  }
  const uint32_t ri = found->second;
  const uint32_t si = static_cast<uint32_t>(target);
  Region& region = regions_[ri];
  auto member = std::find_if(region.peers.begin(), region.peers.end(), [&](const Peer& p) { return p.store == si; });
  const bool is_member = member != region.peers.end();
  switch (kind) {
    case pdpb::kAddPeer:
      if (!stores_[si].serving()) {
        placed_on_dead_++;
        ignored_++;
      } else if (is_member || Has(region.adding, si) || region.lost_quorum) {
        ignored_++;
      } else {
        Enqueue(ri, si);
        last_change_ms_ = now;
      }
      return;
    case pdpb::kRemovePeer:
      if (!is_member || region.lost_quorum) {
        ignored_++;
        return;
      }
      if (member->added) added_then_removed_++;
      last_change_ms_ = now;
      region.peers.erase(member);
      stores_[si].replicas--;
      region.conf_version++;
      MarkDirty(ri);
      if (region.leader == static_cast<int32_t>(si)) ScheduleElection(ri, now);
      Observe(ri);
      return;
    case pdpb::kTransferLeader:
      if (!is_member || !stores_[si].alive() || region.leader < 0 || region.lost_quorum) {
        ignored_++;
        return;
      }
      if (region.leader != static_cast<int32_t>(si)) last_change_ms_ = now;
      SetLeader(ri, static_cast<int32_t>(si));
      return;
    case pdpb::kDestroyStaleReplica:
      // No replica here outlives its membership, so the only replica the
      // store could destroy is a member's: a command that would lose data.
      if (is_member) destroyed_members_++;
      ignored_++;
      return;
    default:
      // No learners in this model: promotions and unknown kinds are counted only.
      ignored_++;
      return;
  }
}

bool ClusterModel::CompleteSnapshot(const Snapshot& snap) {
  Region& region = regions_[snap.region];
  if (region.lost_quorum) {
    DropAdding(snap.region, snap.target);
    return true;
  }
  // The leader commits the new member; without a leader or a peer id the
  // snapshot waits (an election is due, or the ids are being refilled).
  if (region.leader < 0 || next_peer_id_ >= peer_id_end_) return false;
  uint64_t serving = 0;
  for (const Peer& p : region.peers) serving += stores_[p.store].serving() ? 1 : 0;
  if (serving >= options_.replicas) region.surplus = true;
  region.peers.push_back(Peer{next_peer_id_++, snap.target, true});
  stores_[snap.target].replicas++;
  region.conf_version++;
  DropAdding(snap.region, snap.target);
  MarkDirty(snap.region);
  adds_completed_++;
  Observe(snap.region);
  return true;
}

void ClusterModel::Advance(int64_t now) {
  now_ = now;
  // Elections first, so that a snapshot finished in the same step finds its leader.
  std::vector<std::pair<int64_t, uint32_t>> waiting;
  for (const auto& [due, ri] : elections_) {
    Region& region = regions_[ri];
    if (region.leader >= 0) continue;  // elected already (a transfer, a second election)
    if (due > now) {
      waiting.emplace_back(due, ri);
      continue;
    }
    std::vector<uint32_t> live;
    for (const Peer& p : region.peers) {
      if (stores_[p.store].alive()) live.push_back(p.store);
    }
    if (live.size() < region.peers.size() / 2 + 1) {
      region.lost_quorum = true;
      continue;
    }
    SetLeader(ri, static_cast<int32_t>(live[random_() % live.size()]));
  }
  elections_ = std::move(waiting);

  std::vector<Snapshot> pending;
  std::vector<uint32_t> freed;
  for (const Snapshot& snap : active_) {
    if (snap.done_at > now || !CompleteSnapshot(snap)) {
      pending.push_back(snap);
      continue;
    }
    stores_[snap.target].receiving--;
    if (snap.sender >= 0) stores_[snap.sender].sending--;
    freed.push_back(snap.target);
  }
  active_ = std::move(pending);
  for (uint32_t s : freed) StartSnapshots(s);

  for (uint32_t i = 0; i < stores_.size(); ++i) {
    Store& st = stores_[i];
    if (st.removing && st.alive() && st.replicas == 0 && st.receiving == 0 && st.queued.empty()) {
      st.stopped = true;
    }
  }
}

int64_t ClusterModel::NextDue() const {
  int64_t due = INT64_MAX;
  for (const auto& e : elections_) due = std::min(due, e.first);
  for (const Snapshot& s : active_) due = std::min(due, s.done_at);
  return due;
}

pdpb::Region ClusterModel::RegionRecord(uint32_t index) const {
  const Region& r = regions_[index];
  pdpb::Region record;
  record.id = r.id;
  record.start_key = r.start_key;
  record.end_key = r.end_key;
  record.epoch = {r.conf_version, r.version};
  for (const Peer& p : r.peers) record.peers.push_back(pdpb::Peer{p.id, stores_[p.store].id, 0});
  return record;
}

std::vector<pdpb::Region> ClusterModel::TakeDirtyRegions(std::vector<uint32_t>* indices) {
  std::vector<pdpb::Region> out;
  out.reserve(dirty_.size());
  for (uint32_t ri : dirty_) {
    regions_[ri].dirty = false;
    out.push_back(RegionRecord(ri));
  }
  if (indices != nullptr) *indices = dirty_;
  dirty_.clear();
  return out;
}

pdpb::RegionHeartbeatEntry ClusterModel::Entry(uint32_t ri) const {
  const Region& r = regions_[ri];
  pdpb::RegionHeartbeatEntry e;
  e.region_id = r.id;
  for (const Peer& p : r.peers) {
    e.member_store_ids.push_back(stores_[p.store].id);
    if (stores_[p.store].alive() && static_cast<int32_t>(p.store) != r.leader) {
      e.candidate_store_ids.push_back(stores_[p.store].id);
    }
  }
  return e;
}

std::vector<pdpb::RegionHeartbeatRequest> ClusterModel::RegionHeartbeatsOf(const std::vector<uint32_t>& regions) const {
  std::unordered_map<int32_t, size_t> by_leader;  // leader -> place in out
  std::vector<pdpb::RegionHeartbeatRequest> out;
  for (uint32_t ri : regions) {
    const Region& r = regions_[ri];
    if (r.leader < 0 || r.lost_quorum || !stores_[r.leader].alive()) continue;
    auto [it, fresh] = by_leader.try_emplace(r.leader, out.size());
    if (fresh) {
      out.emplace_back();
      out.back().store_id = stores_[r.leader].id;
    }
    out[it->second].regions.push_back(Entry(ri));
  }
  return out;
}

pdpb::StoreHeartbeatRequest ClusterModel::StoreHeartbeat(uint32_t index) const {
  const Store& st = stores_[index];
  pdpb::StoreHeartbeatRequest req;
  req.store.id = st.id;
  req.store.address = st.address;
  req.store.labels = st.labels;
  const uint64_t capacity = options_.capacity_gb << 30;
  const uint64_t used = std::min(capacity, st.replicas * options_.region_size_mb * kMiB);
  req.stats.capacity = capacity;
  req.stats.used_size = used;
  req.stats.available = capacity - used;
  req.stats.region_count = st.replicas;
  req.stats.leader_count = st.leaders;
  req.stats.sending_snap_count = st.sending;
  req.stats.receiving_snap_count = st.receiving;
  return req;
}

std::vector<pdpb::RegionHeartbeatRequest> ClusterModel::RegionHeartbeats(int64_t only) const {
  std::vector<std::vector<pdpb::RegionHeartbeatEntry>> led(stores_.size());
  std::vector<std::vector<uint64_t>> followed(stores_.size());
  // The membership each followed replica knows, as stores tell it, so
  // that a record behind a change makes no member drop its replica.
  std::vector<std::vector<uint64_t>> known(stores_.size());
  for (uint32_t ri = 0; ri < regions_.size(); ++ri) {
    const Region& r = regions_[ri];
    const uint64_t id = r.id;
    for (const Peer& p : r.peers) {
      if (only >= 0 && p.store != only) continue;
      if (stores_[p.store].alive() && static_cast<int32_t>(p.store) != r.leader) {
        followed[p.store].push_back(id);
        known[p.store].push_back(r.conf_version);
      }
    }
    if (r.leader < 0 || (only >= 0 && r.leader != only)) continue;
    led[r.leader].push_back(Entry(ri));
  }
  const size_t chunk = std::max<size_t>(1, options_.heartbeat_chunk);
  std::vector<pdpb::RegionHeartbeatRequest> out;
  for (uint32_t s = 0; s < stores_.size(); ++s) {
    if (!stores_[s].alive() || (only >= 0 && s != only)) continue;
    size_t e = 0, f = 0;
    do {
      pdpb::RegionHeartbeatRequest req;
      req.store_id = stores_[s].id;
      const size_t e_end = std::min(led[s].size(), e + chunk);
      const size_t f_end = std::min(followed[s].size(), f + chunk);
      req.regions.assign(std::make_move_iterator(led[s].begin() + static_cast<ptrdiff_t>(e)),
                         std::make_move_iterator(led[s].begin() + static_cast<ptrdiff_t>(e_end)));
      req.region_ids.assign(followed[s].begin() + static_cast<ptrdiff_t>(f),
                            followed[s].begin() + static_cast<ptrdiff_t>(f_end));
      req.region_conf_versions.assign(known[s].begin() + static_cast<ptrdiff_t>(f),
                                      known[s].begin() + static_cast<ptrdiff_t>(f_end));
      e = e_end;
      f = f_end;
      out.push_back(std::move(req));
    } while (e < led[s].size() || f < followed[s].size());
  }
  return out;
}

Tally ClusterModel::Count() const {
  Tally t;
  for (const Region& r : regions_) {
    if (r.lost_quorum) {
      t.no_quorum++;
      continue;
    }
    uint64_t serving = 0;
    for (const Peer& p : r.peers) serving += stores_[p.store].serving() ? 1 : 0;
    if (serving < options_.replicas) t.under++;
    if (r.peers.size() > options_.replicas) t.over++;
    if (serving == options_.replicas && r.peers.size() == options_.replicas) t.healthy++;
  }
  t.snapshots_active = active_.size();
  for (const Store& st : stores_) t.snapshots_queued += st.queued.size();
  return t;
}

SimSummary ClusterModel::Summarize() const {
  SimSummary s;
  s.regions = regions_.size();
  s.tally = Count();
  s.min_live_members = min_live_;
  for (const Region& r : regions_) {
    s.regions_below_two_live += r.below_two ? 1 : 0;
    s.regions_lost_quorum += r.lost_quorum ? 1 : 0;
    s.regions_with_surplus_adds += r.surplus ? 1 : 0;
    std::set<std::string> zones, hosts;
    bool shared_zone = false, shared_host = false;
    for (const Peer& p : r.peers) {
      const Store& st = stores_[p.store];
      if (!st.alive()) continue;
      shared_zone |= !zones.insert(st.zone).second;
      shared_host |= !hosts.insert(st.host).second;
    }
    s.regions_shared_zone += shared_zone ? 1 : 0;
    s.regions_shared_host += shared_host ? 1 : 0;
  }
  std::vector<uint64_t> replicas, leaders;
  for (const Store& st : stores_) {
    const char* state = st.killed ? "dead" : st.stopped ? "removed" : st.removing ? "removing" : "serving";
    s.stores.push_back({st.id, st.zone, state, st.replicas, st.leaders});
    if (!st.serving()) continue;
    replicas.push_back(st.replicas);
    leaders.push_back(st.leaders);
  }
  s.stores_serving = replicas.size();
  s.replicas_per_store = SpreadOf(replicas);
  s.leaders_per_store = SpreadOf(leaders);
  std::copy(std::begin(commands_), std::end(commands_), std::begin(s.commands));
  s.commands_ignored = ignored_;
  s.adds_completed = adds_completed_;
  s.peers_added_then_removed = added_then_removed_;
  s.placed_on_dead = placed_on_dead_;
  s.destroyed_members = destroyed_members_;
  return s;
}

// ---- Summary output

nlohmann::json SummaryJson(const SimSummary& s) {
  auto ms = [](int64_t v) { return v < 0 ? nlohmann::json(nullptr) : nlohmann::json(v); };
  auto spread = [](const Spread& sp) { return nlohmann::json{{"max", sp.max}, {"min", sp.min}, {"ratio", sp.ratio}}; };
  nlohmann::json stores = nlohmann::json::array();
  for (const SimSummary::StoreFigures& f : s.stores) {
    stores.push_back({{"id", f.id}, {"zone", f.zone}, {"state", f.state}, {"replicas", f.replicas}, {"leaders", f.leaders}});
  }
  nlohmann::json commands = nlohmann::json::object();
  for (int k = 0; k < 6; ++k) commands[kKindNames[k]] = s.commands[k];
  nlohmann::json out{
      {"regions", s.regions},
      {"stores_serving", s.stores_serving},
      {"elapsed_ms", s.elapsed_ms},
      {"last_event_ms", s.last_event_ms},
      {"ended_healthy", s.ended_healthy},
      {"repair_ms", ms(s.repair_ms)},
      {"settle_ms", ms(s.settle_ms)},
      {"regions_healthy", s.tally.healthy},
      {"regions_under_target", s.tally.under},
      {"regions_over_target", s.tally.over},
      {"min_live_members", s.min_live_members},
      {"regions_below_two_live", s.regions_below_two_live},
      {"regions_lost_quorum", s.regions_lost_quorum},
      {"regions_shared_zone", s.regions_shared_zone},
      {"regions_shared_host", s.regions_shared_host},
      {"replicas_per_store", spread(s.replicas_per_store)},
      {"leaders_per_store", spread(s.leaders_per_store)},
      {"commands", commands},
      {"commands_ignored", s.commands_ignored},
      {"adds_completed", s.adds_completed},
      {"peers_added_then_removed", s.peers_added_then_removed},
      {"regions_with_surplus_adds", s.regions_with_surplus_adds},
      {"placed_on_dead", s.placed_on_dead},
      {"destroyed_members", s.destroyed_members},
      {"stores", stores},
      {"rpc_errors", s.rpc_errors},
      {"last_rpc_error", s.last_rpc_error},
  };
  if (s.safe_points) {
    const SafePointFigures& f = s.safe_point_figures;
    out["safe_points"] = {{"updates", f.updates},           {"refused", f.refused},
                          {"reads", f.reads},               {"failed_calls", f.failed_calls},
                          {"gc_safe_point", f.gc_safe_point}, {"gc_advances", f.gc_advances},
                          {"went_backwards", f.went_backwards}, {"above_live_service", f.above_live_service}};
  }
  return out;
}

std::string SummaryText(const SimSummary& s) {
  auto ms = [](int64_t v) { return v < 0 ? std::string("never") : std::to_string(v) + " ms"; };
  char line[256];
  std::string out;
  auto add = [&](const char* name, const std::string& value) {
    std::snprintf(line, sizeof(line), "%-28s %s\n", name, value.c_str());
    out += line;
  };
  auto spread = [](const Spread& sp) {
    char t[96];
    std::snprintf(t, sizeof(t), "max %llu  min %llu  max/min %.2f", static_cast<unsigned long long>(sp.max),
                  static_cast<unsigned long long>(sp.min), sp.ratio);
    return std::string(t);
  };
  add("elapsed", std::to_string(s.elapsed_ms) + " ms (last event at " + std::to_string(s.last_event_ms) + " ms)");
  add("ended healthy", s.ended_healthy ? "yes" : "no");
  add("repaired after last event", ms(s.repair_ms));
  add("settled after last event", ms(s.settle_ms));
  add("regions healthy", std::to_string(s.tally.healthy) + " of " + std::to_string(s.regions));
  add("regions under target", std::to_string(s.tally.under));
  add("regions over target", std::to_string(s.tally.over));
  add("min live members", std::to_string(s.min_live_members));
  add("regions below 2 live", std::to_string(s.regions_below_two_live));
  add("regions lost quorum", std::to_string(s.regions_lost_quorum));
  add("regions sharing a zone", std::to_string(s.regions_shared_zone));
  add("regions sharing a host", std::to_string(s.regions_shared_host));
  add("replicas per store", spread(s.replicas_per_store) + " over " + std::to_string(s.stores_serving) + " stores");
  add("leaders per store", spread(s.leaders_per_store));
  std::string commands;
  for (int k = 1; k < 6; ++k) commands += std::string(k > 1 ? "  " : "") + kKindNames[k] + " " + std::to_string(s.commands[k]);
  if (s.commands[0] > 0) commands += "  unknown " + std::to_string(s.commands[0]);
  add("commands", commands);
  add("commands ignored", std::to_string(s.commands_ignored));
  add("adds completed", std::to_string(s.adds_completed));
  add("peers added then removed", std::to_string(s.peers_added_then_removed));
  add("regions with surplus adds", std::to_string(s.regions_with_surplus_adds));
  add("placed on dead stores", std::to_string(s.placed_on_dead));
  add("members told to destroy", std::to_string(s.destroyed_members));
  add("failed calls", std::to_string(s.rpc_errors) + (s.rpc_errors > 0 ? " (last: " + s.last_rpc_error + ")" : ""));
  if (s.safe_points) out += s.safe_point_summary + "\n";
  return out;
}

// ---- Simulation

Simulation::Simulation(SimOptions options, std::vector<SimEvent> events, kanrpc::RpcClient* client)
    : options_(options), events_(std::move(events)), client_(client), model_(std::move(options)) {
  if (options_.safe_point_services > 0) {
    SafePointOptions sp;
    sp.services = options_.safe_point_services;
    sp.ttl_s = options_.safe_point_ttl_s;
    // One service falls silent for three times its time to live.
    sp.silent_until_ms = sp.silent_from_ms + 3 * static_cast<int64_t>(sp.ttl_s) * 1000;
    safe_points_ = std::make_unique<SafePointLoad>(
        sp, [client](const std::string& method, const std::string& request, std::string* response) {
          return client->CallRaw(method, request, response);
        });
  }
}

int64_t Simulation::Now() const { return (SteadyNs() - start_ns_) / 1000000; }

void Simulation::Failed(const std::string& what, const Status& s) {
  rpc_errors_++;
  last_error_ = what + ": " + s.message();
}

template <class Req, class Resp>
Status Simulation::Call(const char* method, const Req& request, Resp* response) {
  Status s = client_->Call(method, request, response);
  if (s.ok()) {
    last_ok_ms_ = Now();
  } else {
    Failed(method, s);
  }
  return s;
}

Status Simulation::Setup() {
  const uint64_t stores = options_.stores;
  const uint64_t regions = options_.regions;
  if (regions == 0) return Status::InvalidArgument("need at least one region");
  const uint64_t ids = regions * (1 + options_.replicas);
  if (ids > UINT32_MAX || stores > UINT32_MAX) return Status::InvalidArgument("too many regions or stores");
  pdpb::AllocIdResponse store_ids, region_ids;
  Status s = client_->Call("Pd.AllocId", pdpb::AllocIdRequest{static_cast<uint32_t>(stores)}, &store_ids);
  if (!s.ok()) return s;
  for (uint64_t i = 0; i < stores; ++i) model_.AddStore(store_ids.first_id + i);
  s = client_->Call("Pd.AllocId", pdpb::AllocIdRequest{static_cast<uint32_t>(ids)}, &region_ids);
  if (!s.ok()) return s;
  s = model_.PlaceRegions(region_ids.first_id, region_ids.first_id + regions);
  if (!s.ok()) return s;
  RefillPeerIds();

  pdpb::BootstrapRequest boot;
  const ClusterModel::Store& first = model_.stores()[0];
  boot.store.id = first.id;
  boot.store.address = first.address;
  boot.store.labels = first.labels;
  boot.region = model_.RegionRecord(0);
  pdpb::BootstrapResponse booted;
  s = client_->Call("Pd.Bootstrap", boot, &booted);
  if (!s.ok()) return s;
  if (booted.already_bootstrapped) {
    return Status::InvalidArgument("the cluster is bootstrapped already: the simulator needs a fresh server");
  }
  for (uint64_t i = 1; i < regions; i += kUpsertBatch) {
    pdpb::UpsertRegionRequest req;
    for (uint64_t j = i; j < std::min(regions, i + kUpsertBatch); ++j) {
      req.regions.push_back(model_.RegionRecord(static_cast<uint32_t>(j)));
    }
    pdpb::UpsertRegionResponse resp;
    s = client_->Call("Pd.UpsertRegion", req, &resp);
    if (!s.ok()) return s;
  }
  // Every store announces itself before any region heartbeat names it.
  for (uint32_t i = 0; i < model_.stores().size(); ++i) {
    pdpb::StoreHeartbeatResponse resp;
    s = client_->Call("Pd.StoreHeartbeat", model_.StoreHeartbeat(i), &resp);
    if (!s.ok()) return s;
  }
  return Status::OK();
}

void Simulation::RefillPeerIds() {
  if (model_.spare_peer_ids() >= kPeerIdBlock / 4) return;
  pdpb::AllocIdResponse resp;
  if (!Call("Pd.AllocId", pdpb::AllocIdRequest{kPeerIdBlock}, &resp).ok()) return;
  model_.AddPeerIds(resp.first_id, resp.count);
}

void Simulation::Fire(const SimEvent& event, int64_t now) {
  const size_t n = model_.stores().size();
  switch (event.kind) {
    case SimEvent::kKill:
      if (event.arg < n) model_.KillStore(static_cast<uint32_t>(event.arg), now);
      return;
    case SimEvent::kZoneDown:
      model_.KillZone(event.zone, now);
      return;
    case SimEvent::kAdd: {
      pdpb::AllocIdResponse ids;
      if (!Call("Pd.AllocId", pdpb::AllocIdRequest{static_cast<uint32_t>(event.arg)}, &ids).ok()) return;
      for (uint64_t i = 0; i < event.arg; ++i) {
        model_.AddStore(ids.first_id + i);
        pdpb::StoreHeartbeatResponse resp;
        const uint32_t index = static_cast<uint32_t>(model_.stores().size() - 1);
        (void)Call("Pd.StoreHeartbeat", model_.StoreHeartbeat(index), &resp);
      }
      return;
    }
    case SimEvent::kDrainLeaders:
      if (event.arg < n) model_.DrainLeaders(static_cast<uint32_t>(event.arg));
      return;
    case SimEvent::kSplit: {
      // The region in the middle of the key space as it was set up.
      const uint32_t index = static_cast<uint32_t>(options_.regions / 2);
      const uint64_t parts = std::min<uint64_t>(event.arg, UINT32_MAX / (1 + options_.replicas));
      const uint64_t peers = model_.SplitPeerIds(index, parts);
      pdpb::AllocIdResponse ids;
      if (model_.spare_peer_ids() < peers) {
        if (!Call("Pd.AllocId", pdpb::AllocIdRequest{static_cast<uint32_t>(peers)}, &ids).ok()) return;
        model_.AddPeerIds(ids.first_id, ids.count);
      }
      if (!Call("Pd.AllocId", pdpb::AllocIdRequest{static_cast<uint32_t>(parts - 1)}, &ids).ok()) return;
      model_.Split(index, parts, ids.first_id);
      return;
    }
    case SimEvent::kRemove: {
      if (event.arg >= n) return;
      const uint32_t index = static_cast<uint32_t>(event.arg);
      pdpb::RemoveStoreResponse resp;
      if (!Call("Pd.RemoveStore", pdpb::RemoveStoreRequest{model_.stores()[index].id}, &resp).ok()) return;
      model_.MarkRemoving(index);
      if (resp.state == pdpb::kStoreTombstone) model_.StopStore(index, now);
      return;
    }
  }
}

void Simulation::SendStoreHeartbeats(int64_t now) {
  next_store_hb_ = std::max(next_store_hb_ + options_.store_heartbeat_ms, now);
  for (uint32_t i = 0; i < model_.stores().size(); ++i) {
    const ClusterModel::Store& st = model_.stores()[i];
    if (!st.alive()) continue;
    pdpb::StoreHeartbeatResponse resp;
    if (!Call("Pd.StoreHeartbeat", model_.StoreHeartbeat(i), &resp).ok()) {
      // A store the server removed is refused from then on: it goes away.
      if (st.removing) model_.StopStore(i, now);
      continue;
    }
    if (resp.state == pdpb::kStoreTombstone) model_.StopStore(i, now);
  }
}

void Simulation::SendRegionHeartbeats(int64_t now) {
  const int64_t start = Now();
  // Each store's heartbeats are made when it sends them, from what it
  // holds then: made all at once, the last stores' would report members
  // that the commands answered to the first ones have changed since.
  for (uint32_t s = 0; s < model_.stores().size(); ++s) {
    for (const pdpb::RegionHeartbeatRequest& req : model_.RegionHeartbeats(s)) {
      pdpb::RegionHeartbeatResponse resp;
      if (Call("Pd.RegionHeartbeat", req, &resp).ok()) {
        for (const pdpb::ScheduleCommand& c : resp.commands) model_.Apply(c, now);
      }
      // A round over a large cluster takes long: store heartbeats go on
      // meanwhile, or the server would take the stores for disconnected.
      if (Now() >= next_store_hb_) SendStoreHeartbeats(Now());
    }
  }
  last_round_ms_ = Now() - start;
}

void Simulation::FlushRegions() {
  std::vector<uint32_t> changed;
  std::vector<pdpb::Region> dirty = model_.TakeDirtyRegions(&changed);
  for (size_t i = 0; i < dirty.size(); i += kUpsertBatch) {
    const size_t end = std::min(dirty.size(), i + kUpsertBatch);
    pdpb::UpsertRegionRequest req;
    req.regions.assign(std::make_move_iterator(dirty.begin() + static_cast<ptrdiff_t>(i)),
                       std::make_move_iterator(dirty.begin() + static_cast<ptrdiff_t>(end)));
    pdpb::UpsertRegionResponse resp;
    // A write lost with a server that died (or refused by one that no
    // longer leads) is sent again: a record left behind its region would
    // have the server take the new members for stale replicas.
    if (!Call("Pd.UpsertRegion", req, &resp).ok()) {
      for (size_t j = i; j < end; ++j) model_.MarkDirty(changed[j]);
    }
  }
  // A leader reports a region at once when its members change, so that
  // the server sees the change when its record does, not a whole interval
  // later (and the next step of a replacement or a move follows at once).
  const int64_t now = Now();
  for (const pdpb::RegionHeartbeatRequest& req : model_.RegionHeartbeatsOf(changed)) {
    pdpb::RegionHeartbeatResponse resp;
    if (Call("Pd.RegionHeartbeat", req, &resp).ok()) {
      for (const pdpb::ScheduleCommand& c : resp.commands) model_.Apply(c, now);
    }
  }
}

std::string Simulation::ProgressLine(int64_t now) const {
  const Tally t = model_.Count();
  const SimSummary s = model_.Summarize();
  char line[320];
  std::snprintf(line, sizeof(line),
                "[%7.1fs] healthy %llu/%llu  under %llu  no-quorum %llu  snapshots %llu (+%llu queued)  "
                "add %llu  remove %llu  transfer %llu  destroy %llu  promote %llu  (round %lld ms)",
                static_cast<double>(now) / 1000.0, static_cast<unsigned long long>(t.healthy),
                static_cast<unsigned long long>(s.regions), static_cast<unsigned long long>(t.under),
                static_cast<unsigned long long>(t.no_quorum), static_cast<unsigned long long>(t.snapshots_active),
                static_cast<unsigned long long>(t.snapshots_queued),
                static_cast<unsigned long long>(s.commands[pdpb::kAddPeer]),
                static_cast<unsigned long long>(s.commands[pdpb::kRemovePeer]),
                static_cast<unsigned long long>(s.commands[pdpb::kTransferLeader]),
                static_cast<unsigned long long>(s.commands[pdpb::kDestroyStaleReplica]),
                static_cast<unsigned long long>(s.commands[pdpb::kPromoteLearner]),
                static_cast<long long>(last_round_ms_));
  return line;
}

Status Simulation::Run(int64_t duration_ms, int64_t grace_ms, int64_t progress_ms, const ProgressFn& progress) {
  start_ns_ = SteadyNs();
  last_ok_ms_ = 0;
  // A server that answers nothing for this long is gone: the run is over.
  const int64_t patience = std::max<int64_t>(10000, 5 * options_.region_heartbeat_ms);
  const int64_t answered_within = 2 * std::min(options_.store_heartbeat_ms, options_.region_heartbeat_ms) + 1000;
  Status result;
  size_t next_event = 0;
  next_store_hb_ = options_.store_heartbeat_ms;  // setup sent the first round
  int64_t next_region_hb = 0;
  int64_t next_progress = progress_ms;
  int64_t next_check = 0;
  for (;;) {
    int64_t now = Now();
    while (next_event < events_.size() && events_[next_event].at_ms <= now) Fire(events_[next_event++], now);
    model_.Advance(now);
    RefillPeerIds();
    FlushRegions();
    if (now >= next_store_hb_) SendStoreHeartbeats(now);
    // Safe points are timestamps of the wall clock, as real services hold.
    if (safe_points_) safe_points_->Tick(WallNs() / 1000000);
    if (now >= next_region_hb) {
      SendRegionHeartbeats(now);
      model_.Advance(Now());
      FlushRegions();
      next_region_hb = std::max(next_region_hb + options_.region_heartbeat_ms, Now());
    }
    now = Now();
    if (now >= next_check) {
      next_check = now + kCheckMs;
      if (next_event == events_.size()) {
        const Tally t = model_.Count();
        if (t.under > 0) {
          repaired_at_ = -1;
        } else if (repaired_at_ < 0) {
          repaired_at_ = now;
        }
        // Settled: every region at its count on serving stores, and no
        // command moved a replica or a leader since (balancing is over).
        if (t.healthy + t.no_quorum < model_.regions().size()) {
          settled_at_ = -1;
        } else {
          settled_at_ = std::max(settled_at_ < 0 ? now : settled_at_, model_.last_change_ms());
        }
        // Healthy only counts while the server still answers the
        // heartbeats, which succeed every interval when it is there.
        if (settled_at_ >= 0 && now - settled_at_ >= grace_ms && now - last_ok_ms_ < answered_within) break;
      }
    }
    if (progress && progress_ms > 0 && now >= next_progress) {
      progress(ProgressLine(now));
      next_progress += progress_ms;
    }
    if (now >= duration_ms) break;
    if (now - last_ok_ms_ > patience) {
      lost_server_ = true;
      result = Status::Unavailable("no answer from the server for " + std::to_string(now - last_ok_ms_) +
                                   " ms; last failure: " + last_error_);
      break;
    }
    int64_t wake = std::min({next_store_hb_, next_region_hb, next_check, model_.NextDue(), duration_ms});
    if (next_event < events_.size()) wake = std::min(wake, events_[next_event].at_ms);
    if (progress_ms > 0) wake = std::min(wake, next_progress);
    if (wake > now) std::this_thread::sleep_for(std::chrono::milliseconds(wake - now));
  }
  elapsed_ms_ = Now();
  return result;
}

SimSummary Simulation::Summary() const {
  SimSummary s = model_.Summarize();
  s.elapsed_ms = elapsed_ms_;
  s.last_event_ms = events_.empty() ? 0 : events_.back().at_ms;
  s.ended_healthy = settled_at_ >= 0 && !lost_server_;
  s.repair_ms = repaired_at_ < 0 ? -1 : std::max<int64_t>(0, repaired_at_ - s.last_event_ms);
  s.settle_ms = settled_at_ < 0 ? -1 : std::max<int64_t>(0, settled_at_ - s.last_event_ms);
  s.rpc_errors = rpc_errors_;
  s.last_rpc_error = last_error_;
  if (safe_points_) {
    s.safe_points = true;
    s.safe_point_figures = safe_points_->figures();
    s.safe_point_summary = safe_points_->Summary();
  }
  return s;
}

}  // namespace kandb::tools::sim
