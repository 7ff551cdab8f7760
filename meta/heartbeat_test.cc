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

// The end-to-end tests show each policy over the wire; these cover the
// corners that are quicker to set up in process.

TEST_F(HeartbeatTest, AutoHealCorners) {
  RegisterStores({1, 2, 3});
  store_.Put(StoreKey(4), "\x01");  // undecodable: never a choice
  PdService five(store_.get(), 5);
  // Every usable store already holds a member: no command, and learners
  // are promoted whatever auto-heal decides.
  EXPECT_EQ(Heartbeat(&five, 1, {Entry(7, {1, 2, 3}, {}, {9, 8})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kPromoteLearner, 7, 9),
                                          Cmd(pdpb::kPromoteLearner, 7, 8)}));
  EXPECT_EQ(Heartbeat(&five, 1, {Entry(7, {1, 3})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kAddPeer, 7, 2, Address(2))}));

  PdService one(store_.get(), 1);
  // Only the reporter to remove, or a first choice of store 0: nothing.
  EXPECT_TRUE(Heartbeat(&one, 4, {Entry(1, {4, 4})}).empty());
  EXPECT_TRUE(Heartbeat(&one, 4, {Entry(1, {0, 4})}).empty());
  EXPECT_TRUE(Heartbeat(&one, 4, {Entry(1, {4, 0, 6}, {0})}).empty());
  // A candidate that is not a member does not count.
  EXPECT_EQ(Heartbeat(&one, 4, {Entry(1, {6, 4, 7}, {9})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kRemovePeer, 1, 6)}));
}

TEST_F(HeartbeatTest, StaleReplicaOnlyOnARecordThatDecodes) {
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
  // Members that are not candidates are never targets.
  EXPECT_TRUE(Heartbeat(&service, 1, {Entry(1, {1, 4}, {})}).empty());
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

}  // namespace
}  // namespace kandb::meta
