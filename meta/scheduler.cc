#include "meta/scheduler.h"

#include <algorithm>
#include <cctype>
#include <limits>
#include <utility>

#include "common/clock.h"

namespace kandb::meta {

namespace {

using pdpb::RegionHeartbeatEntry;
using pdpb::ScheduleCommand;

// States whose replicas are replaced: the store is gone or going.
bool Leaving(uint8_t state) {
  return state == pdpb::kStoreDown || state == pdpb::kStoreOffline || state == pdpb::kStoreTombstone;
}

// States in which a store may take a new replica: Up, or never heard from
// (scheduled as before store heartbeats existed).
bool MayReceive(uint8_t state) { return state == pdpb::kStoreUp || state == pdpb::kStoreUnknown; }

// A store that sends store heartbeats, but has sent this server none yet:
// this server started or took over since, and counts its silence from
// then, so it may be dead while still taken for Up. It receives nothing
// until heard from (nor does a store of a wider domain in its stead), and
// is the first to lose a surplus replica.
bool Unheard(const Scheduler::StoreView& v) { return !v.has_stats && v.record->first_heartbeat_ms != 0; }

// Store limits are counted in whole units, a change costing a minute's
// worth of ms, so that refills add up exactly: each ms adds `limit` units.
constexpr int64_t kCost = 60 * 1000;

// A leadership transfer not seen done within this long failed, and its
// region may be chosen again.
constexpr int64_t kTransferTimeoutMs = 30 * 1000;

const std::string* LabelOf(const pdpb::Store& store, const std::string& key) {
  for (const pdpb::StoreLabel& label : store.labels) {
    if (label.key == key) return &label.value;
  }
  return nullptr;
}

}  // namespace

bool ParseDurationMs(const std::string& text, int64_t* out) {
  size_t digits = 0;
  while (digits < text.size() && std::isdigit(static_cast<unsigned char>(text[digits]))) digits++;
  if (digits == 0 || digits > 12) return false;
  const int64_t value = std::stoll(text.substr(0, digits));
  const std::string unit = text.substr(digits);
  int64_t scale = 0;
  if (unit == "ms") {
    scale = 1;
  } else if (unit.empty() || unit == "s") {
    scale = 1000;
  } else if (unit == "m") {
    scale = 60 * 1000;
  } else if (unit == "h") {
    scale = 60 * 60 * 1000;
  } else {
    return false;
  }
  *out = value * scale;
  return true;
}

Scheduler::Scheduler(Options options) : options_(std::move(options)), started_ms_(Now()) {
  MutexLock lock(&mu_);
  swept_ms_ = started_ms_;
}

uint64_t Scheduler::PendingAddsTo(uint64_t store_id) const {
  MutexLock lock(&mu_);
  auto it = pending_adds_.find(store_id);
  return it == pending_adds_.end() ? 0 : it->second;
}

int64_t Scheduler::Now() const {
  return options_.steady_ms ? options_.steady_ms() : SteadyNs() / 1000000;
}

void Scheduler::ReportStore(uint64_t store_id, const pdpb::StoreStats& stats) {
  const int64_t now = Now();
  const uint64_t wall = options_.wall_ms ? options_.wall_ms() : static_cast<uint64_t>(WallNs() / 1000000);
  MutexLock lock(&mu_);
  Heard& heard = heard_[store_id];
  heard.steady_ms = now;
  heard.wall_ms = wall;
  heard.stats = stats;
}

uint8_t Scheduler::StateLocked(const pdpb::Store& record, int64_t now) const {
  if (record.node_state == pdpb::kNodeTombstone) return pdpb::kStoreTombstone;
  if (record.node_state == pdpb::kNodeOffline) return pdpb::kStoreOffline;
  auto it = heard_.find(record.id);
  if (it == heard_.end() && record.first_heartbeat_ms == 0) return pdpb::kStoreUnknown;
  // A store this server has not heard from yet (it took over, or started,
  // since) is silent from the moment it began to listen, not before: its
  // last heartbeat went to another server, or to this one before it stopped.
  const int64_t last = it != heard_.end() ? it->second.steady_ms : started_ms_;
  const int64_t silent = now - last;
  const int64_t down = options_.max_store_down_ms;
  if (silent >= down) return pdpb::kStoreDown;
  if (silent >= std::min(options_.disconnect_ms, down)) return pdpb::kStoreDisconnected;
  return pdpb::kStoreUp;
}

uint8_t Scheduler::StateOf(const pdpb::Store& record) const {
  const int64_t now = Now();
  MutexLock lock(&mu_);
  return StateLocked(record, now);
}

pdpb::StoreInfo Scheduler::Info(const pdpb::Store& record, uint64_t replicas, bool counted) const {
  const int64_t now = Now();
  pdpb::StoreInfo info;
  info.store = record;
  info.replicas = replicas;
  MutexLock lock(&mu_);
  info.state = StateLocked(record, now);
  // Offline with nothing left (by the records, and nothing on its way) is
  // as good as removed; the record says so once the store or the operator
  // next calls. Without counts nothing is guessed.
  if (info.state == pdpb::kStoreOffline && counted && replicas == 0 && pending_adds_.count(record.id) == 0) {
    info.state = pdpb::kStoreTombstone;
  }
  auto it = heard_.find(record.id);
  if (it != heard_.end()) {
    info.stats = it->second.stats;
    info.last_heartbeat_ms = it->second.wall_ms;
  }
  return info;
}

bool Scheduler::Active(const std::vector<pdpb::Store>& stores) const {
  {
    MutexLock lock(&mu_);
    if (!heard_.empty()) return true;
  }
  return std::any_of(stores.begin(), stores.end(), [](const pdpb::Store& s) {
    return s.first_heartbeat_ms != 0 || s.node_state != pdpb::kNodeServing;
  });
}

bool Scheduler::Repairing() const {
  MutexLock lock(&mu_);
  return missing_ + on_down_ + on_offline_ > 0;
}

std::vector<uint64_t> Scheduler::Unwell(const std::vector<pdpb::Store>& stores) const {
  const int64_t now = Now();
  std::vector<uint64_t> out;
  MutexLock lock(&mu_);
  for (const pdpb::Store& store : stores) {
    if (!MayReceive(StateLocked(store, now))) out.push_back(store.id);
  }
  return out;
}

bool Scheduler::TakeToken(uint64_t store_id, int64_t now) {
  const int64_t limit = std::clamp<int64_t>(options_.store_limit, 1, kMaxStoreLimit);
  auto [it, fresh] = buckets_.try_emplace(store_id);
  Bucket& bucket = it->second;
  if (fresh) {
    bucket.units = limit * kCost;
  } else if (now > bucket.refilled_ms) {
    // A minute refills the bucket whole; capping the time first keeps the
    // product in range.
    const int64_t elapsed = std::min<int64_t>(now - bucket.refilled_ms, kCost);
    bucket.units = std::min(limit * kCost, bucket.units + elapsed * limit);
  }
  bucket.refilled_ms = std::max(bucket.refilled_ms, now);
  if (bucket.units < kCost) return false;
  bucket.units -= kCost;
  return true;
}

void Scheduler::GiveBackToken(uint64_t store_id) {
  const int64_t limit = std::clamp<int64_t>(options_.store_limit, 1, kMaxStoreLimit);
  Bucket& bucket = buckets_[store_id];
  bucket.units = std::min(limit * kCost, bucket.units + kCost);
}

size_t Scheduler::SharedDepth(const pdpb::Store& a, const pdpb::Store& b) const {
  for (size_t i = 0; i < options_.location_labels.size(); i++) {
    const std::string* va = LabelOf(a, options_.location_labels[i]);
    const std::string* vb = LabelOf(b, options_.location_labels[i]);
    // A store that does not say where it stands is taken as apart.
    if (va == nullptr || vb == nullptr || va->empty() || *va != *vb) return i;
  }
  return options_.location_labels.size();
}

double Scheduler::Score(const StoreView& v, int64_t delta) const {
  double weight = 1.0;
  if (v.has_stats && v.stats.capacity > 0) {
    const double free = static_cast<double>(v.stats.available) / static_cast<double>(v.stats.capacity);
    weight = 1.0 / std::max(free, 1e-3);
  }
  return static_cast<double>(std::max<int64_t>(0, v.load + delta)) * weight;
}

uint64_t Scheduler::ChooseTarget(const std::vector<uint64_t>& members, const std::vector<uint64_t>& keep,
                                 std::unordered_map<uint64_t, StoreView>* view, const std::vector<uint64_t>& order,
                                 int64_t now, const BalanceBounds* bounds) {
  struct Candidate {
    size_t depth;
    double score;
    size_t rank;  // key order of the record breaks ties
    uint64_t id;
  };
  std::vector<Candidate> candidates;
  const size_t levels = options_.location_labels.size();
  // Scores now of the stores that could hold the replica.
  double group_sum = 0;
  size_t group_size = 0;
  for (size_t rank = 0; rank < order.size(); rank++) {
    const uint64_t id = order[rank];
    const StoreView& v = view->at(id);
    if (ContainsId(members, id) || v.record->address.empty() || !MayReceive(v.state)) continue;
    if (v.has_stats && v.stats.capacity > 0 &&
        static_cast<double>(v.stats.available) < options_.low_space_ratio * static_cast<double>(v.stats.capacity)) {
      continue;
    }
    size_t depth = 0;
    for (uint64_t kept : keep) {
      auto k = view->find(kept);
      if (k != view->end()) depth = std::max(depth, SharedDepth(*v.record, *k->second.record));
    }
    // Never two replicas in the narrowest domain named (the same host).
    if (levels > 0 && depth >= levels) continue;
    if (bounds != nullptr) {
      if (depth > bounds->max_depth) continue;
      group_sum += Score(v, 0);
      group_size++;
      // Nor onto a store still giving replicas away: the two would cross.
      if (moving_out_.count(id) > 0) continue;
    }
    candidates.push_back({depth, Score(v, 1), rank, id});
  }
  if (bounds != nullptr) {
    // A move goes from a store above the mean of the stores that could
    // hold the replica to one that stays below it: a store that gave
    // replicas away never takes any back, nor one that took them gives.
    const double mean = (group_sum + bounds->source) / static_cast<double>(group_size + 1);
    if (!(bounds->source > mean)) return 0;
    const double limit = std::min(bounds->below, mean);
    candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                    [limit](const Candidate& c) { return !(c.score < limit); }),
                     candidates.end());
  }
  if (candidates.empty()) return 0;
  std::sort(candidates.begin(), candidates.end(), [](const Candidate& a, const Candidate& b) {
    if (a.depth != b.depth) return a.depth < b.depth;
    if (a.score != b.score) return a.score < b.score;
    return a.rank < b.rank;
  });
  // Only the best spread counts: a store of a wider shared domain is not
  // taken because the better ones are busy or not heard from yet; the
  // region waits for them.
  for (const Candidate& c : candidates) {
    if (c.depth != candidates.front().depth) break;
    if (!Unheard(view->at(c.id)) && TakeToken(c.id, now)) {
      (*view)[c.id].load++;
      return c.id;
    }
  }
  return 0;
}

bool Scheduler::HealOne(uint64_t reporter, const RegionHeartbeatEntry& entry,
                        std::unordered_map<uint64_t, StoreView>* view, const std::vector<uint64_t>& order, int64_t now,
                        double least, ScheduleCommand* out) {
  const std::vector<uint64_t>& members = entry.member_store_ids;
  // A move is over once the replica it takes away is gone.
  auto move = moves_.find(entry.region_id);
  if (move != moves_.end() && !ContainsId(members, move->second.from)) EndMove(entry.region_id);
  auto pending = pending_.find(entry.region_id);
  if (pending != pending_.end()) {
    const Pending& p = pending->second;
    const bool done = (p.kind == pdpb::kAddPeer && ContainsId(members, p.store_id)) ||
                      (p.kind == pdpb::kRemovePeer && !ContainsId(members, p.store_id));
    // An add to a store that may no longer take replicas is chosen again.
    auto target = view->find(p.store_id);
    const bool unwanted = p.kind == pdpb::kAddPeer && (target == view->end() || !MayReceive(target->second.state));
    if (!done && !unwanted && now - p.issued_ms < options_.change_timeout_ms) {
      *out = ScheduleCommand{p.kind, entry.region_id, p.store_id, p.address};
      return true;
    }
    if (p.kind == pdpb::kAddPeer && --pending_adds_[p.store_id] == 0) pending_adds_.erase(p.store_id);
    // A move whose new replica never came leaves the old one where it is.
    if (p.kind == pdpb::kAddPeer && !done) EndMove(entry.region_id);
    pending_.erase(pending);
  }

  auto state_of = [view](uint64_t id) {
    auto it = view->find(id);
    return it == view->end() ? pdpb::kStoreUnknown : it->second.state;
  };
  std::vector<uint64_t> keep;
  uint64_t leaving_other = 0;  // first leaving member other than the reporter
  bool reporter_leaving = false;
  for (uint64_t m : members) {
    if (!Leaving(state_of(m))) {
      keep.push_back(m);
    } else if (m == reporter) {
      reporter_leaving = true;
    } else if (leaving_other == 0) {
      leaving_other = m;
    }
  }

  const size_t target = options_.target_replicas;
  auto add = [&]() {
    mu_.AssertHeld();  // called below, within HealOne
    const uint64_t chosen = ChooseTarget(members, keep, view, order, now);
    if (chosen == 0) return false;
    const std::string& address = view->at(chosen).record->address;
    *out = ScheduleCommand{pdpb::kAddPeer, entry.region_id, chosen, address};
    pending_[entry.region_id] = Pending{pdpb::kAddPeer, chosen, address, now};
    pending_adds_[chosen]++;
    issued_[pdpb::kAddPeer]++;
    return true;
  };
  if (members.size() < target) return add();
  // The leader itself is to go: it hands leadership to a member that
  // stays, whose heartbeat then removes it.
  auto hand_over = [&](uint64_t going) {
    for (uint64_t m : members) {
      if (m != reporter && m != going && ContainsId(entry.candidate_store_ids, m) && MayReceive(state_of(m))) {
        *out = ScheduleCommand{pdpb::kTransferLeader, entry.region_id, m, std::string()};
        return true;
      }
    }
    return false;
  };
  if (members.size() > target) {
    uint64_t victim = leaving_other;
    // The second half of a move: its new replica is in, the old one goes
    // (it was paid for on its store when the move was chosen).
    bool moving = false;
    move = moves_.find(entry.region_id);
    if (victim == 0 && !reporter_leaving && move != moves_.end()) {
      if (move->second.from == reporter) return hand_over(reporter);
      victim = move->second.from;
      moving = true;
    }
    if (victim == 0 && reporter_leaving) return hand_over(reporter);
    // Then the member sharing the deepest domain with another that stays,
    // so that the region keeps its widest spread (a leaving store's domain
    // is about to be free); among equals, one on a store this server has
    // not heard from yet (it started or took over since, and the store may
    // be dead), else the first.
    const size_t levels = options_.location_labels.size();
    if (victim == 0 && levels > 0) {
      size_t deepest = 0;
      bool deepest_unheard = false;
      for (uint64_t m : keep) {
        auto vm = view->find(m);
        if (m == reporter || vm == view->end()) continue;
        size_t depth = 0;
        for (uint64_t o : keep) {
          auto vo = view->find(o);
          if (o != m && vo != view->end()) depth = std::max(depth, SharedDepth(*vm->second.record, *vo->second.record));
        }
        const bool unheard = Unheard(vm->second);
        if (depth > 0 && (depth > deepest || (depth == deepest && unheard && !deepest_unheard))) {
          victim = m;
          deepest = depth;
          deepest_unheard = unheard;
        }
      }
    }
    if (victim == 0) {
      // As before store heartbeats: a candidate first, never the reporter.
      for (uint64_t m : members) {
        if (m != reporter && ContainsId(entry.candidate_store_ids, m)) {
          victim = m;
          break;
        }
      }
      for (uint64_t m : members) {
        if (victim == 0 && m != reporter) victim = m;
      }
    }
    if (victim == 0) return false;
    // A store that is down gets nothing to do from its removal.
    const uint8_t state = state_of(victim);
    if (!moving && state != pdpb::kStoreDown && state != pdpb::kStoreTombstone && !TakeToken(victim, now)) {
      return false;
    }
    *out = ScheduleCommand{pdpb::kRemovePeer, entry.region_id, victim, std::string()};
    pending_[entry.region_id] = Pending{pdpb::kRemovePeer, victim, std::string(), now};
    issued_[pdpb::kRemovePeer]++;
    return true;
  }
  // At its count, but with a member to replace: the new replica first, so
  // the region never has fewer members than it had.
  if (keep.size() < members.size()) return add();
  // At its count with no add in flight: a move recorded for it ended some
  // other way (its surplus went as a repair's).
  if (moves_.count(entry.region_id) > 0) EndMove(entry.region_id);
  return BalanceOne(reporter, entry, view, order, now, least, out);
}

void Scheduler::EndMove(uint64_t region_id) {
  auto it = moves_.find(region_id);
  if (it == moves_.end()) return;
  if (--moving_out_[it->second.from] == 0) moving_out_.erase(it->second.from);
  moves_.erase(it);
}

bool Scheduler::BalanceOne(uint64_t reporter, const RegionHeartbeatEntry& entry,
                           std::unordered_map<uint64_t, StoreView>* view, const std::vector<uint64_t>& order,
                           int64_t now, double least, ScheduleCommand* out) {
  if (options_.balance_tolerance <= 0 || missing_ + on_down_ + on_offline_ > 0) return false;
  const std::vector<uint64_t>& members = entry.member_store_ids;
  // The busiest member other than the leader, which would first have to
  // hand leadership over, and other than a store still taking replicas in:
  // counted with all of them it may look busy before it holds them, and
  // would pass them on.
  uint64_t from = 0;
  double top = 0;
  for (uint64_t m : members) {
    auto it = view->find(m);
    if (m == reporter || it == view->end() || !MayReceive(it->second.state) || pending_adds_.count(m) > 0) continue;
    const double score = Score(it->second, 0);
    if (from == 0 || score > top) {
      from = m;
      top = score;
    }
  }
  if (from == 0) return false;
  StoreView& source = view->at(from);
  std::vector<uint64_t> keep;
  size_t depth = 0;  // how much the replica that moves shares with the rest
  for (uint64_t m : members) {
    if (m == from) continue;
    keep.push_back(m);
    auto k = view->find(m);
    if (k != view->end()) depth = std::max(depth, SharedDepth(*source.record, *k->second.record));
  }
  // The target must end clearly below where the source stands now: by more
  // than the replica itself, and by more than the tolerance.
  const double unit = top - Score(source, -1);
  const double below = top - std::max(unit, options_.balance_tolerance * top);
  // A cluster within its tolerance (the common case) has no store to take
  // the replica: known without weighing every store's domains against
  // this region's members, which would cost each heartbeat entry a pass
  // over the stores.
  if (!(least < below)) return false;
  if (!TakeToken(from, now)) return false;
  const BalanceBounds bounds{top, below, depth};
  const uint64_t chosen = ChooseTarget(members, keep, view, order, now, &bounds);
  if (chosen == 0) {
    GiveBackToken(from);  // the removal will not happen
    return false;
  }
  source.load--;
  moves_[entry.region_id] = Move{from, now};
  moving_out_[from]++;
  const std::string& address = view->at(chosen).record->address;
  *out = ScheduleCommand{pdpb::kAddPeer, entry.region_id, chosen, address};
  pending_[entry.region_id] = Pending{pdpb::kAddPeer, chosen, address, now};
  pending_adds_[chosen]++;
  issued_[pdpb::kAddPeer]++;
  return true;
}

void Scheduler::SetFlags(uint64_t region_id, uint8_t flags, int64_t now) {
  uint8_t old = 0;
  auto it = region_flags_.find(region_id);
  if (it != region_flags_.end()) old = it->second.flags;
  missing_ += ((flags & kMissing) != 0) - ((old & kMissing) != 0);
  on_down_ += ((flags & kOnDown) != 0) - ((old & kOnDown) != 0);
  on_offline_ += ((flags & kOnOffline) != 0) - ((old & kOnOffline) != 0);
  if (flags == 0) {
    if (it != region_flags_.end()) region_flags_.erase(it);
  } else {
    region_flags_[region_id] = Flagged{flags, now};
  }
}

void Scheduler::NoteDesigned(const std::vector<RegionHeartbeatEntry>& entries) {
  const int64_t now = Now();
  MutexLock lock(&mu_);
  for (const RegionHeartbeatEntry& entry : entries) {
    const bool missing = entry.member_store_ids.size() < options_.target_replicas;
    SetFlags(entry.region_id, missing ? kMissing : 0, now);
  }
}

void Scheduler::Heal(uint64_t reporter, const std::vector<RegionHeartbeatEntry>& entries,
                     const std::vector<pdpb::Store>& stores, const ReplicaCounts& replicas,
                     std::vector<ScheduleCommand>* per_entry) {
  const int64_t now = Now();
  MutexLock lock(&mu_);
  // Changes of regions that stopped reporting (merged away, or led by a
  // store that died) would otherwise stay, and their adds keep counting
  // on their targets.
  if (now - swept_ms_ >= options_.change_timeout_ms) {
    swept_ms_ = now;
    for (auto it = pending_.begin(); it != pending_.end();) {
      if (now - it->second.issued_ms < options_.change_timeout_ms) {
        ++it;
        continue;
      }
      if (it->second.kind == pdpb::kAddPeer && --pending_adds_[it->second.store_id] == 0) {
        pending_adds_.erase(it->second.store_id);
      }
      it = pending_.erase(it);
    }
    for (auto it = moves_.begin(); it != moves_.end();) {
      const uint64_t region_id = it->first;
      const bool stale = now - it->second.started_ms >= 2 * options_.change_timeout_ms;
      ++it;
      if (stale) EndMove(region_id);
    }
    std::vector<uint64_t> unreported;
    for (const auto& [region_id, flagged] : region_flags_) {
      if (now - flagged.seen_ms >= options_.change_timeout_ms) unreported.push_back(region_id);
    }
    for (uint64_t region_id : unreported) SetFlags(region_id, 0, now);
  }
  std::unordered_map<uint64_t, StoreView> view;
  view.reserve(stores.size());
  std::vector<uint64_t> order;
  order.reserve(stores.size());
  for (const pdpb::Store& store : stores) {
    StoreView& v = view[store.id];
    v.record = &store;
    v.state = StateLocked(store, now);
    auto r = replicas.find(store.id);
    auto p = pending_adds_.find(store.id);
    auto o = moving_out_.find(store.id);
    v.load = static_cast<int64_t>((r != replicas.end() ? r->second : 0) + (p != pending_adds_.end() ? p->second : 0)) -
             static_cast<int64_t>(o != moving_out_.end() ? o->second : 0);
    auto h = heard_.find(store.id);
    if (h != heard_.end()) {
      v.stats = h->second.stats;
      v.has_stats = true;
    }
    order.push_back(store.id);
  }
  double least = std::numeric_limits<double>::infinity();
  for (const auto& [id, v] : view) {
    if (MayReceive(v.state)) least = std::min(least, Score(v, 1));
  }

  per_entry->assign(entries.size(), ScheduleCommand{});
  for (size_t i = 0; i < entries.size(); i++) {
    const RegionHeartbeatEntry& entry = entries[i];
    uint8_t flags = entry.member_store_ids.size() < options_.target_replicas ? kMissing : 0;
    for (uint64_t m : entry.member_store_ids) {
      auto it = view.find(m);
      if (it == view.end()) continue;
      if (it->second.state == pdpb::kStoreDown) flags |= kOnDown;
      if (it->second.state == pdpb::kStoreOffline) flags |= kOnOffline;
    }
    SetFlags(entry.region_id, flags, now);
    if (options_.target_replicas == 0) continue;
    HealOne(reporter, entry, &view, order, now, least, &(*per_entry)[i]);
  }
}

void Scheduler::BalanceLeaders(uint64_t reporter, const std::vector<RegionHeartbeatEntry>& entries,
                               const std::vector<bool>& skip, const std::vector<uint64_t>& unwell,
                               std::vector<ScheduleCommand>* out) {
  const int64_t now = Now();
  MutexLock lock(&mu_);
  // A transfer is done once another store than the one that had it
  // reports the region: the target took over (or someone else did).
  for (const RegionHeartbeatEntry& entry : entries) {
    auto t = transfers_.find(entry.region_id);
    if (t != transfers_.end() && t->second.done_ms == 0 && reporter != t->second.from) t->second.done_ms = now;
  }
  // What the stores' reported counts do not show yet, per store: a
  // transfer counts on a store until the store reports after it was
  // chosen. A transfer takes one round of the region's replication, so a
  // report made after it shows it; counted longer (until the new leader
  // reports the region, a heartbeat interval later), a store that gave
  // would look emptier than it is, and take leaderships back.
  std::unordered_map<uint64_t, int64_t> delta;
  const int64_t timeout = std::min(kTransferTimeoutMs, options_.change_timeout_ms);
  for (auto it = transfers_.begin(); it != transfers_.end();) {
    const Transfer& tr = it->second;
    auto shows = [&](uint64_t store) {
      mu_.AssertHeld();  // called below, under the lock
      auto h = heard_.find(store);
      return h == heard_.end() || h->second.steady_ms > tr.issued_ms;
    };
    const bool to_shows = shows(tr.to);
    const bool from_shows = shows(tr.from);
    // Kept while it may still happen, so that it is not chosen again; one
    // that did not happen in time may be.
    if ((to_shows && from_shows && tr.done_ms != 0) || now - tr.issued_ms >= timeout) {
      it = transfers_.erase(it);
      continue;
    }
    if (!to_shows) delta[tr.to]++;
    if (!from_shows) delta[tr.from]--;
    ++it;
  }

  // Leadership waits while replicas are repaired: the repair moves it where
  // it must, and balancing meanwhile would chase a moving target.
  if (missing_ + on_down_ + on_offline_ > 0) return;
  if (heard_.count(reporter) == 0) return;
  auto led = [&](uint64_t id, const Heard& h) {
    // Clamped, so that a count off the wire cannot overflow the sums.
    const int64_t reported = static_cast<int64_t>(std::min<uint64_t>(h.stats.leader_count, uint64_t{1} << 40));
    auto d = delta.find(id);
    return reported + (d == delta.end() ? 0 : d->second);
  };
  // Leadership goes only from a store above the mean of the stores that
  // report to one that stays about at or below it, so that few stores both
  // give leaderships away and take them in as the counts even out.
  int64_t total = 0;
  int64_t counted = 0;
  for (const auto& [id, heard] : heard_) {
    if (ContainsId(unwell, id)) continue;
    total += led(id, heard);
    counted++;
  }
  if (counted == 0) return;
  const double mean = static_cast<double>(total) / static_cast<double>(counted);
  // Within the tolerance above the mean a store still takes some: a store
  // that shares regions only with stores at the mean passes its surplus
  // on through them.
  const double ceiling = mean + std::max(1.0, options_.leader_tolerance * mean);
  for (size_t i = 0; i < entries.size(); i++) {
    if (i < skip.size() && skip[i]) continue;
    const RegionHeartbeatEntry& entry = entries[i];
    // A change under way is checked here too, under the same hold as the
    // choice: the caller's `skip` comes from its own heal, and a heartbeat
    // of another store reporting the region may have started one since.
    // A transfer not done yet is not chosen again.
    if (pending_.count(entry.region_id) > 0 || moves_.count(entry.region_id) > 0 ||
        transfers_.count(entry.region_id) > 0) {
      continue;
    }
    const int64_t own = led(reporter, heard_.at(reporter));
    if (!(static_cast<double>(own) > mean)) break;
    // The target must end clearly below the reporter: by more than one
    // region, and by a small share of what the reporter leads, so that
    // large counts are not passed back and forth over a few regions.
    const int64_t margin = std::max<int64_t>(1, static_cast<int64_t>(options_.leader_tolerance * static_cast<double>(own)));
    int64_t best = own - margin;
    uint64_t target = 0;
    for (uint64_t m : entry.member_store_ids) {
      if (m == reporter || !ContainsId(entry.candidate_store_ids, m) || ContainsId(unwell, m)) continue;
      auto h = heard_.find(m);
      if (h == heard_.end()) continue;  // a store that reports nothing is not compared
      const int64_t count = led(m, h->second);
      // Strict: on equal counts the earlier member stays.
      if (count < best && static_cast<double>(count + 1) <= ceiling) {
        best = count;
        target = m;
      }
    }
    if (target == 0) continue;
    out->push_back(ScheduleCommand{pdpb::kTransferLeader, entry.region_id, target, std::string()});
    transfers_[entry.region_id] = Transfer{reporter, target, now, 0};
    delta[reporter]--;
    delta[target]++;
  }
}

void Scheduler::CountIssued(const std::vector<ScheduleCommand>& commands, bool informed) {
  MutexLock lock(&mu_);
  for (const ScheduleCommand& c : commands) {
    // Heal counts its adds and removals when it chooses them, not each
    // time a change in flight is repeated.
    if (informed && (c.kind == pdpb::kAddPeer || c.kind == pdpb::kRemovePeer)) continue;
    if (c.kind < 6) issued_[c.kind]++;
  }
}

void Scheduler::FillStats(const std::vector<pdpb::Store>& stores, pdpb::SchedulingStats* out) const {
  const int64_t now = Now();
  MutexLock lock(&mu_);
  for (const pdpb::Store& store : stores) {
    switch (StateLocked(store, now)) {
      case pdpb::kStoreUp: out->stores_up++; break;
      case pdpb::kStoreDisconnected: out->stores_disconnected++; break;
      case pdpb::kStoreDown: out->stores_down++; break;
      case pdpb::kStoreOffline: out->stores_offline++; break;
      case pdpb::kStoreTombstone: out->stores_tombstone++; break;
      default: out->stores_unknown++; break;
    }
  }
  out->regions_missing_replica = missing_;
  out->regions_on_down_store = on_down_;
  out->regions_on_offline_store = on_offline_;
  out->promote_learner = issued_[pdpb::kPromoteLearner];
  out->add_peer = issued_[pdpb::kAddPeer];
  out->remove_peer = issued_[pdpb::kRemovePeer];
  out->destroy_stale_replica = issued_[pdpb::kDestroyStaleReplica];
  out->transfer_leader = issued_[pdpb::kTransferLeader];
}

}  // namespace kandb::meta
