// The six methods over the wire: the real kandb-meta binary on 127.0.0.1
// with a fresh state directory, called through RpcClient, each answered
// once, and failures checked as the exact text of the error frame; every
// case twice, over plain TCP and over mutual TLS with an allow-list. The
// policies behind the answers are checked in process (meta/).

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "common/test_certs.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "rpc/tls.h"

namespace kandb {
namespace {

using pdpb::ScheduleCommand;

class PdEndToEndTest : public ::testing::TestWithParam<bool> {
 protected:
  PdEndToEndTest() : dir_(testing::MakeTempDir("kandb-e2e")) {}
  ~PdEndToEndTest() override {
    server_.Kill();
    testing::RemoveTree(dir_);
  }

  void StartServer(std::vector<std::string> flags = {}) {
    std::shared_ptr<const kanrpc::TlsClientContext> tls;
    if (GetParam()) {
      testing::TestPki pki(dir_, "cluster");
      ASSERT_TRUE(pki.ok()) << pki.error();
      const testing::CertFiles server = pki.Server("server"), client = pki.Issue("client", "store-1", "");
      ASSERT_FALSE(client.cert.empty()) << pki.error();
      flags.insert(flags.end(), {"--tls_cert=" + server.cert, "--tls_key=" + server.key, "--tls_ca=" + pki.ca().cert,
                                 "--tls_allowed_cn=pd-ctl, store-1"});
      ASSERT_TRUE(kanrpc::TlsClientContext::Load({client.cert, client.key, pki.ca().cert, ""}, &tls).ok());
    }
    ASSERT_TRUE(server_.Start(dir_ + "/state", flags));
    client_ = server_.NewClient(tls);
  }
  // The decoded answer of a call that must succeed.
  template <class Resp, class Req>
  Resp Ok(const std::string& method, const Req& req) {
    Resp resp;
    Status s = client_->Call(method, req, &resp);
    EXPECT_TRUE(s.ok()) << method << ": " << s.ToString();
    return resp;
  }
  std::string RouteError(const std::string& key) {
    pdpb::GetRegionResponse resp;
    return client_->Call("Pd.GetRegion", pdpb::GetRegionRequest{key}, &resp).message();
  }
  pdpb::GetRegionResponse Route(const std::string& key) {
    return Ok<pdpb::GetRegionResponse>("Pd.GetRegion", pdpb::GetRegionRequest{key});
  }
  bool Bootstrap(uint64_t store_id, const std::string& address, const pdpb::Region& region = {},
                 std::vector<pdpb::Region> extra = {}) {
    return Ok<pdpb::BootstrapResponse>("Pd.Bootstrap",
                                       pdpb::BootstrapRequest{{store_id, address, 1}, region, std::move(extra)})
        .already_bootstrapped;
  }
  void Upsert(std::vector<pdpb::Region> regions, std::vector<uint64_t> removed) {
    std::string raw = "untouched";
    Status s = client_->CallRaw("Pd.UpsertRegion", pdpb::Encode(pdpb::UpsertRegionRequest{regions, removed}), &raw);
    ASSERT_TRUE(s.ok()) << s.ToString();
    EXPECT_EQ(raw, "");  // the response's message stays empty, so nothing is encoded
  }

  const std::string dir_;
  testing::MetaServer server_;
  std::unique_ptr<kanrpc::RpcClient> client_;
};

pdpb::Region Region(uint64_t id, std::string start, std::string end, std::vector<uint64_t> stores = {}) {
  pdpb::Region r{id, std::move(start), std::move(end), {2, 3}, {}};
  for (uint64_t s : stores) r.peers.push_back(pdpb::Peer{1000 + s, s, 0});
  return r;
}

TEST_P(PdEndToEndTest, TimestampsIdentifiersBootstrapRoutingAndUpsert) {
  StartServer();
  // Timestamps and identifiers: their corners are the service's tests'.
  EXPECT_EQ(Ok<pdpb::TsoResponse>("Pd.Tso", pdpb::TsoRequest{3}).count, 3u);
  EXPECT_EQ(Ok<pdpb::AllocIdResponse>("Pd.AllocId", pdpb::AllocIdRequest{5}), (pdpb::AllocIdResponse{1024, 5}));
  EXPECT_EQ(RouteError(""), "remote: NotFound: cluster not bootstrapped");
  Upsert({}, {});
  EXPECT_FALSE(Bootstrap(1, "s1:20160", Region(2, "b", "d", {1, 3}),
                         {Region(10, "d", "", {3}), Region(9, "", "a", {1})}));
  pdpb::GetRegionResponse r = Route(std::string("c\xff", 2));
  EXPECT_EQ(r.region, Region(2, "b", "d", {1, 3}));
  EXPECT_EQ(r.leader, r.region.peers[0]);
  EXPECT_EQ(r.leader_store, (pdpb::Store{1, "s1:20160", 1}));
  EXPECT_EQ(r.stores, (std::vector<pdpb::Store>{{1, "s1:20160", 1}}));  // store 3 unknown yet
  EXPECT_EQ(Route("").region.id, 9u);
  EXPECT_EQ(RouteError("a"), "remote: NotFound: no region covers key");

  // Store 3 registers on the existing cluster; the region it carries is ignored.
  EXPECT_TRUE(Bootstrap(3, "s3:20160", Region(2, "", "", {})));
  r = Route("b");
  EXPECT_EQ(r.region, Region(2, "b", "d", {1, 3}));
  EXPECT_EQ(r.stores, (std::vector<pdpb::Store>{{1, "s1:20160", 1}, {3, "s3:20160", 1}}));

  // A split of region 2 at "c" and a merge that removes region 9.
  Upsert({Region(2, "", "c", {3, 1}), Region(11, "c", "d", {1})}, {9});
  EXPECT_EQ(Route("").region, Region(2, "", "c", {3, 1}));
  EXPECT_EQ(Route("c").region.id, 11u);
  Upsert({}, {2, 10, 11});
  EXPECT_EQ(RouteError("c"), "remote: NotFound: cluster not bootstrapped");
}

TEST_P(PdEndToEndTest, HeartbeatCommandsArriveInPolicyOrder) {
  StartServer({"--target_replicas=3"});
  Bootstrap(1, "s1", Region(50, "", "", {2}));
  for (uint64_t id : {2, 10, 3}) Bootstrap(id, "s" + std::to_string(id));
  pdpb::RegionHeartbeatRequest req{1, {{1, {1}, {5}, {}}, {2, {1, 2, 3, 10}, {}, {3}}}, {50}, {}};
  EXPECT_EQ(Ok<pdpb::RegionHeartbeatResponse>("Pd.RegionHeartbeat", req).commands,
            (std::vector<ScheduleCommand>{
                {pdpb::kPromoteLearner, 1, 5, ""},
                {pdpb::kAddPeer, 1, 10, "s10"},  // "pd/store/10" sorts before "pd/store/3"
                {pdpb::kRemovePeer, 2, 3, ""},
                {pdpb::kDestroyStaleReplica, 50, 1, ""},
                {pdpb::kTransferLeader, 2, 3, ""},
            }));
}

INSTANTIATE_TEST_SUITE_P(Transports, PdEndToEndTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "Tls" : "Plain"; });

}  // namespace
}  // namespace kandb
