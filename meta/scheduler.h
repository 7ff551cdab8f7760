#ifndef KANDB_META_SCHEDULER_H_
#define KANDB_META_SCHEDULER_H_

// Scheduler: what the service knows of its stores beyond their records, and
// the repair and placement decisions made from it.
//
// Stores that send store heartbeats are tracked here: their statistics and
// when they last reported, in memory only. From that follows each store's
// state: Up; Disconnected after a short silence (no new replicas on it);
// Down after the configured down time (its replicas are replaced); Offline
// and Tombstone as the operator decided (persisted in the record).
//
// Once any store of the cluster takes part (has ever sent a store
// heartbeat), auto-heal works from that knowledge instead of the designed
// first-store rule: new replicas go only to Up stores with room, to the
// store with the lowest score (replicas held, weighted by the share of space
// left) among those that keep the region's replicas in distinct failure
// domains; replicas on Down and Offline stores are replaced, the new one
// added before the old one is removed; and each store takes at most a
// configured number of changes a minute. A cluster in which no store ever
// sent one is scheduled exactly as before; the caller decides which path a
// heartbeat takes (Active).
//
// A change issued for a region is remembered until the region's heartbeat
// shows it done, or until it times out; meanwhile the same command is
// repeated rather than another one chosen, so that a slow snapshot never
// makes the region gain a second new replica.
//
// When nothing is to repair (no region reported missing a replica or
// holding one on a Down or Offline store), replicas are balanced: a region
// whose member on the store with the highest score could go to a store
// scoring clearly lower, in the same or a better spread of failure
// domains, gets a replica there, and once it is reported as a member the
// one on the busy store is removed (a move; the member count never drops).
// "Clearly" is a tolerance relative to the busy store's score, so that a
// move never makes the two swap places and moves back. A move counts on
// both stores from the moment it is chosen, so that the heartbeats before
// it completes do not move more than the difference.
//
// Thread-safe; one mutex guards everything and is held only for in-memory
// work (never across a call into the store or the network).

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "pdpb/messages.h"
#include "pdpb/stats.h"

namespace kandb::meta {

class Scheduler {
 public:
  struct Options {
    // The member count auto-heal aims for; 0 turns it off.
    uint32_t target_replicas = 0;
    // Silence after which a store's replicas are replaced.
    int64_t max_store_down_ms = 30 * 60 * 1000;
    // Silence after which a store gets no new replicas (capped by the
    // down time).
    int64_t disconnect_ms = 20 * 1000;
    // Label keys naming the failure domains, widest first ("zone", "rack",
    // "host"): replicas of a region go to distinct values of the first, then
    // of the next. Empty: stores are the only domains.
    std::vector<std::string> location_labels;
    // Changes a minute per store: replicas added to it and removed from it
    // (a Down store's removals are free: nothing is sent to it).
    int64_t store_limit = 60;
    // A store with less than this share of its capacity available gets no
    // new replicas.
    double low_space_ratio = 0.2;
    // How long a change may stay unreported before another may be chosen.
    int64_t change_timeout_ms = 10 * 60 * 1000;
    // Replicas move from a store to one scoring lower only when the gap is
    // over this share of the busier store's score (and over one replica
    // each way); 0 turns replica balance off.
    double balance_tolerance = 0.02;
    // Leadership moves to a store leading fewer regions only when it leads
    // fewer by more than this share of the reporter's count (and by more
    // than one).
    double leader_tolerance = 0.02;
    // Monotonic ms for every time above; wall-clock ms for what is shown.
    // Empty: the system's clocks.
    std::function<int64_t()> steady_ms;
    std::function<uint64_t()> wall_ms;
  };

  // A store as one heartbeat's decisions see it.
  struct StoreView {
    const pdpb::Store* record = nullptr;
    uint8_t state = pdpb::kStoreUnknown;
    // Region records placing a replica on it, plus adds issued to it that
    // the records do not show yet, less the moves away from it chosen and
    // not yet done. Signed: a move may be counted before the records show
    // the replica it takes away.
    int64_t load = 0;
    pdpb::StoreStats stats;
    bool has_stats = false;
  };
  using ReplicaCounts = std::unordered_map<uint64_t, uint64_t>;

  // The highest --store_limit taken; more is no limit at all.
  static constexpr int64_t kMaxStoreLimit = 1000000;

  explicit Scheduler(Options options);
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  const Options& options() const { return options_; }

  // Records a store heartbeat now.
  void ReportStore(uint64_t store_id, const pdpb::StoreStats& stats) EXCLUDES(mu_);
  // The state of a store from its record and its heartbeats.
  uint8_t StateOf(const pdpb::Store& record) const EXCLUDES(mu_);
  // The record, state, statistics and last heartbeat of a store;
  // `counted` when `replicas` comes from the records (else it is unknown).
  pdpb::StoreInfo Info(const pdpb::Store& record, uint64_t replicas, bool counted) const EXCLUDES(mu_);
  // Adds issued to a store that the records may not show yet.
  uint64_t PendingAddsTo(uint64_t store_id) const EXCLUDES(mu_);
  // Whether any store of the cluster takes part in store heartbeats: from
  // then on, heartbeats are scheduled by Heal instead of the designed rule.
  bool Active(const std::vector<pdpb::Store>& stores) const EXCLUDES(mu_);
  // Whether a region was last reported missing a replica or holding one
  // on a Down or Offline store: then nothing is balanced.
  bool Repairing() const EXCLUDES(mu_);

  // The auto-heal and repair decision for each entry of one region
  // heartbeat from `reporter`: (*per_entry)[i] is the one change for entry
  // i, or a command of kind 0 for none. `stores` are the registered stores
  // in record key order; `replicas` the region records' replicas per store.
  void Heal(uint64_t reporter, const std::vector<pdpb::RegionHeartbeatEntry>& entries,
            const std::vector<pdpb::Store>& stores, const ReplicaCounts& replicas,
            std::vector<pdpb::ScheduleCommand>* per_entry) EXCLUDES(mu_);
  // The stores leadership must not move to: silent, down or leaving.
  std::vector<uint64_t> Unwell(const std::vector<pdpb::Store>& stores) const EXCLUDES(mu_);
  // Leadership transfers for the entries of one region heartbeat from
  // `reporter` (appended to *out), from the leader counts the stores
  // report in their store heartbeats and the transfers chosen since: from
  // a reporter above the mean toward the member leading the fewest, with a
  // tolerance, never onto an `unwell` store, never for an entry whose
  // `skip` is set or whose region has an add, removal or move under way,
  // and not at all while a region is repaired.
  void BalanceLeaders(uint64_t reporter, const std::vector<pdpb::RegionHeartbeatEntry>& entries,
                      const std::vector<bool>& skip, const std::vector<uint64_t>& unwell,
                      std::vector<pdpb::ScheduleCommand>* out) EXCLUDES(mu_);
  // Region health of a heartbeat scheduled the designed way (no store
  // takes part, so only a missing member can be told), for the statistics.
  void NoteDesigned(const std::vector<pdpb::RegionHeartbeatEntry>& entries) EXCLUDES(mu_);
  // Counts the commands of one heartbeat's answer, by kind; `informed`
  // when Heal chose its auto-heal (which counts its own, once per change).
  void CountIssued(const std::vector<pdpb::ScheduleCommand>& commands, bool informed) EXCLUDES(mu_);
  void FillStats(const std::vector<pdpb::Store>& stores, pdpb::SchedulingStats* out) const EXCLUDES(mu_);

 private:
  struct Heard {
    int64_t steady_ms = 0;
    uint64_t wall_ms = 0;
    pdpb::StoreStats stats;
  };
  // A leadership transfer chosen, and when another store than `from` was
  // first seen reporting the region (0: not yet).
  struct Transfer {
    uint64_t from = 0;
    uint64_t to = 0;
    int64_t issued_ms = 0;
    int64_t done_ms = 0;
  };
  // A change issued and not yet seen done.
  struct Pending {
    uint32_t kind = 0;
    uint64_t store_id = 0;
    std::string address;
    int64_t issued_ms = 0;
  };
  // Changes a store may still take: a bucket refilled at store_limit a
  // minute, holding at most store_limit.
  struct Bucket {
    int64_t units = 0;
    int64_t refilled_ms = 0;
  };
  enum RegionFlags : uint8_t { kMissing = 1, kOnDown = 2, kOnOffline = 4 };
  // A balance move of a region: a replica added elsewhere, then this one
  // removed.
  struct Move {
    uint64_t from = 0;
    int64_t started_ms = 0;
  };

  int64_t Now() const;
  uint8_t StateLocked(const pdpb::Store& record, int64_t now) const REQUIRES(mu_);
  bool TakeToken(uint64_t store_id, int64_t now) REQUIRES(mu_);
  // Returns a change taken for one that is not made after all.
  void GiveBackToken(uint64_t store_id) REQUIRES(mu_);
  // The one change for one entry, or none. `least` is the lowest score,
  // with one replica more, of any store that may receive, as the view was
  // made: no balance target scores under it (targets only gain load, and
  // a store giving replicas away is no target).
  bool HealOne(uint64_t reporter, const pdpb::RegionHeartbeatEntry& entry,
               std::unordered_map<uint64_t, StoreView>* view, const std::vector<uint64_t>& order, int64_t now,
               double least, pdpb::ScheduleCommand* out) REQUIRES(mu_);
  // The best store for a new replica of a region whose members are
  // `members`, of which those in `keep` stay; 0 when none may take it now.
  // What a balance move asks of its target: to share no more domain
  // levels with the members that stay than the replica it replaces
  // (`max_depth`), and to score below `below` and below the mean of the
  // stores that could hold the replica after taking it, the source
  // (scoring `source`) being above that mean.
  struct BalanceBounds {
    double source = 0;
    double below = 0;
    size_t max_depth = 0;
  };
  uint64_t ChooseTarget(const std::vector<uint64_t>& members, const std::vector<uint64_t>& keep,
                        std::unordered_map<uint64_t, StoreView>* view, const std::vector<uint64_t>& order,
                        int64_t now, const BalanceBounds* bounds = nullptr) REQUIRES(mu_);
  // A balance move for a region at its count with every member well, or
  // none.
  bool BalanceOne(uint64_t reporter, const pdpb::RegionHeartbeatEntry& entry,
                  std::unordered_map<uint64_t, StoreView>* view, const std::vector<uint64_t>& order, int64_t now,
                  double least, pdpb::ScheduleCommand* out) REQUIRES(mu_);
  // The score of a store after `delta` more replicas: its load weighted by
  // the share of its space left.
  double Score(const StoreView& v, int64_t delta) const;
  void EndMove(uint64_t region_id) REQUIRES(mu_);
  // Sets the flags of a region reported at `now` (0: healthy).
  void SetFlags(uint64_t region_id, uint8_t flags, int64_t now) REQUIRES(mu_);
  // How many of the location labels, widest first, two stores share.
  size_t SharedDepth(const pdpb::Store& a, const pdpb::Store& b) const;

  const Options options_;
  // Monotonic ms when this scheduler was made: a store with a record from
  // an earlier server counts its silence from here.
  const int64_t started_ms_;

  mutable Mutex mu_;
  std::unordered_map<uint64_t, Heard> heard_ GUARDED_BY(mu_);
  std::unordered_map<uint64_t, Pending> pending_ GUARDED_BY(mu_);  // by region id
  std::unordered_map<uint64_t, uint64_t> pending_adds_ GUARDED_BY(mu_);  // by target store
  std::unordered_map<uint64_t, Bucket> buckets_ GUARDED_BY(mu_);
  std::unordered_map<uint64_t, Move> moves_ GUARDED_BY(mu_);  // by region id
  // Transfers chosen, until they are done and both stores have reported
  // counts since, or until they time out; by region id.
  std::unordered_map<uint64_t, Transfer> transfers_ GUARDED_BY(mu_);
  std::unordered_map<uint64_t, uint64_t> moving_out_ GUARDED_BY(mu_);  // moves_ by source store
  // Per region, the flags of its last heartbeat that had any; counted.
  // A region that is never reported again (merged away) loses its flags
  // after the change timeout: they would hold balancing back for good.
  struct Flagged {
    uint8_t flags = 0;
    int64_t seen_ms = 0;  // its last heartbeat
  };
  std::unordered_map<uint64_t, Flagged> region_flags_ GUARDED_BY(mu_);
  uint64_t missing_ GUARDED_BY(mu_) = 0;
  uint64_t on_down_ GUARDED_BY(mu_) = 0;
  uint64_t on_offline_ GUARDED_BY(mu_) = 0;
  uint64_t issued_[6] GUARDED_BY(mu_) = {};
  // When pending_ was last swept of changes that timed out.
  int64_t swept_ms_ GUARDED_BY(mu_) = 0;
};

// Whether a list of store or region ids holds `id`; the lists of one
// heartbeat entry are short, so a scan.
inline bool ContainsId(const std::vector<uint64_t>& ids, uint64_t id) {
  for (uint64_t x : ids) {
    if (x == id) return true;
  }
  return false;
}

// Parses a duration such as "30m", "20s", "500ms", "1h" (a bare number is
// seconds) into milliseconds; false when it is not one.
bool ParseDurationMs(const std::string& text, int64_t* out);

}  // namespace kandb::meta

#endif  // KANDB_META_SCHEDULER_H_
