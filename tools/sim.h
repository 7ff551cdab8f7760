#ifndef KANDB_TOOLS_SIM_H_
#define KANDB_TOOLS_SIM_H_

// The cluster simulator behind kandb-meta-sim: simulated stores that talk to
// a real placement-driver server over its own protocol, so that an operator
// can watch the server repair a cluster after stores die, join or leave.
//
// ClusterModel is the stores and regions themselves, with no network: it
// lays out the initial replicas, builds the heartbeats the stores would
// send, applies the commands the server answers with (snapshots, membership
// changes, leadership), runs elections after a store dies and keeps the
// figures of the final summary. Its clock is a millisecond count the caller
// passes in, so tests can step it exactly.
//
// Simulation drives a ClusterModel against a server in real time: setup
// (identifiers, bootstrap, the regions), then store and region heartbeats
// at their intervals, the scripted events, and progress reports. Both run on
// the caller's thread only; nothing in them is shared between threads.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <nlohmann/json.hpp>

#include "common/status.h"
#include "pdpb/messages.h"
#include "rpc/client.h"
#include "tools/sim_safe_points.h"

namespace kandb::tools::sim {

struct SimOptions {
  uint64_t stores = 6;
  uint64_t zones = 3;
  uint64_t hosts_per_zone = 0;  // 0: every store on a host of its own
  uint64_t racks_per_zone = 0;  // 0: no rack label
  uint64_t regions = 1000;
  uint64_t replicas = 3;
  int64_t region_heartbeat_ms = 2000;
  int64_t store_heartbeat_ms = 1000;
  uint64_t region_size_mb = 96;
  int64_t snapshot_ms = 960;  // the time to ship one region's snapshot
  uint64_t snapshot_concurrency = 3;  // snapshots one store receives at once
  uint64_t capacity_gb = 16384;  // of every store
  uint64_t seed = 1;
  // Leader entries per region heartbeat, and non-led region ids per call.
  size_t heartbeat_chunk = 5000;
  // Services holding the GC safe point back beside the stores (0: none),
  // and the time to live of their safe points.
  uint64_t safe_point_services = 0;
  uint64_t safe_point_ttl_s = 10;
};

// A scripted event of a run: at `at_ms` after setup, kill store `arg` (its
// index in creation order), add `arg` empty stores, remove store `arg`,
// take every store of `zone` down, move every leadership off store `arg`
// (as when it restarts), or split the region in the middle of the key
// space into `arg` regions (a hot range).
struct SimEvent {
  enum Kind { kKill, kAdd, kRemove, kZoneDown, kDrainLeaders, kSplit };
  Kind kind = kKill;
  uint64_t arg = 0;
  std::string zone;
  int64_t at_ms = 0;
  bool operator==(const SimEvent&) const = default;
};

// "kill:3@10s,add:2@60s,remove:5@90s,zone-down:z1@10s,drain-leaders:0@5s,
// split:500@5s"; an empty text is no event. The events come back in time order (stable for equal times).
Status ParseEvents(std::string_view text, std::vector<SimEvent>* out);

// Where a store stands, from its creation index: zone z<i % zones>, hosts
// (and racks) numbered across zones so that every value is unique.
std::vector<pdpb::StoreLabel> StoreLabels(const SimOptions& options, uint64_t index);

// The counts of one look at all regions.
struct Tally {
  uint64_t healthy = 0;   // exactly the target count of members, all on serving stores
  uint64_t under = 0;     // fewer members on serving stores than the target (quorum intact)
  uint64_t over = 0;      // more members than the target
  uint64_t no_quorum = 0;
  uint64_t snapshots_active = 0;
  uint64_t snapshots_queued = 0;
};

struct Spread {
  uint64_t max = 0;
  uint64_t min = 0;
  double ratio = 0;  // max / min; 0 when min is 0
};

// Everything the run reports at its end.
struct SimSummary {
  uint64_t regions = 0;
  uint64_t stores_serving = 0;
  int64_t elapsed_ms = 0;
  int64_t last_event_ms = 0;
  bool ended_healthy = false;
  // From the last event until every region with a quorum had its count of
  // replicas on serving stores, and until the replaced ones were gone too;
  // -1 when it never happened.
  int64_t repair_ms = -1;
  int64_t settle_ms = -1;
  uint64_t min_live_members = 0;
  uint64_t regions_below_two_live = 0;
  uint64_t regions_lost_quorum = 0;
  uint64_t regions_shared_zone = 0;  // two live replicas in one zone at the end
  uint64_t regions_shared_host = 0;
  struct StoreFigures {
    uint64_t id = 0;
    std::string zone;
    std::string state;  // "serving", "removing", "removed" or "dead"
    uint64_t replicas = 0;
    uint64_t leaders = 0;
  };
  std::vector<StoreFigures> stores;
  Spread replicas_per_store;  // over serving stores
  Spread leaders_per_store;
  uint64_t commands[6] = {};  // by ScheduleCommand kind; [0] counts unknown kinds
  uint64_t commands_ignored = 0;
  uint64_t adds_completed = 0;
  uint64_t peers_added_then_removed = 0;
  uint64_t regions_with_surplus_adds = 0;
  uint64_t placed_on_dead = 0;      // AddPeer to a dead, removed or removing store
  uint64_t destroyed_members = 0;   // DestroyStaleReplica for a replica that is a member
  uint64_t rpc_errors = 0;
  std::string last_rpc_error;
  Tally tally;
  bool safe_points = false;  // services ran beside the stores
  SafePointFigures safe_point_figures;
  std::string safe_point_summary;
};

nlohmann::json SummaryJson(const SimSummary& s);
std::string SummaryText(const SimSummary& s);

class ClusterModel {
 public:
  struct Peer {
    uint64_t id = 0;
    uint32_t store = 0;   // index into stores()
    bool added = false;   // joined during the run
  };
  struct Region {
    uint64_t id = 0;
    std::string start_key, end_key;
    uint64_t conf_version = 1;
    uint64_t version = 1;
    std::vector<Peer> peers;
    int32_t leader = -1;  // store index; -1 while an election is due or quorum is lost
    std::vector<uint32_t> adding;  // stores with a snapshot of it queued or in flight
    bool dirty = false;
    bool lost_quorum = false;
    bool below_two = false;
    bool surplus = false;
  };
  struct Store {
    uint64_t id = 0;
    std::string address;
    std::vector<pdpb::StoreLabel> labels;
    std::string zone, host;
    bool killed = false;
    bool removing = false;
    bool stopped = false;  // removed, and holding nothing any more
    uint64_t replicas = 0;
    uint64_t leaders = 0;
    uint64_t receiving = 0;
    uint64_t sending = 0;
    std::deque<uint32_t> queued;  // regions whose snapshot waits for a slot
    bool alive() const { return !killed && !stopped; }
    bool serving() const { return alive() && !removing; }
  };
  struct Snapshot {
    uint32_t region = 0;
    uint32_t target = 0;
    int32_t sender = -1;
    int64_t done_at = 0;
  };

  explicit ClusterModel(SimOptions options);

  // A new empty store with labels and address from its creation index.
  void AddStore(uint64_t id);
  // Lays out options.regions regions with ids first_region_id.. and their
  // peers with ids first_peer_id.., replicas in distinct zones as long as
  // there are zones, the first peer leading. Fails when there are fewer
  // stores than replicas.
  Status PlaceRegions(uint64_t first_region_id, uint64_t first_peer_id);
  // Identifiers for the peers that snapshots create.
  void AddPeerIds(uint64_t first, uint64_t count);
  uint64_t spare_peer_ids() const { return peer_id_end_ - next_peer_id_; }

  void KillStore(uint32_t index, int64_t now);
  // Kills every live store of the zone; how many it killed.
  uint64_t KillZone(const std::string& zone, int64_t now);
  // The server took the store out: it keeps serving until it holds nothing.
  void MarkRemoving(uint32_t index);
  // The server refuses it (tombstone): it stops at once.
  void StopStore(uint32_t index, int64_t now);
  // Every region the store leads elects another live member, as when the
  // store restarts; how many moved.
  uint64_t DrainLeaders(uint32_t index);
  // Splits the region at `index` into `parts` regions of the same members
  // and leader, the new ones with ids first_region_id.. and peers with ids
  // from the spare ones (SplitPeerIds tells how many it needs); false when
  // there are not enough of them or the range cannot be cut.
  bool Split(uint32_t index, uint64_t parts, uint64_t first_region_id);
  uint64_t SplitPeerIds(uint32_t index, uint64_t parts) const;

  // A command answered to a heartbeat.
  void Apply(const pdpb::ScheduleCommand& command, int64_t now);
  // Finishes due snapshots and elections, starts queued snapshots, stops
  // removed stores that hold nothing.
  void Advance(int64_t now);
  // When Advance next has something to do; INT64_MAX when nothing waits.
  int64_t NextDue() const;

  // The records of regions whose membership changed since the last call,
  // as their leaders write them.
  // `indices`, when given, gets their places in regions().
  std::vector<pdpb::Region> TakeDirtyRegions(std::vector<uint32_t>* indices = nullptr);
  // Keeps a region's record for the next TakeDirtyRegions: a store writes
  // its record again until the server takes it.
  void MarkDirty(uint32_t region);
  pdpb::Region RegionRecord(uint32_t index) const;
  pdpb::StoreHeartbeatRequest StoreHeartbeat(uint32_t index) const;
  // One round of region heartbeats of every live store, each store's split
  // into calls of at most heartbeat_chunk entries and ids.
  // Or of store `only` (a place in stores()) alone.
  std::vector<pdpb::RegionHeartbeatRequest> RegionHeartbeats(int64_t only = -1) const;
  // The heartbeats that the leaders of `regions` (places in regions())
  // send at once when a region's members change: those regions only.
  std::vector<pdpb::RegionHeartbeatRequest> RegionHeartbeatsOf(const std::vector<uint32_t>& regions) const;

  Tally Count() const;
  // The figures of the model; the run fills in its timings.
  SimSummary Summarize() const;

  const std::vector<Store>& stores() const { return stores_; }
  const std::vector<Region>& regions() const { return regions_; }
  uint64_t first_region_id() const { return first_region_id_; }
  // Index of a store id, or -1.
  int64_t StoreIndex(uint64_t id) const;
  // When a command last changed a region's members or leader.
  int64_t last_change_ms() const { return last_change_ms_; }
  static std::string RegionKey(uint64_t index);

 private:
  void Enqueue(uint32_t region, uint32_t target);
  void StartSnapshots(uint32_t store);
  bool CompleteSnapshot(const Snapshot& snap);
  void DropAdding(uint32_t region, uint32_t target);
  void SetLeader(uint32_t region, int32_t store);
  void ScheduleElection(uint32_t region, int64_t now);
  // Records the region's live member count after any change to it.
  void Observe(uint32_t region);
  uint64_t LiveMembers(const Region& r) const;
  pdpb::RegionHeartbeatEntry Entry(uint32_t region) const;

  const SimOptions options_;
  std::vector<Store> stores_;
  std::unordered_map<uint64_t, uint32_t> store_index_;
  std::vector<Region> regions_;
  std::unordered_map<uint64_t, uint32_t> region_index_;  // by region id
  uint64_t first_region_id_ = 0;
  uint64_t next_peer_id_ = 0;
  uint64_t peer_id_end_ = 0;
  std::vector<Snapshot> active_;
  std::vector<std::pair<int64_t, uint32_t>> elections_;  // (due, region)
  std::vector<uint32_t> dirty_;
  std::mt19937_64 random_;
  int64_t now_ = 0;  // of the last call that passed the time
  int64_t last_change_ms_ = 0;

  uint64_t min_live_ = 0;
  uint64_t commands_[6] = {};
  uint64_t ignored_ = 0;
  uint64_t adds_completed_ = 0;
  uint64_t added_then_removed_ = 0;
  uint64_t placed_on_dead_ = 0;
  uint64_t destroyed_members_ = 0;
};

// Progress of a run, handed to the caller every few seconds.
using ProgressFn = std::function<void(const std::string& line)>;

class Simulation {
 public:
  // `client` is not owned and must outlive the simulation.
  Simulation(SimOptions options, std::vector<SimEvent> events, kanrpc::RpcClient* client);

  // Identifiers, bootstrap (the server must not be bootstrapped yet), the
  // regions, and a first store heartbeat of every store. Any failure ends
  // the setup; "unknown method: Pd.StoreHeartbeat" in it means the server
  // does not track stores.
  Status Setup();
  // Runs until the cluster is healthy after the last event and has stayed
  // so for `grace_ms`, or until `duration_ms`; reports every `progress_ms`.
  // Failed calls are counted; only a server that answers nothing for a
  // while ends the run early, with the failure.
  Status Run(int64_t duration_ms, int64_t grace_ms, int64_t progress_ms, const ProgressFn& progress);
  SimSummary Summary() const;

  const ClusterModel& model() const { return model_; }

 private:
  int64_t Now() const;
  void Fire(const SimEvent& event, int64_t now);
  void SendStoreHeartbeats(int64_t now);
  void SendRegionHeartbeats(int64_t now);
  void FlushRegions();
  void RefillPeerIds();
  void Failed(const std::string& what, const Status& s);
  // A call of the run: failures are counted, successes keep it going.
  template <class Req, class Resp>
  Status Call(const char* method, const Req& request, Resp* response);
  std::string ProgressLine(int64_t now) const;

  const SimOptions options_;
  std::vector<SimEvent> events_;
  kanrpc::RpcClient* const client_;
  ClusterModel model_;
  std::unique_ptr<SafePointLoad> safe_points_;  // null without services
  int64_t start_ns_ = 0;
  int64_t next_store_hb_ = 0;
  int64_t last_round_ms_ = 0;
  int64_t last_ok_ms_ = 0;  // when a call last succeeded
  bool lost_server_ = false;  // how long the last round of region heartbeats took
  int64_t elapsed_ms_ = 0;
  int64_t repaired_at_ = -1;
  int64_t settled_at_ = -1;
  uint64_t rpc_errors_ = 0;
  std::string last_error_;
};

}  // namespace kandb::tools::sim

#endif  // KANDB_TOOLS_SIM_H_
