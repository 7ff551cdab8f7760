#include "meta/scheduler.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kandb::meta {
namespace {

using pdpb::RegionHeartbeatEntry;
using pdpb::ScheduleCommand;

constexpr int64_t kMinute = 60 * 1000;

// A scheduler on a clock the test moves by hand.
class SchedulerTest : public ::testing::Test {
 protected:
  Scheduler::Options Base() {
    Scheduler::Options o;
    o.target_replicas = 3;
    o.max_store_down_ms = 30 * kMinute;
    o.location_labels = {"zone", "host"};
    o.store_limit = 1000;
    o.steady_ms = [this] { return now_; };
    o.wall_ms = [this] { return static_cast<uint64_t>(now_) + 1700000000000; };
    return o;
  }

  // A store that sends store heartbeats, in `zone` on its own host.
  static pdpb::Store At(uint64_t id, const std::string& zone, const std::string& host = "") {
    pdpb::Store s;
    s.id = id;
    s.address = "s" + std::to_string(id);
    s.labels = {{"zone", zone}, {"host", host.empty() ? "h" + std::to_string(id) : host}};
    s.first_heartbeat_ms = 1;
    return s;
  }

  static pdpb::StoreStats Room(uint64_t available, uint64_t capacity = 100) {
    pdpb::StoreStats st;
    st.capacity = capacity;
    st.available = available;
    return st;
  }

  // The one change for one entry reported by `reporter`, or kind 0.
  static ScheduleCommand HealOne(Scheduler* s, uint64_t reporter, const RegionHeartbeatEntry& entry,
                                 const std::vector<pdpb::Store>& stores,
                                 const Scheduler::ReplicaCounts& replicas = {}) {
    std::vector<ScheduleCommand> out;
    s->Heal(reporter, {entry}, stores, replicas, &out);
    return out.at(0);
  }

  static ScheduleCommand Cmd(uint32_t kind, uint64_t region, uint64_t store) {
    return ScheduleCommand{kind, region, store, kind == pdpb::kAddPeer ? "s" + std::to_string(store) : ""};
  }

  int64_t now_ = 1000000;
};

// States change at their exact times: Disconnected at 20 s of silence (or
// at the down time when that is shorter), Down at the down time; the
// operator's Offline and Tombstone hold whatever the heartbeats say; a
// store this server never heard from since it started is silent from its
// start, and one that never took part is Unknown.
TEST_F(SchedulerTest, StatesChangeAtTheirTimes) {
  Scheduler s(Base());
  pdpb::Store store = At(1, "z1");
  pdpb::Store never;
  never.id = 2;
  never.address = "s2";
  EXPECT_EQ(s.StateOf(never), pdpb::kStoreUnknown);
  EXPECT_FALSE(s.Active({never}));
  EXPECT_TRUE(s.Active({never, store}));

  EXPECT_EQ(s.StateOf(store), pdpb::kStoreUp);  // silent since the start only
  now_ += 20 * 1000;
  EXPECT_EQ(s.StateOf(store), pdpb::kStoreDisconnected);
  s.ReportStore(1, Room(50));
  EXPECT_EQ(s.StateOf(store), pdpb::kStoreUp);
  now_ += 20 * 1000 - 1;
  EXPECT_EQ(s.StateOf(store), pdpb::kStoreUp);
  now_ += 1;
  EXPECT_EQ(s.StateOf(store), pdpb::kStoreDisconnected);
  now_ += 30 * kMinute - 20 * 1000 - 1;
  EXPECT_EQ(s.StateOf(store), pdpb::kStoreDisconnected);
  now_ += 1;
  EXPECT_EQ(s.StateOf(store), pdpb::kStoreDown);
  EXPECT_EQ(s.Unwell({store, never}), std::vector<uint64_t>{1});

  store.node_state = pdpb::kNodeOffline;
  EXPECT_EQ(s.StateOf(store), pdpb::kStoreOffline);
  EXPECT_EQ(s.Info(store, 3, true).state, pdpb::kStoreOffline);
  EXPECT_EQ(s.Info(store, 0, true).state, pdpb::kStoreTombstone);  // nothing left to move
  EXPECT_EQ(s.Info(store, 0, false).state, pdpb::kStoreOffline);   // unknown: no guess
  store.node_state = pdpb::kNodeTombstone;
  EXPECT_EQ(s.StateOf(store), pdpb::kStoreTombstone);

  Scheduler::Options quick = Base();
  quick.max_store_down_ms = 5000;
  Scheduler q(quick);
  q.ReportStore(1, Room(50));
  now_ += 4999;
  EXPECT_EQ(q.StateOf(At(1, "z1")), pdpb::kStoreUp);
  now_ += 1;
  EXPECT_EQ(q.StateOf(At(1, "z1")), pdpb::kStoreDown);

  int64_t ms = 0;
  EXPECT_TRUE(ParseDurationMs("30m", &ms));
  EXPECT_EQ(ms, 30 * kMinute);
  EXPECT_TRUE(ParseDurationMs("500ms", &ms));
  EXPECT_EQ(ms, 500);
  EXPECT_TRUE(ParseDurationMs("90", &ms));
  EXPECT_EQ(ms, 90000);
  EXPECT_FALSE(ParseDurationMs("5 m", &ms));
  EXPECT_FALSE(ParseDurationMs("m", &ms));
  EXPECT_FALSE(ParseDurationMs("-5s", &ms));
}

// Where a new replica goes, as a table of cluster states: only Up stores
// (or stores that never took part) with room, distinct zones before
// anything else, then the lowest score, never the same host.
TEST_F(SchedulerTest, PlacementTable) {
  struct Case {
    const char* name;
    std::vector<pdpb::Store> stores;
    std::vector<pdpb::StoreStats> stats;  // per store, by position
    Scheduler::ReplicaCounts replicas;
    std::vector<uint64_t> members;
    uint64_t expected;  // 0: no AddPeer
  };
  const std::vector<pdpb::Store> six = {At(1, "z1"), At(2, "z2"), At(3, "z3"),
                                        At(4, "z1"), At(5, "z2"), At(6, "z3")};
  const std::vector<pdpb::StoreStats> roomy(6, Room(80));
  const std::vector<Case> cases = {
      {"the zone the region lacks, though another store holds fewer", six, roomy, {{3, 50}, {4, 1}, {6, 40}},
       {1, 2}, 6},
      {"within the zone, the lower score", six, roomy, {{3, 10}, {6, 40}}, {1, 2}, 3},
      {"space weighs the score: 10 replicas at 20% free lose to 30 at 80%", six,
       {Room(80), Room(80), Room(20), Room(80), Room(80), Room(80)}, {{3, 10}, {6, 30}}, {1, 2}, 6},
      {"under the low-space share, never", six,
       {Room(80), Room(80), Room(19), Room(80), Room(80), Room(10)}, {}, {1, 2}, 4},
      {"no other zone left: another host of a zone held once", {At(1, "z1"), At(2, "z2"), At(4, "z1")},
       {Room(80), Room(80), Room(80)}, {}, {1, 2}, 4},
      {"never the same host", {At(1, "z1", "hA"), At(2, "z2"), At(4, "z1", "hA")},
       {Room(80), Room(80), Room(80)}, {}, {1, 2}, 0},
  };
  for (const Case& c : cases) {
    Scheduler s(Base());
    for (size_t i = 0; i < c.stores.size(); i++) s.ReportStore(c.stores[i].id, c.stats[i]);
    const ScheduleCommand got = HealOne(&s, c.members[0], RegionHeartbeatEntry{9, c.members, {}, {}}, c.stores,
                                        c.replicas);
    if (c.expected == 0) {
      EXPECT_EQ(got.kind, 0u) << c.name;
    } else {
      EXPECT_EQ(got, Cmd(pdpb::kAddPeer, 9, c.expected)) << c.name;
    }
  }

  // Silent, leaving and removed stores take nothing, whatever their load.
  Scheduler s(Base());
  std::vector<pdpb::Store> stores = {six[0], six[1], six[2], six[5]};
  for (const pdpb::Store& st : stores) s.ReportStore(st.id, Room(80));
  stores[3].node_state = pdpb::kNodeOffline;
  stores[2].node_state = pdpb::kNodeTombstone;
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{9, {1, 2}, {}, {}}, stores).kind, 0u);
  now_ += 25 * 1000;  // every store silent: Disconnected
  stores[2].node_state = pdpb::kNodeServing;
  stores[3].node_state = pdpb::kNodeServing;
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{10, {1, 2}, {}, {}}, stores).kind, 0u);
}

// A server that started or took over takes a silent store for Up until
// the down time has passed since its own start, though the store may be
// dead. Until it is heard from it takes no replica, nor does a store of a
// wider domain in its stead, and a region over its count loses the
// replica on it before one that keeps the zones apart.
TEST_F(SchedulerTest, StoresNotYetHeardTakeNothingAndLoseTheSurplusFirst) {
  const std::vector<pdpb::Store> six = {At(1, "z1"), At(2, "z2"), At(3, "z3"),
                                        At(4, "z1"), At(5, "z2"), At(6, "z3")};
  Scheduler s(Base());
  for (uint64_t id : {2, 3, 5, 6}) s.ReportStore(id, Room(80));
  // 1 and 4 unheard: the region missing its z1 replica waits.
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {2, 3}, {}, {}}, six).kind, 0u);
  s.ReportStore(1, Room(80));
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {2, 3}, {}, {}}, six, {{4, 0}, {1, 50}}),
            Cmd(pdpb::kAddPeer, 9, 1));
  // Over its count with two z1 replicas: the unheard one goes, wherever it
  // stands among the members; heard, the first of the two.
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{10, {2, 3, 1, 4}, {}, {}}, six), Cmd(pdpb::kRemovePeer, 10, 4));
  s.ReportStore(4, Room(80));
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{11, {2, 3, 1, 4}, {}, {}}, six), Cmd(pdpb::kRemovePeer, 11, 1));
}

// A replica on a Down store is replaced by adding first and removing once
// the new member is reported, so the member count never drops; while the
// add is in flight the same command is repeated rather than another store
// chosen; an Offline leader hands leadership over before its removal.
TEST_F(SchedulerTest, ReplacementAddsFirstAndRepeatsItsChoice) {
  Scheduler s(Base());
  const std::vector<pdpb::Store> stores = {At(1, "z1"), At(2, "z2"), At(3, "z3"), At(6, "z3"), At(7, "z3")};
  for (uint64_t id : {1, 2, 3, 6, 7}) s.ReportStore(id, Room(80));
  now_ += 31 * kMinute;
  for (uint64_t id : {1, 2, 6, 7}) s.ReportStore(id, Room(80));  // store 3 went quiet
  ASSERT_EQ(s.StateOf(stores[2]), pdpb::kStoreDown);

  const ScheduleCommand add = HealOne(&s, 1, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {2}}, stores, {{6, 5}});
  EXPECT_EQ(add, Cmd(pdpb::kAddPeer, 9, 7));
  // Store 7 now looks busier than 6, but the change in flight is repeated.
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {2}}, stores, {{7, 50}}), add);
  // Reported as a member: the replica on the Down store goes, not a
  // candidate that is well.
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{9, {1, 2, 3, 7}, {}, {2}}, stores), Cmd(pdpb::kRemovePeer, 9, 3));
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{9, {1, 2, 7}, {}, {2}}, stores).kind, 0u);

  // The reporter itself is leaving: first its replacement, then leadership
  // moves to a member that stays (a candidate), never its own removal.
  std::vector<pdpb::Store> offline = stores;
  offline[0].node_state = pdpb::kNodeOffline;
  offline.push_back(At(8, "z1"));
  s.ReportStore(8, Room(80));
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{20, {1, 2, 6}, {}, {2, 6}}, offline), Cmd(pdpb::kAddPeer, 20, 8));
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{20, {1, 2, 6, 8}, {}, {2, 6}}, offline),
            Cmd(pdpb::kTransferLeader, 20, 2));
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{20, {1, 2, 6, 8}, {}, {6, 8}}, offline),
            Cmd(pdpb::kRemovePeer, 20, 1));

  // A leaving leader on the same host as its replacement (a disk being
  // swapped): once the new replica is in, leadership moves; the new
  // replica is never taken for a duplicate of the one that leaves.
  std::vector<pdpb::Store> swap = {At(31, "z1", "hX"), At(32, "z2"), At(33, "z3"), At(38, "z1", "hX")};
  swap[0].node_state = pdpb::kNodeOffline;
  for (uint64_t id : {31, 32, 33, 38}) s.ReportStore(id, Room(80));
  EXPECT_EQ(HealOne(&s, 31, RegionHeartbeatEntry{30, {31, 32, 33}, {}, {32, 33}}, swap), Cmd(pdpb::kAddPeer, 30, 38));
  EXPECT_EQ(HealOne(&s, 31, RegionHeartbeatEntry{30, {31, 32, 33, 38}, {}, {32, 33, 38}}, swap),
            Cmd(pdpb::kTransferLeader, 30, 32));

  // An add in flight to a store that stops taking replicas is chosen again.
  std::vector<pdpb::Store> later = {At(41, "z1"), At(42, "z2"), At(43, "z3"), At(44, "z3")};
  for (uint64_t id : {41, 42, 43, 44}) s.ReportStore(id, Room(80));
  const ScheduleCommand first = HealOne(&s, 41, RegionHeartbeatEntry{40, {41, 42}, {}, {}}, later, {{44, 9}});
  EXPECT_EQ(first, Cmd(pdpb::kAddPeer, 40, 43));
  later[2].node_state = pdpb::kNodeOffline;
  EXPECT_EQ(HealOne(&s, 41, RegionHeartbeatEntry{40, {41, 42}, {}, {}}, later), Cmd(pdpb::kAddPeer, 40, 44));

  pdpb::SchedulingStats stats;
  s.FillStats(offline, &stats);
  EXPECT_EQ(stats.stores_down, 1u);
  EXPECT_EQ(stats.stores_offline, 1u);
  EXPECT_EQ(stats.stores_up, 4u);
  EXPECT_EQ(stats.regions_on_offline_store, 2u);  // regions 20 and 30, as last reported
  EXPECT_EQ(stats.regions_on_down_store, 0u);     // region 9 is repaired
}

// A store takes at most store_limit changes a minute, adds and removes
// together, refilled as time passes; removals from a Down store are free.
TEST_F(SchedulerTest, StoreLimitSpreadsRepairOverTime) {
  Scheduler::Options o = Base();
  o.store_limit = 2;
  o.location_labels.clear();
  Scheduler s(o);
  const std::vector<pdpb::Store> stores = {At(1, "z1"), At(2, "z1"), At(3, "z1")};
  for (uint64_t id : {1, 2, 3}) s.ReportStore(id, Room(80));
  // Regions of one member each: the only target is store 3 (2 is a member
  // of all; 1 reports).
  std::vector<RegionHeartbeatEntry> entries;
  for (uint64_t r = 1; r <= 3; r++) entries.push_back(RegionHeartbeatEntry{r, {1, 2}, {}, {}});
  std::vector<ScheduleCommand> out;
  s.Heal(1, entries, stores, {}, &out);
  EXPECT_EQ(out[0], Cmd(pdpb::kAddPeer, 1, 3));
  EXPECT_EQ(out[1], Cmd(pdpb::kAddPeer, 2, 3));
  EXPECT_EQ(out[2].kind, 0u);  // the third waits
  now_ += 29 * 1000;
  for (uint64_t id : {1, 2, 3}) s.ReportStore(id, Room(80));
  s.Heal(1, {entries[2]}, stores, {}, &out);
  EXPECT_EQ(out[0].kind, 0u);
  now_ += 1000;  // half a minute: one more change
  s.Heal(1, {entries[2]}, stores, {}, &out);
  EXPECT_EQ(out[0], Cmd(pdpb::kAddPeer, 3, 3));

  // Removals count on the store that loses the replica, unless it is down.
  Scheduler::Options one = o;
  one.store_limit = 1;
  one.target_replicas = 1;
  Scheduler r(one);
  for (uint64_t id : {1, 2}) r.ReportStore(id, Room(80));
  r.Heal(1, {RegionHeartbeatEntry{5, {1, 2}, {}, {}}, RegionHeartbeatEntry{6, {1, 2}, {}, {}}}, stores, {}, &out);
  EXPECT_EQ(out[0], Cmd(pdpb::kRemovePeer, 5, 2));
  EXPECT_EQ(out[1].kind, 0u);
  now_ += 31 * kMinute;
  r.ReportStore(1, Room(80));
  r.Heal(1, {RegionHeartbeatEntry{6, {1, 2}, {}, {}}, RegionHeartbeatEntry{7, {1, 2}, {}, {}}}, stores, {}, &out);
  EXPECT_EQ(out[0], Cmd(pdpb::kRemovePeer, 6, 2));
  EXPECT_EQ(out[1], Cmd(pdpb::kRemovePeer, 7, 2));
}

// Replica balance, as a table of cluster states: a move goes from the
// busiest member (never the reporting leader) to a store scoring clearly
// lower, in the same or a better spread of zones, and not at all within
// the tolerance, while a region is repaired, or past the store limits.
TEST_F(SchedulerTest, BalanceTable) {
  const std::vector<pdpb::Store> four = {At(1, "z1"), At(2, "z2"), At(3, "z3"), At(4, "z1")};
  struct Case {
    const char* name;
    uint64_t reporter;
    Scheduler::ReplicaCounts replicas;
    ScheduleCommand expected;  // kind 0: no move
  };
  const std::vector<Case> cases = {
      {"the empty store of the busiest member's zone", 2, {{1, 10}, {2, 10}, {3, 10}, {4, 0}},
       Cmd(pdpb::kAddPeer, 9, 4)},
      {"the leader's replica stays: store 4 would share a zone with store 1", 1, {{1, 10}, {2, 10}, {3, 10}},
       ScheduleCommand{}},
      {"within one replica each way: no move", 2, {{1, 10}, {2, 10}, {3, 10}, {4, 8}}, ScheduleCommand{}},
      {"just past it", 2, {{1, 10}, {2, 10}, {3, 10}, {4, 7}}, Cmd(pdpb::kAddPeer, 9, 4)},
      {"within the share of the busier store's load", 2, {{1, 1000}, {2, 1000}, {3, 1000}, {4, 985}},
       ScheduleCommand{}},
      {"past the share", 2, {{1, 1000}, {2, 1000}, {3, 1000}, {4, 970}}, Cmd(pdpb::kAddPeer, 9, 4)},
  };
  for (const Case& c : cases) {
    Scheduler s(Base());
    for (uint64_t id : {1, 2, 3, 4}) s.ReportStore(id, Room(80));
    EXPECT_EQ(HealOne(&s, c.reporter, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, four, c.replicas), c.expected)
        << c.name;
  }

  const Scheduler::ReplicaCounts uneven = {{1, 10}, {2, 10}, {3, 10}, {4, 0}};
  {
    // A region missing a replica anywhere holds every move back until its
    // repair is reported done.
    Scheduler s(Base());
    for (uint64_t id : {1, 2, 3, 4}) s.ReportStore(id, Room(80));
    EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{5, {2, 3}, {}, {}}, four, uneven).kind, pdpb::kAddPeer);
    EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, four, uneven).kind, 0u);
    EXPECT_TRUE(s.Repairing());
    EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{5, {2, 3, 4}, {}, {}}, four, uneven).kind, 0u);
    EXPECT_FALSE(s.Repairing());
    EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, four, uneven), Cmd(pdpb::kAddPeer, 9, 4));
  }
  {
    // A region last reported missing a replica that is never reported
    // again (merged away) holds moves back only until the change timeout:
    // otherwise balancing would stay off for good.
    Scheduler s(Base());
    for (uint64_t id : {1, 2, 3, 4}) s.ReportStore(id, Room(80));
    EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{5, {2, 3}, {}, {}}, four, uneven).kind, pdpb::kAddPeer);
    now_ += Base().change_timeout_ms - 1;
    for (uint64_t id : {1, 2, 3, 4}) s.ReportStore(id, Room(80));
    EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, four, uneven).kind, 0u);
    EXPECT_TRUE(s.Repairing());
    now_ += 1;
    EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, four, uneven), Cmd(pdpb::kAddPeer, 9, 4));
    EXPECT_FALSE(s.Repairing());
  }
  {
    // Each move costs the target and the source a change: one a minute
    // moves one region, the next waits.
    Scheduler::Options o = Base();
    o.store_limit = 1;
    Scheduler s(o);
    for (uint64_t id : {1, 2, 3, 4}) s.ReportStore(id, Room(80));
    std::vector<ScheduleCommand> out;
    s.Heal(2, {RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, RegionHeartbeatEntry{10, {1, 2, 3}, {}, {}}}, four,
           uneven, &out);
    EXPECT_EQ(out[0], Cmd(pdpb::kAddPeer, 9, 4));
    EXPECT_EQ(out[1].kind, 0u);
  }
}

// A move adds first and removes the replica it replaces once the new one
// is reported, paid for when it was chosen; a source that leads by then
// hands leadership over first. While it is under way, the store it fills
// is never taken for a source, nor the one it empties for a target.
TEST_F(SchedulerTest, MoveAddsFirstThenRemovesItsSource) {
  Scheduler::Options o = Base();
  o.store_limit = 1;  // the removal must not need a change of its own
  Scheduler s(o);
  const std::vector<pdpb::Store> five = {At(1, "z1"), At(2, "z2"), At(3, "z3"), At(4, "z1"), At(5, "z1")};
  for (uint64_t id : {1, 2, 3, 4, 5}) s.ReportStore(id, Room(80));
  const Scheduler::ReplicaCounts counts = {{1, 20}, {2, 10}, {3, 10}, {4, 0}, {5, 12}};
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, five, counts), Cmd(pdpb::kAddPeer, 9, 4));
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, five, counts), Cmd(pdpb::kAddPeer, 9, 4));
  // Store 1 leads the region by the time the new replica is in.
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{9, {1, 2, 3, 4}, {}, {2, 3, 4}}, five, counts),
            Cmd(pdpb::kTransferLeader, 9, 2));
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {1, 2, 3, 4}, {}, {1, 3, 4}}, five, counts),
            Cmd(pdpb::kRemovePeer, 9, 1));
  EXPECT_EQ(HealOne(&s, 2, RegionHeartbeatEntry{9, {2, 3, 4}, {}, {3, 4}}, five, counts).kind, 0u);

  // Store 4 now takes a replica of region 11 from store 1: store 4 is not
  // the source of region 12's move though it looks busiest there, and
  // store 1 is no target for region 13 while it gives.
  Scheduler t(Base());
  for (uint64_t id : {1, 2, 3, 4, 5}) t.ReportStore(id, Room(80));
  const Scheduler::ReplicaCounts busy = {{1, 30}, {2, 10}, {3, 10}, {4, 29}, {5, 0}};
  EXPECT_EQ(HealOne(&t, 2, RegionHeartbeatEntry{11, {1, 2, 3}, {}, {}}, five, busy), Cmd(pdpb::kAddPeer, 11, 5));
  EXPECT_EQ(HealOne(&t, 3, RegionHeartbeatEntry{12, {5, 2, 3}, {}, {}}, five, busy).kind, 0u);
}

// Leadership follows the counts the stores report, moved with each
// transfer chosen until they report again: from the reporter to the member
// leading the fewest, past a margin, never onto an unwell store, never
// for a region with a change under way, and not while repairing.
TEST_F(SchedulerTest, LeaderBalanceTable) {
  auto leading = [](uint64_t n) {
    pdpb::StoreStats st = Room(80);
    st.leader_count = n;
    return st;
  };
  const std::vector<pdpb::Store> three = {At(1, "z1"), At(2, "z2"), At(3, "z3")};
  Scheduler s(Base());
  s.ReportStore(1, leading(10));
  s.ReportStore(2, leading(7));
  s.ReportStore(3, leading(8));
  std::vector<RegionHeartbeatEntry> entries;
  for (uint64_t r = 1; r <= 3; r++) entries.push_back(RegionHeartbeatEntry{r, {1, 2, 3}, {}, {2, 3}});
  std::vector<ScheduleCommand> out;
  s.BalanceLeaders(1, entries, {}, {}, &out);
  // 10 against 7: one to store 2 (9 and 8), then none (9 against 8).
  EXPECT_EQ(out, (std::vector<ScheduleCommand>{Cmd(pdpb::kTransferLeader, 1, 2)}));
  out.clear();
  s.BalanceLeaders(1, entries, {}, {}, &out);
  EXPECT_TRUE(out.empty());
  // Reports made no later than the transfer cannot show it: it still
  // counts, and while it is not seen done it is not chosen again.
  s.ReportStore(1, leading(10));
  s.ReportStore(2, leading(7));
  s.ReportStore(3, leading(8));
  s.BalanceLeaders(1, entries, {}, {}, &out);
  EXPECT_TRUE(out.empty());
  // Store 2 reports region 1: done. Reports made after it stand alone.
  s.BalanceLeaders(2, {entries[0]}, {}, {}, &out);
  EXPECT_TRUE(out.empty());
  now_ += 1;
  s.ReportStore(1, leading(10));
  s.ReportStore(2, leading(7));
  s.ReportStore(3, leading(9));
  s.BalanceLeaders(1, entries, {true, false, false}, {2}, &out);
  EXPECT_TRUE(out.empty());  // store 2 is unwell, and store 3 is within the margin
  out.clear();
  s.BalanceLeaders(1, entries, {true, false, false}, {}, &out);
  EXPECT_EQ(out, (std::vector<ScheduleCommand>{Cmd(pdpb::kTransferLeader, 2, 2)}));

  {
    // A region with a move under way keeps its leader, also for a
    // heartbeat whose own heal ran before the move was chosen (two stores
    // reporting the region as its leadership changes): store 1, whose
    // replica is to go, must not be handed leadership.
    const std::vector<pdpb::Store> four = {At(1, "z1"), At(2, "z2"), At(3, "z3"), At(4, "z1", "h4")};
    Scheduler m(Base());
    for (uint64_t id : {1, 2, 3, 4}) m.ReportStore(id, leading(id == 3 ? 10 : 0));
    EXPECT_EQ(HealOne(&m, 2, RegionHeartbeatEntry{9, {1, 2, 3}, {}, {}}, four, {{1, 12}, {2, 10}, {3, 10}, {4, 0}}),
              Cmd(pdpb::kAddPeer, 9, 4));
    out.clear();
    m.BalanceLeaders(3, {RegionHeartbeatEntry{9, {1, 2, 3}, {}, {1, 2}}}, {false}, {}, &out);
    EXPECT_TRUE(out.empty());
  }

  // While a region misses a replica, nothing moves.
  s.ReportStore(1, leading(10));
  s.ReportStore(2, leading(7));
  EXPECT_EQ(HealOne(&s, 1, RegionHeartbeatEntry{50, {1, 2}, {}, {}}, three), Cmd(pdpb::kAddPeer, 50, 3));
  out.clear();
  s.BalanceLeaders(1, entries, {}, {}, &out);
  EXPECT_TRUE(out.empty());
}

}  // namespace
}  // namespace kandb::meta
