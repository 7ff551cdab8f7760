// The simulator's model without a server (placement, snapshots, elections,
// the summary's counts), and one run of kandb-meta-sim against the real
// server that kills a store and waits for the repair.

#include <algorithm>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/meta_server_test_util.h"
#include "common/test_util.h"
#include "tools/sim.h"

namespace kandb::tools::sim {
namespace {

using ::kandb::testing::ExitCode;
using ::kandb::testing::MetaServer;
using ::kandb::testing::ProgramResult;
using ::kandb::testing::RunProgram;
using nlohmann::json;

constexpr uint64_t kFirstStore = 100;
constexpr uint64_t kFirstRegion = 1000;

pdpb::ScheduleCommand Command(uint32_t kind, uint64_t region_index, uint64_t store_index) {
  pdpb::ScheduleCommand c;
  c.kind = kind;
  c.region_id = kFirstRegion + region_index;
  c.store_id = kFirstStore + store_index;
  return c;
}

SimOptions SmallCluster() {
  SimOptions o;
  o.stores = 6;
  o.zones = 3;
  o.regions = 60;
  o.snapshot_ms = 100;
  o.snapshot_concurrency = 2;
  o.region_heartbeat_ms = 500;
  return o;
}

// Stores 100..105 (zones z0 z1 z2 z0 z1 z2), regions 1000.., peer ids from 5000.
ClusterModel Build(const SimOptions& o) {
  ClusterModel m(o);
  for (uint64_t i = 0; i < o.stores; ++i) m.AddStore(kFirstStore + i);
  EXPECT_TRUE(m.PlaceRegions(kFirstRegion, 5000).ok());
  m.AddPeerIds(90000, 1000);
  return m;
}

bool IsMember(const ClusterModel& m, uint32_t region, uint32_t store) {
  const auto& peers = m.regions()[region].peers;
  return std::any_of(peers.begin(), peers.end(), [&](const ClusterModel::Peer& p) { return p.store == store; });
}

TEST(SimModelTest, InitialReplicasSpreadEvenlyOverDistinctZonesWithTheFirstPeerLeading) {
  ClusterModel m = Build(SmallCluster());
  std::set<uint64_t> peer_ids;
  for (uint32_t r = 0; r < m.regions().size(); ++r) {
    const ClusterModel::Region& region = m.regions()[r];
    ASSERT_EQ(region.peers.size(), 3u);
    std::set<std::string> zones;
    for (const auto& p : region.peers) {
      zones.insert(m.stores()[p.store].zone);
      peer_ids.insert(p.id);
    }
    EXPECT_EQ(zones.size(), 3u) << "region " << r;
    EXPECT_EQ(region.leader, static_cast<int32_t>(region.peers[0].store));
  }
  EXPECT_EQ(peer_ids.size(), 180u);
  for (const auto& st : m.stores()) {
    EXPECT_EQ(st.replicas, 30u);
    EXPECT_EQ(st.leaders, 10u);
  }
  // The records tile the key space in region order.
  EXPECT_EQ(m.RegionRecord(0).start_key, "");
  EXPECT_EQ(m.RegionRecord(0).end_key, m.RegionRecord(1).start_key);
  EXPECT_EQ(m.RegionRecord(59).end_key, "");
  EXPECT_EQ(m.RegionRecord(7).peers[0].store_id, m.stores()[m.regions()[7].peers[0].store].id);

  // More replicas than zones still places them on distinct stores.
  SimOptions o = SmallCluster();
  o.zones = 2;
  o.replicas = 3;
  ClusterModel two = Build(o);
  for (const auto& region : two.regions()) {
    std::set<uint32_t> stores;
    for (const auto& p : region.peers) stores.insert(p.store);
    EXPECT_EQ(stores.size(), 3u);
  }
}

TEST(SimModelTest, LabelsNameZonesAndSharedHostsAndRacks) {
  SimOptions o;
  o.zones = 3;
  EXPECT_EQ(StoreLabels(o, 7), (std::vector<pdpb::StoreLabel>{{"zone", "z1"}, {"host", "h7"}}));
  o.hosts_per_zone = 2;
  o.racks_per_zone = 1;
  // Zone z0 holds stores 0, 3, 6, 9: hosts h0, h3, h0, h3, all in rack r0.
  EXPECT_EQ(StoreLabels(o, 9), (std::vector<pdpb::StoreLabel>{{"zone", "z0"}, {"rack", "r0"}, {"host", "h3"}}));
  EXPECT_EQ(StoreLabels(o, 6)[2].value, "h0");
  EXPECT_EQ(StoreLabels(o, 4), (std::vector<pdpb::StoreLabel>{{"zone", "z1"}, {"rack", "r1"}, {"host", "h4"}}));
}

TEST(SimModelTest, AddPeerJoinsAfterItsSnapshotAndEachStoreReceivesAtMostItsConcurrency) {
  ClusterModel m = Build(SmallCluster());
  // Regions 0, 1 and 2 have no replica on store 5.
  for (uint32_t r : {0u, 1u, 2u}) m.Apply(Command(pdpb::kAddPeer, r, 5), 0);
  m.Apply(Command(pdpb::kAddPeer, 0, 5), 10);  // already on its way: ignored
  m.Apply(Command(pdpb::kAddPeer, 0, 1), 10);  // a member already: ignored
  EXPECT_EQ(m.stores()[5].receiving, 2u);
  EXPECT_EQ(m.stores()[5].queued.size(), 1u);
  EXPECT_EQ(m.NextDue(), 100);

  m.Advance(99);
  EXPECT_FALSE(IsMember(m, 0, 5));
  EXPECT_TRUE(m.TakeDirtyRegions().empty());
  m.Advance(100);
  EXPECT_TRUE(IsMember(m, 0, 5));
  EXPECT_TRUE(IsMember(m, 1, 5));
  EXPECT_FALSE(IsMember(m, 2, 5));
  EXPECT_EQ(m.stores()[5].receiving, 1u);  // the third started when a slot freed
  EXPECT_EQ(m.NextDue(), 200);
  const std::vector<pdpb::Region> written = m.TakeDirtyRegions();
  ASSERT_EQ(written.size(), 2u);
  EXPECT_EQ(written[0].id, kFirstRegion);
  EXPECT_EQ(written[0].epoch.conf_version, 2u);
  ASSERT_EQ(written[0].peers.size(), 4u);
  EXPECT_EQ(written[0].peers[3], (pdpb::Peer{90000, kFirstStore + 5, 0}));
  m.Advance(200);
  EXPECT_TRUE(IsMember(m, 2, 5));
  EXPECT_EQ(m.stores()[5].replicas, 33u);

  const SimSummary s = m.Summarize();
  EXPECT_EQ(s.commands[pdpb::kAddPeer], 5u);
  EXPECT_EQ(s.commands_ignored, 2u);
  EXPECT_EQ(s.adds_completed, 3u);
  // Every one of them joined a region that had its three replicas already.
  EXPECT_EQ(s.regions_with_surplus_adds, 3u);
  EXPECT_EQ(s.tally.over, 3u);
}

TEST(SimModelTest, DeadStoresGetNothingAndLoseWhatTheyWereReceiving) {
  ClusterModel m = Build(SmallCluster());
  m.Apply(Command(pdpb::kAddPeer, 0, 5), 0);
  m.Apply(Command(pdpb::kAddPeer, 0, 4), 0);
  m.KillStore(5, 50);
  m.Advance(100);
  EXPECT_FALSE(IsMember(m, 0, 5));
  EXPECT_TRUE(IsMember(m, 0, 4));
  EXPECT_EQ(m.stores()[5].receiving, 0u);
  m.Apply(Command(pdpb::kAddPeer, 1, 5), 200);
  m.MarkRemoving(3);
  m.Apply(Command(pdpb::kAddPeer, 4, 3), 200);  // region 4: stores 4, 5, 0
  m.Advance(1000);
  EXPECT_FALSE(IsMember(m, 1, 5));
  EXPECT_FALSE(IsMember(m, 4, 3));
  EXPECT_EQ(m.Summarize().placed_on_dead, 2u);
}

TEST(SimModelTest, ALeaderlessRegionElectsALiveMemberAfterAHeartbeatOrLosesQuorum) {
  ClusterModel m = Build(SmallCluster());
  // Region r lives on stores r, r+1, r+2 (mod 6), led by store r.
  m.KillStore(0, 1000);
  EXPECT_EQ(m.regions()[0].leader, -1);
  EXPECT_EQ(m.stores()[0].leaders, 0u);
  m.Advance(1499);
  EXPECT_EQ(m.regions()[0].leader, -1);
  m.Advance(1500);
  for (uint32_t r = 0; r < 60; r += 6) {
    const int32_t leader = m.regions()[r].leader;
    EXPECT_TRUE(leader == 1 || leader == 2) << "region " << r << " led by " << leader;
  }
  // The heartbeats of the live stores list every region once, the dead
  // store as a member but never as a candidate.
  std::set<uint64_t> reported;
  for (const pdpb::RegionHeartbeatRequest& req : m.RegionHeartbeats()) {
    EXPECT_NE(req.store_id, kFirstStore);
    for (const auto& e : req.regions) {
      EXPECT_TRUE(reported.insert(e.region_id).second);
      for (uint64_t c : e.candidate_store_ids) {
        EXPECT_NE(c, kFirstStore);
        EXPECT_NE(c, req.store_id);
      }
      if (e.region_id == kFirstRegion) {
        EXPECT_EQ(e.member_store_ids, (std::vector<uint64_t>{100, 101, 102}));
        EXPECT_EQ(e.candidate_store_ids.size(), 1u);
      }
    }
  }
  EXPECT_EQ(reported.size(), 60u);
  SimSummary s = m.Summarize();
  EXPECT_EQ(s.min_live_members, 2u);
  EXPECT_EQ(s.regions_below_two_live, 0u);
  EXPECT_EQ(s.tally.under, 30u);

  // Stores 0 and 1 together held two of the three replicas of the regions
  // led by 5, 0 and 1: those lose their majority.
  m.KillStore(1, 2000);
  m.Advance(3000);
  s = m.Summarize();
  EXPECT_EQ(s.regions_lost_quorum, 20u);
  EXPECT_EQ(s.regions_below_two_live, 20u);
  EXPECT_EQ(s.min_live_members, 1u);
  EXPECT_EQ(m.regions()[0].leader, -1);
  EXPECT_EQ(s.tally.no_quorum, 20u);
}

TEST(SimModelTest, ARepairIsCountedAndMovesTwiceAndSharedZonesShowInTheSummary) {
  ClusterModel m = Build(SmallCluster());
  m.KillStore(2, 0);  // region 0: stores 0, 1, 2
  m.Apply(Command(pdpb::kAddPeer, 0, 5), 10);  // z2 again: a replacement in the dead store's zone
  m.Advance(110);
  m.Apply(Command(pdpb::kRemovePeer, 0, 2), 120);
  EXPECT_EQ(m.regions()[0].conf_version, 3u);
  EXPECT_EQ(m.regions()[0].peers.size(), 3u);
  // Store 4 sits in z1 beside store 1: the region now shares a zone.
  m.Apply(Command(pdpb::kAddPeer, 0, 4), 130);
  m.Advance(230);
  m.Apply(Command(pdpb::kRemovePeer, 0, 5), 240);
  m.Apply(Command(pdpb::kRemovePeer, 0, 5), 250);  // no longer a member
  m.Apply(Command(pdpb::kTransferLeader, 0, 4), 260);
  m.Apply(Command(pdpb::kTransferLeader, 1, 2), 260);  // a dead target
  m.Apply(Command(pdpb::kDestroyStaleReplica, 0, 1), 270);
  EXPECT_EQ(m.regions()[0].leader, 4);
  const SimSummary s = m.Summarize();
  EXPECT_EQ(s.adds_completed, 2u);
  EXPECT_EQ(s.peers_added_then_removed, 1u);
  EXPECT_EQ(s.regions_with_surplus_adds, 1u);
  EXPECT_EQ(s.regions_shared_zone, 1u);
  EXPECT_EQ(s.regions_shared_host, 0u);
  EXPECT_EQ(s.destroyed_members, 1u);
  EXPECT_EQ(s.commands_ignored, 3u);
  EXPECT_EQ(s.commands[pdpb::kRemovePeer], 3u);
  EXPECT_EQ(s.stores_serving, 5u);
}

TEST(SimModelTest, RemovedStoresStopOnceEmptyAndBigHeartbeatsComeInChunks) {
  SimOptions o = SmallCluster();
  o.heartbeat_chunk = 4;
  ClusterModel m = Build(o);
  size_t from_first = 0;
  for (const auto& req : m.RegionHeartbeats()) {
    if (req.store_id != kFirstStore) continue;
    ++from_first;
    EXPECT_LE(req.regions.size(), 4u);
    EXPECT_LE(req.region_ids.size(), 4u);
  }
  EXPECT_EQ(from_first, 5u);  // 10 led and 20 followed regions, 4 of each a call

  m.MarkRemoving(0);
  for (uint32_t r = 0; r < 60; ++r) {
    if (IsMember(m, r, 0)) m.Apply(Command(pdpb::kRemovePeer, r, 0), 0);
  }
  EXPECT_TRUE(m.stores()[0].alive());
  m.Advance(1);
  EXPECT_FALSE(m.stores()[0].alive());
  EXPECT_EQ(m.Summarize().placed_on_dead, 0u);
}

TEST(SimEventsTest, ParsesScriptsInTimeOrderAndNamesTheBadItem) {
  std::vector<SimEvent> events;
  ASSERT_TRUE(ParseEvents("remove:5@90s,kill:3@10s,zone-down:z1@10s,add:2@500ms", &events).ok());
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0], (SimEvent{SimEvent::kAdd, 2, "", 500}));
  EXPECT_EQ(events[1], (SimEvent{SimEvent::kKill, 3, "", 10000}));
  EXPECT_EQ(events[2], (SimEvent{SimEvent::kZoneDown, 0, "z1", 10000}));
  EXPECT_EQ(events[3], (SimEvent{SimEvent::kRemove, 5, "", 90000}));
  ASSERT_TRUE(ParseEvents("split:40@2s,drain-leaders:0@1s", &events).ok());
  EXPECT_EQ(events[0], (SimEvent{SimEvent::kDrainLeaders, 0, "", 1000}));
  EXPECT_EQ(events[1], (SimEvent{SimEvent::kSplit, 40, "", 2000}));
  ASSERT_TRUE(ParseEvents("", &events).ok());
  EXPECT_TRUE(events.empty());
  for (const char* bad : {"kill:3", "kill@3s", "stop:1@1s", "kill:x@1s", "add:0@1s", "zone-down:@1s", "kill:1@1h",
                          "split:1@1s"}) {
    Status s = ParseEvents(std::string("add:1@1s,") + bad, &events);
    EXPECT_TRUE(s.IsInvalidArgument()) << bad;
    EXPECT_NE(s.message().find(std::string("'") + bad + "'"), std::string::npos) << s.message();
  }
}

TEST(SimCommandLineTest, BadScriptsExitTwoAndAnUnreachableServerOne) {
  ProgramResult r = RunProgram({KANDB_META_SIM_BINARY, "--events", "kill:1@1s,explode:2@3s"});
  EXPECT_EQ(ExitCode(r), 2);
  EXPECT_EQ(r.err,
            "kandb-meta-sim: --events: bad event 'explode:2@3s': want kill:N@T, add:N@T, remove:N@T, "
            "zone-down:ZONE@T, drain-leaders:N@T or split:N@T\n(see kandb-meta-sim --help)\n");
  r = RunProgram({KANDB_META_SIM_BINARY, "--stores", "2"});
  EXPECT_EQ(ExitCode(r), 2);
  EXPECT_NE(r.err.find("--stores must be at least --replicas"), std::string::npos) << r.err;
  const std::string target = "127.0.0.1:" + std::to_string(::kandb::testing::PickFreePort());
  r = RunProgram({KANDB_META_SIM_BINARY, "--addr", target});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_NE(r.err.find("kandb-meta-sim: setup failed: cannot connect to " + target + "\n"), std::string::npos) << r.err;
}

// Six stores in three zones, one killed: the server must notice it is down,
// place a replacement of each of its replicas in the dead store's zone and
// drop the dead replicas, with nothing placed on the dead store.
TEST(SimEndToEndTest, AKilledStoreIsRepairedWithinItsZone) {
  const ::kandb::testing::ScratchDir dir("sim");
  MetaServer server;
  ASSERT_TRUE(server.Start(dir.File("pd"), {"--target_replicas=3", "--max_store_down_time=3s",
                                            "--location_labels=zone,host", "--store_limit=100000"}));
  const ProgramResult r = RunProgram(
      {KANDB_META_SIM_BINARY, "--addr", server.target(), "--stores", "6", "--zones", "3", "--regions", "2000",
       "--events", "kill:1@2s", "--region-heartbeat-ms", "500", "--store-heartbeat-ms", "500", "--snapshot-ms",
       "50", "--snapshot-concurrency", "8", "--duration-s", "45", "--progress-ms", "2000", "--json"},
      90000);
  server.Kill();
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  const json s = json::parse(r.out, nullptr, false);
  ASSERT_FALSE(s.is_discarded()) << r.out;
  EXPECT_TRUE(s["ended_healthy"].get<bool>()) << r.out << r.err;
  EXPECT_FALSE(s["repair_ms"].is_null());
  EXPECT_EQ(s["regions_healthy"], 2000);
  EXPECT_EQ(s["placed_on_dead"], 0);
  EXPECT_EQ(s["regions_shared_zone"], 0);
  EXPECT_EQ(s["regions_lost_quorum"], 0);
  EXPECT_EQ(s["destroyed_members"], 0);
  EXPECT_EQ(s["min_live_members"], 2);
  EXPECT_EQ(s["stores_serving"], 5);
  // Store 1 held a replica of 1,000 regions; each was replaced once.
  EXPECT_GE(s["adds_completed"].get<uint64_t>(), 1000u);
  EXPECT_GE(s["commands"]["remove-peer"].get<uint64_t>(), 1000u);
  EXPECT_EQ(s["rpc_errors"], 0) << s["last_rpc_error"];
}

}  // namespace
}  // namespace kandb::tools::sim
