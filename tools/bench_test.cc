// Runs kandb-meta-bench against a live kandb-meta: a run bounded by its
// request count, large-value upserts, heartbeats of many regions from many
// stores, two seconds of mixed load over TLS with every answer checked and
// a session kept or made anew for every call, scans over preloaded
// regions, pipelined calls, a live Redis driven by the same client, and the
// command-line and setup failures.

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/meta_server_test_util.h"
#include "common/test_certs.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "pdpb/stats.h"
#include "rpc/tls.h"

namespace kandb::tools {
namespace {

using ::kandb::testing::ExitCode;
using ::kandb::testing::MakeTempDir;
using ::kandb::testing::MetaServer;
using ::kandb::testing::ProgramResult;
using ::kandb::testing::RemoveTree;
using ::kandb::testing::RunProgram;
using nlohmann::json;

class BenchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = MakeTempDir("bench");
    ASSERT_TRUE(server_.Start(dir_ + "/pd"));
  }
  void TearDown() override {
    server_.Kill();
    RemoveTree(dir_);
  }
  ProgramResult Bench(std::vector<std::string> args) {
    args.insert(args.begin(), {KANDB_META_BENCH_BINARY, "--addr", server_.target()});
    return RunProgram(args, 120000);
  }

  std::string dir_;
  MetaServer server_;
};

TEST_F(BenchTest, RequestCountBoundsTheRunAndIdentifierBatchesNeverOverlap) {
  ProgramResult r =
      Bench({"--method", "alloc-id", "--conns", "8", "--threads", "3", "--requests", "400", "--count", "3"});
  ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
  EXPECT_EQ(r.out.rfind("kandb-meta-bench: alloc-id against " + server_.target() + ", 8 connections, ", 0), 0u)
      << r.out;
  EXPECT_NE(r.out.find("requests       400\n"), std::string::npos);
  EXPECT_NE(r.out.find("latency        p50 "), std::string::npos);
  // An alloc-id run needs no setup: the server handed out exactly 400
  // batches of 3, from 1024 on.
  auto client = server_.NewClient();
  pdpb::AllocIdResponse next;
  ASSERT_TRUE(client->Call("Pd.AllocId", pdpb::AllocIdRequest{1}, &next).ok());
  EXPECT_EQ(next.first_id, 1024u + 400 * 3);
}

// Padded records are written whole: the server's logs grow by at least
// the padding of every request.
TEST_F(BenchTest, LargeValueUpsertsWriteTheirPadding) {
  ProgramResult r = Bench({"--method", "upsert-region", "--conns", "2", "--value-bytes", "40000", "--requests", "30"});
  ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
  EXPECT_NE(r.out.find("requests       30\n"), std::string::npos) << r.out;
  uint64_t logged = 0;
  for (const std::filesystem::directory_entry& e : std::filesystem::directory_iterator(dir_ + "/pd")) {
    if (e.path().filename().string().rfind("wal-", 0) == 0) logged += e.file_size();
  }
  EXPECT_GE(logged, 30u * 40000);
}

// Five stores, so that two of them stand outside a whole group of three:
// every region must still have three replicas in three zones, and every
// store must be registered, labelled and Up.
TEST_F(BenchTest, HeartbeatsOfManyRegionsFromManyStoresThatStayUp) {
  server_.Kill();
  ASSERT_TRUE(server_.Start(dir_ + "/pd-stores", {"--target_replicas=3"}));
  ProgramResult r = Bench({"--method", "heartbeat", "--conns", "2", "--requests", "200", "--preload-regions", "40",
                           "--stores", "5", "--heartbeat-entries", "4", "--store-heartbeats", "--json"});
  ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
  const json report = json::parse(r.out, nullptr, false);
  ASSERT_FALSE(report.is_discarded()) << r.out;
  EXPECT_EQ(report["stores"], 5);
  EXPECT_EQ(report["heartbeat_entries"], 4);
  EXPECT_DOUBLE_EQ(report["heartbeat_entries_per_second"].get<double>(), 4 * report["throughput"].get<double>());
  EXPECT_NE(r.err.find("registered 5 stores\n"), std::string::npos) << r.err;

  auto client = server_.NewClient();
  pdpb::GetAllStoresResponse all;
  ASSERT_TRUE(client->Call("Pd.GetAllStores", pdpb::GetAllStoresRequest{}, &all).ok());
  ASSERT_EQ(all.stores.size(), 5u);
  uint64_t replicas = 0;
  for (const pdpb::StoreInfo& info : all.stores) {
    const uint64_t id = info.store.id;
    EXPECT_EQ(info.store.address, std::string("127.0.0.1:").append(std::to_string(20159 + id)));
    EXPECT_EQ(info.store.labels,
              (std::vector<pdpb::StoreLabel>{{"zone", std::string("z").append(std::to_string(id % 3))}}));
    EXPECT_EQ(info.state, pdpb::kStoreUp) << id;
    EXPECT_GT(info.replicas, 0u) << id;
    replicas += info.replicas;
  }
  EXPECT_EQ(replicas, 40u * 3);
  for (int i = 0; i < 40; ++i) {
    char key[32];
    std::snprintf(key, sizeof(key), "bench/%010d", i);
    pdpb::GetRegionResponse route;
    ASSERT_TRUE(client->Call("Pd.GetRegion", pdpb::GetRegionRequest{key}, &route).ok());
    std::set<uint64_t> zones;
    for (const pdpb::Peer& peer : route.region.peers) zones.insert(peer.store_id % 3);
    EXPECT_EQ(zones.size(), 3u) << key;
    EXPECT_EQ(route.region.peers.size(), 3u) << key;
  }
}

// A server that demands a client certificate: two seconds of mixed load
// over preloaded regions, four calls in flight on each session, every
// answer checked, and the setup's calls go
// through TLS sessions, kept for the run or, with --reconnect, made anew
// (connect, full handshake, one call, close) for every call.
TEST_F(BenchTest, LoadOverTlsWithSessionsKeptOrNewForEveryCall) {
  testing::TestPki pki(dir_, "bench");
  ASSERT_TRUE(pki.ok()) << pki.error();
  const testing::CertFiles cert = pki.Server("server");
  const testing::CertFiles client_cert = pki.Issue("client", "bench", "");
  ASSERT_FALSE(cert.cert.empty() || client_cert.cert.empty()) << pki.error();
  server_.Kill();
  ASSERT_TRUE(server_.Start(dir_ + "/pd-tls", {"--tls_cert=" + cert.cert, "--tls_key=" + cert.key,
                                               "--tls_ca=" + pki.ca().cert, "--tls_allowed_cn=bench"}));
  const std::vector<std::string> tls = {"--tls-cert", client_cert.cert, "--tls-key", client_cert.key,
                                        "--tls-ca", pki.ca().cert};
  kanrpc::RpcClientOptions options;
  options.attempts = 1;
  ASSERT_TRUE(
      kanrpc::TlsClientContext::Load({client_cert.cert, client_cert.key, pki.ca().cert, ""}, &options.tls).ok());
  kanrpc::RpcClient stats_client(server_.target(), options);
  const auto accepted = [&stats_client] {
    pdpb::StatsResponse stats;
    EXPECT_TRUE(stats_client.Call("Pd.Stats", pdpb::StatsRequest{}, &stats).ok());
    return stats.connections.accepted;
  };

  ProgramResult r;
  const auto run = [&](std::vector<std::string> args) {
    args.insert(args.end(), tls.begin(), tls.end());
    r = Bench(args);
    EXPECT_EQ(ExitCode(r), 0) << r.out << r.err;
    const json report = json::parse(r.out, nullptr, false);
    EXPECT_FALSE(report.is_discarded()) << r.out;
    return report;
  };
  json report = run({"--method", "mix", "--conns", "4", "--threads", "2", "--pipeline", "4", "--duration", "2s",
                     "--preload-regions", "2500", "--json"});
  EXPECT_EQ(report["errors"], 0) << report["messages"];
  EXPECT_EQ(report["wrong_answers"], 0) << report["messages"];
  EXPECT_EQ(report["tls"], true);
  EXPECT_EQ(report["reconnect"], false);
  EXPECT_EQ(report["preloaded_regions"], 2500);
  uint64_t sum = 0;
  for (const char* method : {"tso", "alloc-id", "get-region", "upsert-region", "heartbeat"}) {
    EXPECT_GT(report["per_method"][method]["requests"].get<uint64_t>(), 0u) << method;
    sum += report["per_method"][method]["requests"].get<uint64_t>();
  }
  EXPECT_EQ(sum, report["requests"].get<uint64_t>());
  EXPECT_LE(report["latency_ms"]["p999"].get<double>(), report["latency_ms"]["max"].get<double>());
  // Preload and progress go to standard error, once a second.
  EXPECT_NE(r.err.find("preloaded 2500 regions (ids "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("[   1s] "), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("errors 0  wrong answers 0\n"), std::string::npos) << r.err;
  // A handful, not one a call: the four load connections, the setup's
  // (which a refused probe makes two) and this client's own.
  const uint64_t kept = accepted();
  EXPECT_LE(kept, 10u);

  report = run({"--method", "tso", "--conns", "4", "--requests", "300", "--reconnect", "--json"});
  EXPECT_EQ(report["requests"], 300);
  EXPECT_EQ(report["errors"], 0) << report["messages"];
  EXPECT_EQ(report["wrong_answers"], 0) << report["messages"];
  EXPECT_EQ(report["reconnect"], true);
  EXPECT_GE(accepted() - kept, 300u);

  // The name checked is --tls-server-name's, not the address's.
  std::vector<std::string> args = {"--requests", "1", "--tls-server-name", "elsewhere"};
  args.insert(args.end(), tls.begin(), tls.end());
  r = Bench(args);
  EXPECT_EQ(ExitCode(r), 2);
  EXPECT_NE(r.err.find("kandb-meta-bench: setup failed: kanrpc tls: certificate verify failed"), std::string::npos)
      << r.err;
}

// Scans from keys inside the preloaded regions answer as many regions as
// asked or as are left, which the bench checks; a later run with as many
// regions keeps them instead of writing an overlapping set.
TEST_F(BenchTest, ScansOverPreloadedRegionsAndPreloadsKept) {
  ProgramResult r = Bench({"--method", "scan-regions", "--conns", "2", "--requests", "200", "--preload-regions", "300",
                           "--scan-limit", "50", "--json"});
  ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
  json report = json::parse(r.out, nullptr, false);
  EXPECT_EQ(report["requests"], 200);
  EXPECT_EQ(report["wrong_answers"], 0) << report["messages"];
  r = Bench({"--method", "get-region", "--requests", "100", "--preload-regions", "300"});
  ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
  EXPECT_NE(r.err.find("kept 300 regions preloaded before (ids 1024..1323)\n"), std::string::npos) << r.err;
  // 200 more, overlapping the 300: scans now answer what the check refuses.
  r = Bench({"--method", "scan-regions", "--requests", "20", "--preload-regions", "200"});
  EXPECT_NE(r.err.find("preloaded 200 regions"), std::string::npos) << r.err;
  EXPECT_EQ(ExitCode(r), 1) << r.out << r.err;
  EXPECT_EQ(r.out.find("wrong answers  0\n"), std::string::npos) << r.out;
}

// Windows of calls in flight, every answer checked in order: exactly the
// batches asked for are handed out, and upserts go through.
TEST_F(BenchTest, PipelinedCallsAreAnsweredInOrder) {
  ProgramResult r = Bench({"--method", "alloc-id", "--conns", "3", "--pipeline", "16", "--requests", "400", "--count",
                           "3", "--json"});
  ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
  json report = json::parse(r.out, nullptr, false);
  EXPECT_EQ(report["requests"], 400);
  EXPECT_EQ(report["pipeline"], 16);
  auto client = server_.NewClient();
  pdpb::AllocIdResponse next;
  ASSERT_TRUE(client->Call("Pd.AllocId", pdpb::AllocIdRequest{1}, &next).ok());
  EXPECT_EQ(next.first_id, 1024u + 400 * 3);
  for (const char* method : {"tso", "upsert-region"}) {
    r = Bench({"--method", method, "--conns", "2", "--pipeline", "8", "--requests", "300"});
    ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
    EXPECT_NE(r.out.find("connections, 8 calls in flight on each, "), std::string::npos) << r.out;
  }
}

// A real Redis: SET writes the keys and values redis-benchmark -r 100000
// -d 100 writes, PING and idle connections go through, and an error reply
// fails the calls in flight with its text.
TEST_F(BenchTest, RedisThroughTheSameClient) {
  const std::string port = std::to_string(testing::PickFreePort());
  testing::ChildProcess redis;
  ASSERT_TRUE(redis.Start({"/usr/bin/redis-server", "--port", port, "--bind", "127.0.0.1", "--save", "", "--appendonly", "no",
                           "--dir", dir_, "--daemonize", "no"}));
  ASSERT_TRUE(redis.WaitForOutput("Ready to accept connections", 20000)) << redis.Stdout();
  const auto bench = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {KANDB_META_BENCH_BINARY, "--addr", "127.0.0.1:" + port, "--redis", "--json"});
    return RunProgram(args, 60000);
  };
  const auto cli = [&](std::vector<std::string> args) {
    args.insert(args.begin(), {"/usr/bin/redis-cli", "-p", port});
    ProgramResult r = RunProgram(args);
    EXPECT_EQ(ExitCode(r), 0) << r.err;
    return r.out.substr(0, r.out.find('\n'));
  };

  ProgramResult r = bench({"--method", "set", "--conns", "2", "--pipeline", "8", "--requests", "500"});
  ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
  json report = json::parse(r.out, nullptr, false);
  EXPECT_EQ(report["requests"], 500);
  EXPECT_EQ(report["redis"], true);
  // Random keys among 100,000: a few of the 500 may repeat.
  const int keys = std::atoi(cli({"dbsize"}).c_str());
  EXPECT_LE(keys, 500);
  EXPECT_GE(keys, 480);
  const std::string key = cli({"randomkey"});
  EXPECT_EQ(key.size(), 16u) << key;
  EXPECT_EQ(key.find_first_not_of("0123456789", 4), std::string::npos) << key;
  EXPECT_EQ(cli({"get", key}), std::string(100, 'x'));

  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"--conns", "3", "--requests", "300"}, {"--method", "idle", "--conns", "20", "--duration", "1s"}}) {
    r = bench(args);
    ASSERT_EQ(ExitCode(r), 0) << r.out << r.err;
    report = json::parse(r.out, nullptr, false);
    EXPECT_EQ(report["requests"], args[1] == "idle" ? 20 : 300) << args[1];
  }

  cli({"config", "set", "requirepass", "secret"});
  r = bench({"--pipeline", "4", "--requests", "10"});
  EXPECT_EQ(ExitCode(r), 1) << r.out << r.err;
  report = json::parse(r.out, nullptr, false);
  EXPECT_EQ(report["errors"], 10);
  EXPECT_EQ(report["messages"][0], "ping: remote: NOAUTH Authentication required.");
}

TEST_F(BenchTest, BadCommandLinesAndAnUnreachableServerExitTwo) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--method", "scan"}, "kandb-meta-bench: unknown method 'scan'\n(see kandb-meta-bench --help)\n"},
      {{"--duration", "3h"}, "kandb-meta-bench: --duration: bad duration: '3h'\n(see kandb-meta-bench --help)\n"},
      {{"--duration", "1s", "--requests", "5"},
       "kandb-meta-bench: give --duration or --requests, not both\n(see kandb-meta-bench --help)\n"},
      {{"--conns", "0"}, "kandb-meta-bench: --conns must be at least 1\n(see kandb-meta-bench --help)\n"},
      {{"--value-bytes", "100", "--preload-regions", "10"},
       "kandb-meta-bench: --value-bytes pads the connections' own regions: give it without --preload-regions\n"
       "(see kandb-meta-bench --help)\n"},
      {{"--stores", "0"}, "kandb-meta-bench: --stores must be at least 1\n(see kandb-meta-bench --help)\n"},
      {{"--heartbeat-entries", "0"},
       "kandb-meta-bench: --heartbeat-entries must be at least 1\n(see kandb-meta-bench --help)\n"},
      {{"--heartbeat-entries", "10", "--stores", "3", "--preload-regions", "29"},
       "kandb-meta-bench: --heartbeat-entries 10 needs --preload-regions of at least 30 (entries x stores)\n"
       "(see kandb-meta-bench --help)\n"},
      {{"--redis", "--method", "tso"},
       "kandb-meta-bench: with --redis, --method is ping, set or idle\n(see kandb-meta-bench --help)\n"},
      {{"--method", "set"}, "kandb-meta-bench: --method set is a Redis command: give --redis\n"
                            "(see kandb-meta-bench --help)\n"},
      {{"--pipeline", "2", "--reconnect"},
       "kandb-meta-bench: --pipeline keeps calls in flight on one connection: give it without --reconnect\n"
       "(see kandb-meta-bench --help)\n"},
      {{"--method", "idle", "--requests", "5"},
       "kandb-meta-bench: --method idle holds its connections for --duration: give no --requests or --reconnect\n"
       "(see kandb-meta-bench --help)\n"},
      {{"--tls-cert", "client.pem"},
       "kandb-meta-bench: tls: a certificate needs its key, and a key its certificate\n"
       "(see kandb-meta-bench --help)\n"},
  };
  for (const auto& [args, message] : cases) {
    ProgramResult r = Bench(args);
    EXPECT_EQ(ExitCode(r), 2) << args[1];
    EXPECT_EQ(r.err, message);
  }
  server_.Kill();
  ProgramResult r = Bench({"--requests", "1"});
  EXPECT_EQ(ExitCode(r), 2);
  EXPECT_EQ(r.err, "kandb-meta-bench: setup failed: cannot connect to " + server_.target() + "\n");
}

}  // namespace
}  // namespace kandb::tools
