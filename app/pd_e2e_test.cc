// End-to-end tests of the six methods: the real kandb-meta binary on
// 127.0.0.1 with a fresh state directory, called through RpcClient, with
// failures checked as the exact text that arrives over the wire.

#include <algorithm>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "common/test_util.h"
#include "meta/keys.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"

namespace kandb::pdpb {
// Readable failure output for command lists.
static void PrintTo(const ScheduleCommand& c, std::ostream* os) {
  *os << "{kind " << c.kind << ", region " << c.region_id << ", store " << c.store_id
      << ", address \"" << c.address << "\"}";
}
}  // namespace kandb::pdpb

namespace kandb {
namespace {

using pdpb::ScheduleCommand;
using testing::MetaServer;

// A fresh state directory and a server on it, with a client.
class PdEndToEndTest : public ::testing::Test {
 protected:
  PdEndToEndTest() : dir_(testing::MakeTempDir("kandb-e2e")) {}
  ~PdEndToEndTest() override {
    server_.Kill();
    testing::RemoveTree(dir_);
  }

  void StartServer(std::vector<std::string> flags = {}) {
    ASSERT_TRUE(server_.Start(dir_ + "/state", flags));
    client_ = server_.NewClient();
  }

  template <class Req, class Resp>
  Resp CallOk(const std::string& method, const Req& req) {
    Resp resp;
    Status s = client_->Call(method, req, &resp);
    EXPECT_TRUE(s.ok()) << method << ": " << s.ToString();
    return resp;
  }
  // The rendered failure of a call that must fail.
  template <class Req, class Resp>
  std::string CallError(const std::string& method, const Req& req) {
    Resp resp;
    Status s = client_->Call(method, req, &resp);
    EXPECT_FALSE(s.ok()) << method;
    return s.message();
  }

  bool Bootstrap(uint64_t store_id, const std::string& address, const pdpb::Region& region = {},
                 std::vector<pdpb::Region> extra = {}) {
    pdpb::BootstrapRequest req;
    req.store.id = store_id;
    req.store.address = address;
    req.store.state = 1;
    req.region = region;
    req.extra_regions = std::move(extra);
    return CallOk<pdpb::BootstrapRequest, pdpb::BootstrapResponse>("Pd.Bootstrap", req)
        .already_bootstrapped;
  }

  std::string RouteError(const std::string& key) {
    pdpb::GetRegionRequest req;
    req.key = key;
    return CallError<pdpb::GetRegionRequest, pdpb::GetRegionResponse>("Pd.GetRegion", req);
  }
  pdpb::GetRegionResponse Route(const std::string& key) {
    pdpb::GetRegionRequest req;
    req.key = key;
    return CallOk<pdpb::GetRegionRequest, pdpb::GetRegionResponse>("Pd.GetRegion", req);
  }

  void Upsert(std::vector<pdpb::Region> regions, std::vector<uint64_t> removed) {
    pdpb::UpsertRegionRequest req;
    req.regions = std::move(regions);
    req.removed_region_ids = std::move(removed);
    std::string raw;
    std::string payload = pdpb::Encode(req);
    Status s = client_->CallRaw("Pd.UpsertRegion", payload, &raw);
    ASSERT_TRUE(s.ok()) << s.ToString();
    EXPECT_EQ(raw, "");  // the response's message stays empty, so nothing is encoded
  }

  std::vector<ScheduleCommand> Heartbeat(uint64_t store_id,
                                         std::vector<pdpb::RegionHeartbeatEntry> regions,
                                         std::vector<uint64_t> region_ids = {}) {
    pdpb::RegionHeartbeatRequest req;
    req.store_id = store_id;
    req.regions = std::move(regions);
    req.region_ids = std::move(region_ids);
    return CallOk<pdpb::RegionHeartbeatRequest, pdpb::RegionHeartbeatResponse>(
               "Pd.RegionHeartbeat", req)
        .commands;
  }

  const std::string dir_;
  MetaServer server_;
  std::unique_ptr<kanrpc::RpcClient> client_;
};

pdpb::Region Region(uint64_t id, std::string start, std::string end,
                    std::vector<uint64_t> stores = {}) {
  pdpb::Region r;
  r.id = id;
  r.start_key = std::move(start);
  r.end_key = std::move(end);
  r.epoch.conf_version = 2;
  r.epoch.version = 3;
  for (uint64_t s : stores) r.peers.push_back(pdpb::Peer{1000 + s, s, 0});
  return r;
}

pdpb::RegionHeartbeatEntry Entry(uint64_t region_id, std::vector<uint64_t> members,
                                 std::vector<uint64_t> candidates = {},
                                 std::vector<uint64_t> caught_up = {}) {
  pdpb::RegionHeartbeatEntry e;
  e.region_id = region_id;
  e.member_store_ids = std::move(members);
  e.candidate_store_ids = std::move(candidates);
  e.caught_up_learner_store_ids = std::move(caught_up);
  return e;
}

ScheduleCommand Cmd(uint32_t kind, uint64_t region_id, uint64_t store_id,
                    std::string address = "") {
  return ScheduleCommand{kind, region_id, store_id, std::move(address)};
}

TEST_F(PdEndToEndTest, TimestampsIdentifiersAndTheRequestLayer) {
  StartServer();
  // An empty payload is a request with count 0, answered as 1.
  std::string raw;
  ASSERT_TRUE(client_->CallRaw("Pd.Tso", "", &raw).ok());
  pdpb::TsoResponse first;
  ASSERT_TRUE(pdpb::Decode(raw.size(), raw.data(), &first));
  EXPECT_EQ(first.count, 1u);
  pdpb::TsoRequest three;
  three.count = 3;
  auto next = CallOk<pdpb::TsoRequest, pdpb::TsoResponse>("Pd.Tso", three);
  EXPECT_GT(next.timestamp, first.timestamp);
  EXPECT_EQ(next.count, 3u);

  auto id = CallOk<pdpb::AllocIdRequest, pdpb::AllocIdResponse>("Pd.AllocId", {});
  EXPECT_EQ(id.first_id, 1024u);
  EXPECT_EQ(id.count, 1u);
  id = CallOk<pdpb::AllocIdRequest, pdpb::AllocIdResponse>("Pd.AllocId", pdpb::AllocIdRequest{5});
  EXPECT_EQ(id.first_id, 1025u);
  EXPECT_EQ(id.count, 5u);

  // Undecodable payloads, and names that differ in letter case only.
  const std::string count_record = pdpb::Encode(three);
  for (const std::string& bad : {std::string("\x01\x00\x08", 3), count_record + "xy",
                                 count_record.substr(0, count_record.size() - 1)}) {
    Status s = client_->CallRaw("Pd.AllocId", bad, &raw);
    EXPECT_EQ(s.message(), "remote: InvalidArgument: bad request payload");
  }
  EXPECT_EQ(client_->CallRaw("pd.tso", "", &raw).message(), "remote: unknown method: pd.tso");
  EXPECT_EQ(client_->CallRaw("Pd.TSO", "", &raw).message(), "remote: unknown method: Pd.TSO");
  // The failed requests consumed no identifier.
  id = CallOk<pdpb::AllocIdRequest, pdpb::AllocIdResponse>("Pd.AllocId", {});
  EXPECT_EQ(id.first_id, 1030u);
}

TEST_F(PdEndToEndTest, TimestampsGrowAcrossConcurrentClients) {
  StartServer();
  constexpr int kClients = 4;
  std::vector<std::vector<pdpb::TsoResponse>> got(kClients);
  std::vector<std::thread> threads;
  for (int c = 0; c < kClients; c++) {
    threads.emplace_back([&, c] {
      auto client = server_.NewClient();
      for (int i = 0; i < 100; i++) {
        pdpb::TsoRequest req;
        req.count = static_cast<uint32_t>(1 + (i * 40503 + c * 7) % 120000);
        pdpb::TsoResponse resp;
        Status s = client->Call("Pd.Tso", req, &resp);
        ASSERT_TRUE(s.ok()) << s.ToString();
        ASSERT_EQ(resp.count, req.count);
        got[c].push_back(resp);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  std::vector<pdpb::TsoResponse> all;
  for (const auto& list : got) {
    for (size_t i = 1; i < list.size(); i++) EXPECT_GT(list[i].timestamp, list[i - 1].timestamp);
    all.insert(all.end(), list.begin(), list.end());
  }
  std::sort(all.begin(), all.end(),
            [](const auto& a, const auto& b) { return a.timestamp < b.timestamp; });
  for (size_t i = 0; i < all.size(); i++) {
    const uint64_t last = all[i].timestamp + all[i].count - 1;
    EXPECT_LT(last & 0x3FFFF, 0x3FFFFu);
    EXPECT_EQ(last >> 18, all[i].timestamp >> 18);
    if (i > 0) {
      EXPECT_LT(all[i - 1].timestamp + all[i - 1].count - 1, all[i].timestamp);
    }
  }
}

TEST_F(PdEndToEndTest, BootstrapRoutingAndUpsert) {
  StartServer();
  EXPECT_EQ(RouteError(""), "remote: NotFound: cluster not bootstrapped");
  Upsert({}, {});
  EXPECT_EQ(RouteError("b"), "remote: NotFound: cluster not bootstrapped");

  EXPECT_FALSE(Bootstrap(1, "s1:20160", Region(2, "b", "d", {1, 3}),
                         {Region(10, "d", "", {3}), Region(9, "", "a", {1})}));
  pdpb::GetRegionResponse r = Route(std::string("c\xff", 2));
  EXPECT_EQ(r.region, Region(2, "b", "d", {1, 3}));
  EXPECT_EQ(r.leader, r.region.peers[0]);
  EXPECT_EQ(r.leader_store, (pdpb::Store{1, "s1:20160", 1}));
  EXPECT_EQ(r.stores, (std::vector<pdpb::Store>{{1, "s1:20160", 1}}));  // store 3 unknown yet
  EXPECT_EQ(Route("b").region.id, 2u);
  EXPECT_EQ(Route("d").region.id, 10u);
  EXPECT_EQ(Route("").region.id, 9u);
  EXPECT_EQ(RouteError("a"), "remote: NotFound: no region covers key");

  // Store 3 registers on the existing cluster; the regions it carries are ignored.
  EXPECT_TRUE(Bootstrap(3, "s3:20160", Region(2, "", "", {})));
  r = Route("b");
  EXPECT_EQ(r.region, Region(2, "b", "d", {1, 3}));
  EXPECT_EQ(r.stores, (std::vector<pdpb::Store>{{1, "s1:20160", 1}, {3, "s3:20160", 1}}));
  r = Route("zzz");
  EXPECT_EQ(r.leader_store, (pdpb::Store{3, "s3:20160", 1}));

  // A split of region 2 at "c" and a merge that removes region 9.
  Upsert({Region(2, "", "c", {3, 1}), Region(11, "c", "d", {1})}, {9});
  EXPECT_EQ(Route("").region, Region(2, "", "c", {3, 1}));
  EXPECT_EQ(Route("").leader.store_id, 3u);
  EXPECT_EQ(Route("c").region.id, 11u);
  Upsert({}, {2, 10, 11});
  EXPECT_EQ(RouteError("c"), "remote: NotFound: cluster not bootstrapped");
}

TEST_F(PdEndToEndTest, UndecodableLeaderStoreRecordPlantedBeforeStart) {
  {
    std::unique_ptr<store::MetaStore> state;
    ASSERT_TRUE(store::MetaStore::Open(dir_ + "/state", "", 1, &state).ok());
    ASSERT_TRUE(state
                    ->Put({{meta::kBootstrappedKey, "1"},
                           {meta::RegionKey(2), pdpb::Encode(Region(2, "", "m", {3, 1}))},
                           {meta::RegionKey(4), pdpb::Encode(Region(4, "m", "", {1, 3}))},
                           {meta::StoreKey(1), pdpb::Encode(pdpb::Store{1, "s1", 0})},
                           {meta::StoreKey(3), std::string("\x01\x00", 2)}})
                    .ok());
  }
  StartServer();
  EXPECT_EQ(RouteError("a"), "remote: Corruption: bad store record");
  // As a follower's store the same record is only left out.
  pdpb::GetRegionResponse r = Route("x");
  EXPECT_EQ(r.leader_store, (pdpb::Store{1, "s1", 0}));
  EXPECT_EQ(r.stores, (std::vector<pdpb::Store>{{1, "s1", 0}}));
}

TEST_F(PdEndToEndTest, AutoHealAddsOnTheFirstStoreInKeyOrder) {
  StartServer({"--target_replicas=3"});
  Bootstrap(1, "s1", Region(1, "", "", {1}));
  for (uint64_t id : {2, 10, 3}) Bootstrap(id, std::string("s").append(std::to_string(id)));
  // "pd/store/10" sorts before "pd/store/3"; one replica per heartbeat.
  EXPECT_EQ(Heartbeat(1, {Entry(1, {1, 2}), Entry(5, {1})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kAddPeer, 1, 10, "s10"),
                                          Cmd(pdpb::kAddPeer, 5, 10, "s10")}));
  // Store 10 re-registers without an address and is passed over.
  Bootstrap(10, "");
  EXPECT_EQ(Heartbeat(1, {Entry(1, {1, 2})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kAddPeer, 1, 3, "s3")}));
  EXPECT_TRUE(Heartbeat(1, {Entry(1, {1, 2, 3})}).empty());
}

TEST_F(PdEndToEndTest, AutoHealRemovesACandidateButNeverTheReporter) {
  StartServer({"--target_replicas=1"});
  Bootstrap(4, "s4", Region(1, "", "", {4, 6}));
  EXPECT_EQ(Heartbeat(4, {Entry(1, {4, 6})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kRemovePeer, 1, 6)}));
  EXPECT_EQ(Heartbeat(4, {Entry(1, {4, 6, 7}, {7})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kRemovePeer, 1, 7)}));
  // The reporter as its own candidate is skipped.
  EXPECT_EQ(Heartbeat(4, {Entry(1, {4, 6}, {4})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kRemovePeer, 1, 6)}));
  EXPECT_TRUE(Heartbeat(4, {Entry(1, {4, 4})}).empty());
}

TEST_F(PdEndToEndTest, PromotionStaleReplicasAndLeaderBalancingWithAutoHealOff) {
  StartServer();
  Bootstrap(1, "s1", Region(50, "", "", {2, 3}));
  Bootstrap(2, "s2");
  // Store 3 reports here so that the leader counts below stay store 1's own.
  EXPECT_EQ(Heartbeat(3, {Entry(9, {3}, {}, {5})}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kPromoteLearner, 9, 5)}));
  // Region 50 no longer lists store 1; region 77 has no record at all.
  EXPECT_EQ(Heartbeat(1, {}, {77, 50}),
            (std::vector<ScheduleCommand>{Cmd(pdpb::kDestroyStaleReplica, 50, 1)}));
  EXPECT_TRUE(Heartbeat(2, {}, {50}).empty());

  // Store 2 last reported 2 regions; store 1 reports 5: 2 < 5 - 1, transfer.
  Heartbeat(2, {Entry(100, {2, 1}), Entry(101, {2, 1})});
  std::vector<pdpb::RegionHeartbeatEntry> five;
  std::vector<ScheduleCommand> transfers;
  for (uint64_t r = 1; r <= 5; r++) {
    five.push_back(Entry(r, {1, 2}, {2}));
    transfers.push_back(Cmd(pdpb::kTransferLeader, r, 2));
  }
  EXPECT_EQ(Heartbeat(1, five), transfers);
  // Store 2 now last reported 4: 4 is not below 5 - 1, no transfer.
  Heartbeat(2, {Entry(102, {2, 1}), Entry(103, {2, 1})});
  EXPECT_TRUE(Heartbeat(1, five).empty());
}

TEST_F(PdEndToEndTest, CommandsArriveInPolicyOrder) {
  StartServer({"--target_replicas=3"});
  Bootstrap(1, "s1", Region(50, "", "", {2}));
  for (uint64_t id : {2, 10, 3}) Bootstrap(id, std::string("s").append(std::to_string(id)));
  EXPECT_EQ(Heartbeat(1, {Entry(1, {1}, {}, {5}), Entry(2, {1, 2, 3, 10}, {3})}, {50}),
            (std::vector<ScheduleCommand>{
                Cmd(pdpb::kPromoteLearner, 1, 5),
                Cmd(pdpb::kAddPeer, 1, 10, "s10"),
                Cmd(pdpb::kRemovePeer, 2, 3),
                Cmd(pdpb::kDestroyStaleReplica, 50, 1),
                Cmd(pdpb::kTransferLeader, 2, 3),
            }));
}

}  // namespace
}  // namespace kandb
