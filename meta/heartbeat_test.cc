// In-process tests of the heartbeat policies: promotion, auto-heal (add and
// remove), stale-replica clean-up and leader balancing, and the order in
// which their commands are answered.

#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "meta/pd_service.h"
#include "meta/service_test_util.h"

namespace kandb::pdpb {
// Readable failure output for command lists.
static void PrintTo(const ScheduleCommand& c, std::ostream* os) {
  *os << "{kind " << c.kind << ", region " << c.region_id << ", store " << c.store_id
      << ", address \"" << c.address << "\"}";
}
}  // namespace kandb::pdpb

namespace kandb::meta {
namespace {

using pdpb::RegionHeartbeatEntry;
using pdpb::ScheduleCommand;
using testing::MakeRegion;
using testing::MakeStore;
using testing::ScratchStore;

RegionHeartbeatEntry Entry(uint64_t region_id, std::vector<uint64_t> members,
                           std::vector<uint64_t> candidates = {},
                           std::vector<uint64_t> caught_up = {}) {
  RegionHeartbeatEntry e;
  e.region_id = region_id;
  e.member_store_ids = std::move(members);
  e.candidate_store_ids = std::move(candidates);
  e.caught_up_learner_store_ids = std::move(caught_up);
  return e;
}

ScheduleCommand Cmd(uint32_t kind, uint64_t region_id, uint64_t store_id,
                    std::string address = "") {
  ScheduleCommand c;
  c.kind = kind;
  c.region_id = region_id;
  c.store_id = store_id;
  c.address = std::move(address);
  return c;
}

std::string Address(uint64_t store_id) { return MakeStore(store_id).address; }

class HeartbeatTest : public ::testing::Test {
 protected:
  std::vector<ScheduleCommand> Heartbeat(PdService* service, uint64_t store_id,
                                         std::vector<RegionHeartbeatEntry> regions,
                                         std::vector<uint64_t> region_ids = {}) {
    pdpb::RegionHeartbeatRequest req;
    req.store_id = store_id;
    req.regions = std::move(regions);
    req.region_ids = std::move(region_ids);
    pdpb::RegionHeartbeatResponse resp;
    Status s = service->RegionHeartbeat(req, &resp);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return resp.commands;
  }

  void RegisterStores(const std::vector<uint64_t>& ids) {
    for (uint64_t id : ids) store_.PutStore(MakeStore(id));
  }

  ScratchStore store_;
};

TEST_F(HeartbeatTest, PromotionRunsWithAutoHealOff) {
  PdService service(store_.get(), 0);
  RegisterStores({1, 2, 3});
  EXPECT_EQ(Heartbeat(&service, 1, {Entry(9, {1}, {}, {5})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kPromoteLearner, 9, 5)}));
  // Several learners in request order; a lone member never grows with auto-heal off.
  EXPECT_EQ(Heartbeat(&service, 1, {Entry(9, {1}, {}, {7, 6})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kPromoteLearner, 9, 7),
                                          Cmd(pdpb::kPromoteLearner, 9, 6)}));
}

TEST_F(HeartbeatTest, AddPeerTakesFirstStoreInKeyOrderWithAnAddress) {
  PdService service(store_.get(), 3);
  RegisterStores({1, 2, 10, 3});
  // "pd/store/10" sorts before "pd/store/3"; one replica per heartbeat.
  EXPECT_EQ(Heartbeat(&service, 1, {Entry(7, {1, 2})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kAddPeer, 7, 10, Address(10))}));
  EXPECT_EQ(Heartbeat(&service, 1, {Entry(7, {1})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kAddPeer, 7, 10, Address(10))}));

  // A store without an address is never chosen.
  store_.Put(StoreKey(10), pdpb::Encode(pdpb::Store{10, "", 0}));
  EXPECT_EQ(Heartbeat(&service, 1, {Entry(7, {1, 2})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kAddPeer, 7, 3, Address(3))}));
  // Undecodable store records are skipped.
  store_.Put(StoreKey(4), "\x01");
  EXPECT_EQ(Heartbeat(&service, 1, {Entry(7, {1, 3})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kAddPeer, 7, 2, Address(2))}));
  EXPECT_TRUE(Heartbeat(&service, 1, {Entry(7, {1, 2, 3})}).empty());  // at the target

  // Below the target but every usable store already holds a member: nothing.
  PdService five(store_.get(), 5);
  EXPECT_TRUE(Heartbeat(&five, 1, {Entry(7, {1, 2, 3})}).empty());
}

TEST_F(HeartbeatTest, RemovePeerPrefersCandidatesAndProtectsTheReporter) {
  PdService service(store_.get(), 1);
  RegisterStores({4, 6, 7});
  EXPECT_EQ(Heartbeat(&service, 4, {Entry(1, {4, 6})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kRemovePeer, 1, 6)}));
  EXPECT_EQ(Heartbeat(&service, 4, {Entry(1, {4, 6, 7}, {4, 7})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kRemovePeer, 1, 7)}));
  // A candidate that is not a member does not count.
  EXPECT_EQ(Heartbeat(&service, 4, {Entry(1, {6, 4, 7}, {9})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kRemovePeer, 1, 6)}));
  // Only the reporter, or a first choice of 0: nothing.
  EXPECT_TRUE(Heartbeat(&service, 4, {Entry(1, {4, 4})}).empty());
  EXPECT_TRUE(Heartbeat(&service, 4, {Entry(1, {0, 4})}).empty());
  EXPECT_TRUE(Heartbeat(&service, 4, {Entry(1, {4, 0, 6}, {0})}).empty());
  // At the target: nothing.
  EXPECT_TRUE(Heartbeat(&service, 4, {Entry(1, {4})}).empty());
}

TEST_F(HeartbeatTest, StaleReplicaWhenTheRecordNoLongerListsTheReporter) {
  PdService service(store_.get(), 0);
  store_.PutRegion(MakeRegion(20, "", "m", {1, 2}));
  store_.PutRegion(MakeRegion(21, "m", "", {2, 3}));
  store_.PutRegion(MakeRegion(22, "x", "", {}));
  store_.Put(RegionKey(23), "garbage");
  // 20 lists store 1; 21 and 22 do not; 23 does not decode and 24 is
  // absent: neither is reason enough to destroy a replica.
  EXPECT_EQ(Heartbeat(&service, 1, {}, {20, 21, 22, 23, 24, 21}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kDestroyStaleReplica, 21, 1),
                                          Cmd(pdpb::kDestroyStaleReplica, 22, 1),
                                          Cmd(pdpb::kDestroyStaleReplica, 21, 1)}));
}

class LeaderBalanceTest : public HeartbeatTest {
 protected:
  // Makes `store_id` the last reporter of `count` regions numbered from
  // `first`, each with the given members and no candidates.
  void Report(PdService* service, uint64_t store_id, uint64_t first, int count,
              std::vector<uint64_t> members) {
    std::vector<RegionHeartbeatEntry> entries;
    for (int i = 0; i < count; i++) entries.push_back(Entry(first + i, members));
    Heartbeat(service, store_id, entries);
  }
};

TEST_F(LeaderBalanceTest, TransfersOnlyWhenTheCandidateLeadsClearlyFewer) {
  RegisterStores({1, 2, 3});
  {
    PdService service(store_.get(), 0);
    Report(&service, 2, 100, 2, {2, 1});
    // Store 1 reports 5 regions, store 2 leads 2: 2 < 5 - 1, so all five move.
    std::vector<RegionHeartbeatEntry> five;
    for (uint64_t r = 1; r <= 5; r++) five.push_back(Entry(r, {1, 2}, {2}));
    std::vector<ScheduleCommand> want;
    for (uint64_t r = 1; r <= 5; r++) want.push_back(Cmd(pdpb::kTransferLeader, r, 2));
    EXPECT_EQ(Heartbeat(&service, 1, five), want);

    // A member that is not a candidate is never a target.
    five[0].candidate_store_ids.clear();
    EXPECT_EQ(Heartbeat(&service, 1, {five[0]}), std::vector<ScheduleCommand>{});
  }
  {
    PdService service(store_.get(), 0);
    Report(&service, 2, 100, 4, {2, 1});
    // 4 is not below 5 - 1: no transfer.
    std::vector<RegionHeartbeatEntry> five;
    for (uint64_t r = 1; r <= 5; r++) five.push_back(Entry(r, {1, 2}, {2}));
    EXPECT_TRUE(Heartbeat(&service, 1, five).empty());
    // With a sixth region store 1 leads 6, and 4 < 6 - 1.
    five.push_back(Entry(6, {1, 2}, {2}));
    EXPECT_EQ(Heartbeat(&service, 1, five).size(), 6u);
  }
}

TEST_F(LeaderBalanceTest, PicksTheLeastLoadedCandidateEarlierOnTies) {
  RegisterStores({1, 2, 3, 4});
  PdService service(store_.get(), 0);
  Report(&service, 2, 100, 1, {2});
  Report(&service, 3, 200, 1, {3});
  // Store 1 leads 2, so only a candidate leading none qualifies (0 < 2 - 1);
  // among equals the earlier member wins (store 5, never registered, leads none).
  EXPECT_EQ(Heartbeat(&service, 1, {Entry(1, {1, 2, 3, 4}, {2, 3, 4}), Entry(2, {1, 5, 4}, {4, 5})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kTransferLeader, 1, 4),
                                          Cmd(pdpb::kTransferLeader, 2, 5)}));
  // A region moving to another reporter moves its count along.
  Report(&service, 4, 1, 2, {4});
  EXPECT_TRUE(Heartbeat(&service, 1, {Entry(9, {1, 4}, {4})}).empty());  // store 1 leads 1 now
}

TEST_F(LeaderBalanceTest, NeedsTwoRegisteredStoresAndTwoLedRegions) {
  RegisterStores({1});
  PdService service(store_.get(), 0);
  std::vector<RegionHeartbeatEntry> many;
  for (uint64_t r = 1; r <= 6; r++) many.push_back(Entry(r, {1, 2}, {2}));
  EXPECT_TRUE(Heartbeat(&service, 1, many).empty());  // one store registered
  RegisterStores({2});
  EXPECT_EQ(Heartbeat(&service, 1, many).size(), 6u);

  PdService fresh(store_.get(), 0);
  EXPECT_TRUE(Heartbeat(&fresh, 1, {Entry(1, {1, 2}, {2})}).empty());  // leads only one
}

TEST_F(HeartbeatTest, CommandsComeInPolicyOrder) {
  PdService service(store_.get(), 2);
  RegisterStores({1, 2, 3});
  store_.PutRegion(MakeRegion(50, "", "", {2}));
  // Store 1 leads regions 1 .. 4; store 3 leads none.
  std::vector<RegionHeartbeatEntry> entries = {
      Entry(1, {1}, {}, {4}),        // promote 4, then add a peer
      Entry(2, {1, 3, 2}, {3}),      // remove candidate 3, then transfer to 3
      Entry(3, {1, 2}, {}),          // at target: nothing
      Entry(4, {1, 3}, {3}, {3}),    // promote 3; transfer to 3
  };
  EXPECT_EQ(Heartbeat(&service, 1, entries, {50}),
            (std::vector<ScheduleCommand>{
                Cmd(pdpb::kPromoteLearner, 1, 4),
                Cmd(pdpb::kAddPeer, 1, 2, Address(2)),
                Cmd(pdpb::kRemovePeer, 2, 3),
                Cmd(pdpb::kPromoteLearner, 4, 3),
                Cmd(pdpb::kDestroyStaleReplica, 50, 1),
                Cmd(pdpb::kTransferLeader, 2, 3),
                Cmd(pdpb::kTransferLeader, 4, 3),
            }));
}

}  // namespace
}  // namespace kandb::meta
