#ifndef KANDB_META_PD_SERVICE_H_
#define KANDB_META_PD_SERVICE_H_

// PdService: the placement driver of the cluster. It hands out timestamps
// and identifiers, records the cluster's bootstrap, routes keys to regions,
// accepts region updates and answers region heartbeats with scheduling
// commands.
//
// The service keeps no copy of stores or regions in memory: every handler
// reads what it needs from the metadata store and writes every change there
// before it answers. Only the timestamp state, the identifier counter and
// the heartbeat bookkeeping live in memory, each under its own mutex; the
// three mutexes are never held together and never across a call into
// another subsystem except the metadata store. Handlers run concurrently on
// the RPC server's event loops and worker threads.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/striped_counter.h"
#include "common/thread_annotations.h"
#include "meta/region_index.h"
#include "meta/scheduler.h"
#include "pdpb/messages.h"
#include "pdpb/stats.h"
#include "store/meta_store.h"

namespace kandb::kanrpc {
class RpcServer;
}  // namespace kandb::kanrpc

namespace kandb::meta {

class PdService {
 public:
  // Milliseconds since the Unix epoch; the timestamp oracle's physical clock.
  using ClockMs = std::function<uint64_t()>;

  // Timestamps are physical << 18 | logical; logical never reaches
  // kMaxLogical, which always overflows into the next millisecond.
  static constexpr int kLogicalBits = 18;
  static constexpr uint64_t kMaxLogical = (1u << kLogicalBits) - 1;
  // Identifier numbering on a state directory that has never allocated one.
  static constexpr uint64_t kFirstId = 1024;
  // How far the persisted high-water mark runs ahead of the last identifier
  // handed out, so that most allocations need no write.
  static constexpr uint64_t kIdMargin = 1000;

  struct Options {
    // The member count auto-heal aims for; 0 turns it off.
    uint32_t target_replicas = 0;
    // The timestamp oracle's clock; empty: the wall clock.
    ClockMs clock_ms;
    // Asked for routing before the walk (not owned; it must outlive the
    // service). Null: the service builds a region index over its store.
    const RegionRouter* router = nullptr;
    // Hand out identifiers only below a high-water mark this service
    // itself wrote, never below one merely read back: on a store that
    // another server may also write (a replicated server's term), a mark
    // read back may have been raised by a newer leader that hands out the
    // identifiers under it.
    bool own_id_marks = false;
    // With own_id_marks: persists a mark of at least the one given (a
    // replicated term's compare-and-set write); empty: a plain put.
    std::function<Status(uint64_t mark)> write_id_mark;
    // Store liveness, failure domains and change limits, for clusters whose
    // stores send store heartbeats. Its target_replicas is set from the one
    // above.
    Scheduler::Options scheduling;
  };

  // Builds the service on `store` (not owned; it must outlive the service).
  // Loads the identifier counter from the persisted high-water mark, and
  // fails, naming it, when the mark cannot be read or is damaged: numbering
  // again from a guess could hand out identifiers twice.
  static Status Create(store::MetaStore* store, Options options, std::unique_ptr<PdService>* out);
  // With the wall clock and its own region index.
  static Status Create(store::MetaStore* store, uint32_t target_replicas, std::unique_ptr<PdService>* out);
  // The same with another clock, so tests can stand time still.
  static Status Create(store::MetaStore* store, uint32_t target_replicas, ClockMs clock_ms,
                       std::unique_ptr<PdService>* out);

  PdService(const PdService&) = delete;
  PdService& operator=(const PdService&) = delete;

  // Each handler fills *resp only when it returns OK.

  // A batch of `count` (0 read as 1) consecutive timestamps within one
  // millisecond. Fails with InvalidArgument when `count` is over
  // kMaxLogical, or when a timestamp ceiling (SetTsoCeiling) refuses it.
  Status Tso(const pdpb::TsoRequest& req, pdpb::TsoResponse* resp) EXCLUDES(tso_mutex_);
  // A batch of `count` (0 read as 1) identifiers never handed out before,
  // across restarts too. Fails when the high-water mark cannot be read or
  // written, or is damaged.
  Status AllocId(const pdpb::AllocIdRequest& req, pdpb::AllocIdResponse* resp)
      EXCLUDES(id_mutex_);
  // The same two answers from memory alone, for a caller that must not
  // wait (an event loop): true with *status (and *resp on OK) when
  // answered; false, having handed out nothing, when only the waiting form
  // can answer: another batch holds the counter, the timestamp ceiling
  // would have to be raised first, or the identifier mark written.
  bool TsoWithoutWaiting(const pdpb::TsoRequest& req, pdpb::TsoResponse* resp, Status* status)
      EXCLUDES(tso_mutex_);
  bool AllocIdWithoutWaiting(const pdpb::AllocIdRequest& req, pdpb::AllocIdResponse* resp, Status* status)
      EXCLUDES(id_mutex_);

  // Records the first store and regions, or on an existing cluster only the
  // caller's store record. Fails when the write fails, in both cases.
  Status Bootstrap(const pdpb::BootstrapRequest& req, pdpb::BootstrapResponse* resp)
      EXCLUDES(store_record_mutex_);
  // The first region in key order of its record that covers `key`, its
  // first peer as leader, and the store records of its peers. Answered by
  // the routing index when the records form a clean partition of the key
  // space, else by RouteByWalk.
  Status GetRegion(const pdpb::GetRegionRequest& req, pdpb::GetRegionResponse* resp);
  // GetRegion's answer from the routing index alone: true with *status
  // (and *resp on OK) when the index answered, false when only the walk
  // can, which may take milliseconds at a large cluster.
  bool GetRegionFromIndex(const pdpb::GetRegionRequest& req, pdpb::GetRegionResponse* resp, Status* status);
  // The same answer from a walk over the region records in key order, up to
  // the first that covers the key: the reference the index must match.
  Status RouteByWalk(const pdpb::GetRegionRequest& req, pdpb::GetRegionResponse* resp);
  // The service's own routing index, or null when it was built without
  // one (or routes through another router).
  const RegionIndex* routing_index() const { return index_.get(); }
  // Writes and deletes region records as one batch, unconditionally.
  Status UpsertRegion(const pdpb::UpsertRegionRequest& req, pdpb::UpsertRegionResponse* resp);
  // The same write without waiting for it: `done` gets its result once the
  // store knows it (see MetaStore::WriteAsync); the response is empty.
  // With `defer_lead`, the caller calls store's LeadDeferredWrites after
  // its pass (see MetaStore::WriteAsync).
  void UpsertRegionAsync(const pdpb::UpsertRegionRequest& req, std::function<void(const Status&)> done,
                         bool defer_lead = false);
  // Scheduling commands for the regions the reporting store leads.
  Status RegionHeartbeat(const pdpb::RegionHeartbeatRequest& req,
                         pdpb::RegionHeartbeatResponse* resp) EXCLUDES(heartbeat_mutex_);

  // ---- Stores that send store heartbeats (an extension: a cluster whose
  // stores never call these is served exactly as without them).

  // Records a store's statistics in memory, and its address, labels and
  // first heartbeat in its record when they change (registering a store
  // not seen before). Answers the store's state; fails for a removed
  // (Tombstone) store.
  Status StoreHeartbeat(const pdpb::StoreHeartbeatRequest& req, pdpb::StoreHeartbeatResponse* resp)
      EXCLUDES(store_record_mutex_);
  // A store's record, state, statistics and replicas; NotFound when it has
  // no record.
  Status GetStore(const pdpb::GetStoreRequest& req, pdpb::GetStoreResponse* resp);
  // The same for every store, in store id order.
  Status GetAllStores(const pdpb::GetAllStoresRequest& req, pdpb::GetAllStoresResponse* resp);
  // Marks a store Offline, so that its replicas move away, and Tombstone
  // once it holds none. NotFound when it has no record.
  Status RemoveStore(const pdpb::RemoveStoreRequest& req, pdpb::RemoveStoreResponse* resp)
      EXCLUDES(store_record_mutex_);
  // Called by a store heartbeat between its first read of the record and
  // its write, so that a test can run a removal in that window. Set before
  // the service is shared.
  void SetStoreRecordHookForTesting(std::function<void()> hook) { store_record_hook_ = std::move(hook); }

  // ---- Region reads for clients that warm a route cache (an extension:
  // the designed methods answer as without them). Each presents as a
  // region's leader the peer on the store that last reported the region in
  // a region heartbeat, when that store is a member, else the first peer;
  // each takes heartbeat_mutex_ once per call, so they run on worker
  // threads, never on an event loop.

  // The region with id `region_id`, answered as GetRegion answers the one
  // that covers a key (its record, leader, leader's store, peers' stores),
  // from the routing index when it holds the record, else from a read of
  // the record. NotFound "no region with id N" when there is no such
  // record, "cluster not bootstrapped" when there are none at all;
  // Corruption "bad region record" when it does not decode.
  Status GetRegionById(const pdpb::GetRegionByIdRequest& req, pdpb::GetRegionResponse* resp)
      EXCLUDES(heartbeat_mutex_);
  // The regions whose ranges meet [start_key, end_key), in the order of
  // their start keys, at most ScanLimit(limit) of them, each with its
  // leader: from the routing index when the records form a clean
  // partition, else by ScanRegionsByWalk. Records that do not decode cover
  // no key and are left out. NotFound "cluster not bootstrapped" when there
  // are no region records at all.
  Status ScanRegions(const pdpb::ScanRegionsRequest& req, pdpb::ScanRegionsResponse* resp)
      EXCLUDES(heartbeat_mutex_);
  // The same answer from a walk over every region record, ordered by start
  // key (then by record key): the reference the index must match.
  Status ScanRegionsByWalk(const pdpb::ScanRegionsRequest& req, pdpb::ScanRegionsResponse* resp)
      EXCLUDES(heartbeat_mutex_);
  // Regions a scan answers at most: `requested`, 0 read as
  // kScanRegionsDefaultLimit, capped at kScanRegionsMaxLimit.
  static uint32_t ScanLimit(uint32_t requested);

  // ---- GC safe points (an extension, like the store methods: a cluster
  // whose clients never call these is served exactly as without them).
  //
  // The GC safe point is the lowest safe point of the services whose time
  // to live has not run out, and never moves backwards: every value
  // answered is persisted first ("pd/gc/safe_point"), and the answer is
  // the higher of that and the lowest live service's. With no live service
  // it is the persisted value (0 when none was ever answered). Expiry is by
  // the wall clock (Options::clock_ms), against an absolute time persisted
  // with the entry, so it holds across restarts and a replicated server's
  // takeover.

  // Upper bounds: a longer service id, or a new service beyond that many
  // entries, is InvalidArgument; the listing of every entry stays one read.
  static constexpr size_t kMaxServiceIdSize = 256;
  static constexpr uint32_t kMaxServiceSafePoints = 10000;

  // Sets the service's safe point until ttl_s seconds from now, or with
  // ttl_s 0 removes its entry, answering the entry and the GC safe point
  // after the call. An update below the service's live safe point or below
  // the GC safe point is refused: answered OK with `refused` set and the
  // current values, writing no entry. The same safe point again only moves
  // the expiry. Entries that have expired are deleted in the same batch.
  // InvalidArgument for an empty or too long service id.
  Status UpdateServiceSafePoint(const pdpb::UpdateServiceSafePointRequest& req,
                                pdpb::UpdateServiceSafePointResponse* resp) EXCLUDES(safe_point_mutex_);
  // The GC safe point and the live services' entries in service id order.
  // Persists the GC safe point first when it moved up since last persisted
  // (a service expired), and fails when that write fails.
  Status GetGcSafePoint(const pdpb::GetGcSafePointRequest& req, pdpb::GetGcSafePointResponse* resp)
      EXCLUDES(safe_point_mutex_);
  // Where a safe point call is when it calls the test hook.
  enum class SafePointStep {
    kLockBusy,  // another call holds the lock: this one waits for it next
    kRead,      // the entries are read, under the lock; nothing written yet
  };
  // Called at each SafePointStep, so that a test can run another call in the
  // window. Set before the service is shared.
  void SetSafePointHookForTesting(std::function<void(SafePointStep)> hook) { safe_point_hook_ = std::move(hook); }

  // The replicated server's timestamp ceiling. `admit` is consulted under
  // tso_mutex_ with the physical part of each batch before the batch is
  // answered, and fails the batch when no ceiling above that part could be persisted;
  // `floor` is where the physical part starts (the ceiling a previous leader
  // persisted), so timestamps never repeat across leaders. Set once, before
  // the methods are registered. Unset, as on the embedded server, Tso is
  // unchanged. `admitted` tells, without waiting, whether the ceiling
  // already admits a physical part (TsoWithoutWaiting); without it only
  // Tso answers.
  using TsoAdmit = std::function<Status(uint64_t physical)>;
  void SetTsoCeiling(uint64_t floor, TsoAdmit admit, std::function<bool(uint64_t physical)> admitted = nullptr)
      EXCLUDES(tso_mutex_);

  // The live statistics: the counters of `server`, of the store's engine
  // (absent on etcd) and of routing. Reads only counters and sizes; never
  // fails.
  void GetStats(const kanrpc::RpcServer& server, pdpb::StatsResponse* resp);

  // Registers the six methods ("Pd.Tso", "Pd.AllocId", "Pd.Bootstrap",
  // "Pd.GetRegion", "Pd.UpsertRegion", "Pd.RegionHeartbeat") on `server`,
  // before it starts, and beside them the read-only "Pd.Stats", which
  // answers GetStats of that server, the store methods
  // ("Pd.StoreHeartbeat", "Pd.GetStore", "Pd.GetAllStores",
  // "Pd.RemoveStore"), the region reads ("Pd.GetRegionById",
  // "Pd.ScanRegions") and the safe point methods
  // ("Pd.UpdateServiceSafePoint", "Pd.GetGcSafePoint"). The service must
  // outlive the server's use of them. For a store on the embedded engine, whose reads never wait
  // on the network: timestamps (without a ceiling) and routing by the index
  // are answered on the server's event loops, upserts when
  // their group is synced, routing that the index cannot answer and the
  // rest run on its worker threads.
  void RegisterTo(kanrpc::RpcServer* server);

 private:
  PdService(store::MetaStore* store, Options options);

  // The persisted identifier high-water mark, or kFirstId when none was
  // ever written. Fails when it cannot be read or is not 8 bytes long.
  static Status ReadIdMark(store::MetaStore* store, uint64_t* mark);
  // Persists `mark` as the identifier high-water mark.
  Status WriteIdMark(uint64_t mark) REQUIRES(id_mutex_);
  // One timestamp batch of n; with `may_wait` false, false (nothing
  // handed out) when the ceiling does not admit it already.
  bool TakeTso(uint64_t n, bool may_wait, pdpb::TsoResponse* resp, Status* status) REQUIRES(tso_mutex_);

  // The stale-replica commands of a heartbeat from a read of each region's
  // record (appended to *commands), where the routing index cannot tell.
  void StaleByReads(const pdpb::RegionHeartbeatRequest& req, const std::vector<uint64_t>* known,
                    std::vector<pdpb::ScheduleCommand>* commands);
  // Records the reporter as the last reporter of each entry's region and,
  // with `balance`, appends the leadership transfers chosen from those
  // records to *resp.
  void BalanceLeaders(const pdpb::RegionHeartbeatRequest& req, size_t candidate_stores, bool balance,
                      pdpb::RegionHeartbeatResponse* resp) EXCLUDES(heartbeat_mutex_);
  // The store records in key order and the replicas per store: from the
  // routing index when it stands for the records, else read from the store
  // without replica counts (*counted false).
  Status LoadStores(std::shared_ptr<const std::vector<pdpb::Store>>* stores,
                    Scheduler::ReplicaCounts* replicas, bool* counted = nullptr);
  // A store's record; *found false when it has none.
  Status ReadStore(uint64_t store_id, pdpb::Store* out, bool* found);
  // The store that last reported region `region_id` in a region
  // heartbeat, if any.
  std::optional<uint64_t> LastReporter(uint64_t region_id) EXCLUDES(heartbeat_mutex_);
  // The regions of a scan, read by walking every record.
  Status WalkScan(const pdpb::ScanRegionsRequest& req, std::vector<pdpb::Region>* regions);
  // The answer to a scan: each region with its leader, the marks read
  // under one hold of heartbeat_mutex_.
  void PresentScan(std::vector<pdpb::Region> regions, pdpb::ScanRegionsResponse* resp) EXCLUDES(heartbeat_mutex_);
  // The persisted GC safe point and every service entry; see safe_points.cc.
  struct SafePoints;
  Status ReadSafePoints(uint64_t now_ms, SafePoints* out) REQUIRES(safe_point_mutex_);

  // Makes an Offline store Tombstone when the records place no replica on
  // it and no add is on its way to it; *state is then Tombstone.
  Status FinishRemoval(uint64_t store_id, uint8_t* state) EXCLUDES(store_record_mutex_);

  store::MetaStore* const store_;
  const uint32_t target_replicas_;
  const ClockMs clock_ms_;
  const bool own_id_marks_;
  const std::function<Status(uint64_t mark)> write_id_mark_;
  // Built by Create unless another router was given; follows the store's
  // writes on its own.
  std::unique_ptr<RegionIndex> index_;
  // index_, the router given, or null (built without an index). Set by
  // Create, before the service is shared.
  const RegionRouter* router_ = nullptr;
  // GetRegion calls answered by the index and by the walk; striped, since
  // every event loop counts them.
  StripedCounter index_lookups_;
  StripedCounter walk_lookups_;

  // Serialises identifier batches, including their read and write of the
  // persisted mark; no other handler takes it.
  Mutex id_mutex_;
  uint64_t next_id_ GUARDED_BY(id_mutex_);  // first identifier not yet handed out
  // With own_id_marks_: the highest mark this service wrote and saw
  // acknowledged (identifiers below it are its own), and the highest it
  // tried to write (a write without an answer may have landed), so that
  // the stored mark never goes down.
  uint64_t written_mark_ GUARDED_BY(id_mutex_) = 0;
  uint64_t tried_mark_ GUARDED_BY(id_mutex_) = 0;

  // What the service knows of its stores beyond their records.
  Scheduler scheduler_;
  // Serialises the changes of store records (a store heartbeat that
  // changes its record, a removal, a registration), each a read and a
  // write, so that none undoes another. Taken only on worker threads, never
  // by an event loop, so it may be held across the write; never across a
  // read of every store.
  Mutex store_record_mutex_;
  std::function<void()> store_record_hook_;  // tests only; set before serving

  // Serialises the safe point calls, each a read of every entry and the
  // GC safe point and then one write batch: held across both, so that no
  // call decides on entries another changes before it writes. Without it,
  // two updates read the same state and both pass their checks: a lower one
  // of a service lands after a higher one and moves it back, or a new
  // service is accepted below the GC safe point another just answered.
  // Taken only on worker threads, never by an event loop, so it may be held
  // across the write. It guards no member: what it serialises lives in the
  // store.
  Mutex safe_point_mutex_;
  std::function<void(SafePointStep)> safe_point_hook_;  // tests only; set before serving

  // Serialises timestamp batches only.
  Mutex tso_mutex_;
  uint64_t tso_physical_ GUARDED_BY(tso_mutex_) = 0;  // ms of the last batch
  uint64_t tso_logical_ GUARDED_BY(tso_mutex_) = 0;   // next free logical value in it
  TsoAdmit tso_admit_ GUARDED_BY(tso_mutex_);         // null: no ceiling
  std::function<bool(uint64_t)> tso_admitted_ GUARDED_BY(tso_mutex_);

  // Per region id, the store that reported it last: the load figure that
  // leader balancing compares. Only the heartbeat handler writes it; the
  // region reads look up the leaders they present in it. Taken on worker
  // threads only, never across a read or a write of the store.
  Mutex heartbeat_mutex_;
  std::map<uint64_t, uint64_t> heartbeat_marks_ GUARDED_BY(heartbeat_mutex_);
  // Per store, the regions heartbeat_marks_ attributes to it.
  std::unordered_map<uint64_t, uint64_t> led_counts_ GUARDED_BY(heartbeat_mutex_);
};

}  // namespace kandb::meta

#endif  // KANDB_META_PD_SERVICE_H_
