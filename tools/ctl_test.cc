// Runs kandb-meta-ctl against a live kandb-meta and checks what each
// subcommand prints, readable and as JSON, and how it exits.

#include <sys/wait.h>

#include <cstdlib>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/meta_server_test_util.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "rpc/client.h"

namespace kandb::tools {
namespace {

using ::kandb::testing::ExitCode;
using ::kandb::testing::MakeTempDir;
using ::kandb::testing::MetaServer;
using ::kandb::testing::ProgramResult;
using ::kandb::testing::RemoveTree;
using ::kandb::testing::RunProgram;
using ::kandb::testing::WriteFileOrDie;
using nlohmann::json;

class CtlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = MakeTempDir("ctl");
    ASSERT_TRUE(server_.Start(dir_ + "/pd"));
  }
  void TearDown() override {
    server_.Kill();
    RemoveTree(dir_);
  }

  ProgramResult Ctl(const std::string& sub, std::vector<std::string> args) {
    args.insert(args.begin(), {KANDB_META_CTL_BINARY, sub, "--addr", server_.target()});
    return RunProgram(args);
  }
  json CtlJson(const std::string& sub, std::vector<std::string> args) {
    args.push_back("--json");
    ProgramResult r = Ctl(sub, args);
    EXPECT_EQ(ExitCode(r), 0) << sub << ": " << r.err;
    return json::parse(r.out, nullptr, false);
  }
  void Bootstrap() {
    ProgramResult r = Ctl("bootstrap", {"--store-id", "1", "--store-address", "127.0.0.1:20160", "--region-id",
                                        "2", "--peer", "3:1"});
    ASSERT_EQ(ExitCode(r), 0) << r.err;
    EXPECT_EQ(r.out, "cluster bootstrapped: store 1, region 2 and 0 more regions\n");
  }

  std::string dir_;
  MetaServer server_;
};

TEST_F(CtlTest, RoutingBeforeBootstrapFailsWithTheServersTextAndStatusOne) {
  for (bool as_json : {false, true}) {
    std::vector<std::string> args = {"some-key"};
    if (as_json) args.push_back("--json");
    ProgramResult r = Ctl("get-region", args);
    EXPECT_EQ(ExitCode(r), 1);
    EXPECT_EQ(r.err, "remote: NotFound: cluster not bootstrapped\n");
    EXPECT_EQ(r.out, "");
  }
  // Nobody listens on the port of a killed server.
  server_.Kill();
  ProgramResult r = Ctl("tso", {"--attempts", "2"});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "cannot connect to " + server_.target() + "\n");
}

TEST_F(CtlTest, TimestampsAndIdentifiersReadableAndJson) {
  ProgramResult r = Ctl("tso", {"--count", "3"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  unsigned long long ts = 0, physical = 0, logical = 0;
  unsigned count = 0;
  char when[64];
  ASSERT_EQ(std::sscanf(r.out.c_str(), "timestamp %llu\nphysical  %llu ms (%63[^)])\nlogical   %llu\ncount     %u\n", &ts,
                        &physical, when, &logical, &count),
            5)
      << r.out;
  EXPECT_EQ(ts, (physical << 18) | logical);
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(std::string(when).size(), 24u) << when;  // 2024-01-02T03:04:05.678Z

  json later = CtlJson("tso", {});
  EXPECT_GT(later["timestamp"].get<uint64_t>(), ts + 2);
  EXPECT_EQ(later["timestamp"].get<uint64_t>(),
            (later["physical"].get<uint64_t>() << 18) | later["logical"].get<uint64_t>());
  EXPECT_EQ(later["count"], 1);

  // A fresh state directory starts identifiers at 1024.
  r = Ctl("alloc-id", {"--count", "5"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out, "first_id 1024\ncount    5\nlast_id  1028\n");
  EXPECT_EQ(CtlJson("alloc-id", {}), json::parse(R"({"first_id": 1029, "count": 1})"));
  WriteFileOrDie(dir_ + "/alloc.json", R"({"count": 2})");
  EXPECT_EQ(CtlJson("alloc-id", {"--request", dir_ + "/alloc.json"}),
            json::parse(R"({"first_id": 1030, "count": 2})"));

  // The common options may stand before the command, in either spelling.
  r = RunProgram({KANDB_META_CTL_BINARY, "--addr=" + server_.target(), "--json", "--timeout-ms", "2000", "alloc-id",
                  "--count", "2"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(json::parse(r.out, nullptr, false), json::parse(R"({"first_id": 1032, "count": 2})"));
}

TEST_F(CtlTest, BootstrapRouteUpsertAndHeartbeat) {
  Bootstrap();
  ProgramResult r = Ctl("bootstrap", {"--store-id", "4", "--store-address", "10.0.0.4:20160", "--region-id", "9"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out, "cluster already bootstrapped; store 4 registered\n");
  EXPECT_EQ(CtlJson("bootstrap", {"--store-id", "5", "--region-id", "9"}),
            json::parse(R"({"already_bootstrapped": true})"));

  r = Ctl("get-region", {"any\\x00key"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out,
            "region 2 [-inf, +inf) conf_version 1 version 1 peers 1\n"
            "  peer 3 store 1 role 0\n"
            "leader peer 3 store 1 role 0\n"
            "leader store 1 address \"127.0.0.1:20160\" state 0\n"
            "store 1 address \"127.0.0.1:20160\" state 0\n");

  // Split region 2 at the byte 0x80: one region by flags, one by document.
  r = Ctl("upsert-region", {"--region-id", "2", "--end-key", "\\x80", "--version", "2", "--peer", "3:1"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out, "upserted 1 regions, removed 0\n");
  WriteFileOrDie(dir_ + "/split.json", R"({"regions": [{"id": 10, "start_key": "\\x80",
      "epoch": {"conf_version": 1, "version": 2},
      "peers": [{"id": 11, "store_id": 4}, {"id": 12, "store_id": 1, "role": 1}]}]})");
  EXPECT_EQ(CtlJson("upsert-region", {"--request", dir_ + "/split.json"}), json::parse(R"({"message": ""})"));

  json routed = CtlJson("get-region", {"\\xff"});
  EXPECT_EQ(routed["region"]["id"], 10);
  EXPECT_EQ(routed["region"]["start_key"], "\\x80");
  EXPECT_EQ(routed["region"]["end_key"], "");
  EXPECT_EQ(routed["leader"], json::parse(R"({"id": 11, "store_id": 4, "role": 0})"));
  EXPECT_EQ(routed["leader_store"]["address"], "10.0.0.4:20160");
  EXPECT_EQ(routed["stores"].size(), 2u);
  r = Ctl("get-region", {"\\x7f"});
  EXPECT_EQ(r.out.substr(0, r.out.find('\n')), "region 2 [-inf, \"\\x80\") conf_version 1 version 2 peers 1");

  // The region reads: by id as get-region shows a region, and a range in
  // key order, a cut list naming where to go on.
  EXPECT_EQ(Ctl("region", {"--id", "10"}).out, Ctl("get-region", {"\\xff"}).out);
  EXPECT_EQ(CtlJson("region", {"--id", "10"}), routed);
  r = Ctl("region", {"--id", "77"});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "remote: NotFound: no region with id 77\n");
  r = Ctl("regions", {});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out,
            "region 2 [-inf, \"\\x80\") conf_version 1 version 2 peers 1 leader peer 3 store 1 role 0\n"
            "region 10 [\"\\x80\", +inf) conf_version 1 version 2 peers 2 leader peer 11 store 4 role 0\n"
            "2 regions\n");
  r = Ctl("regions", {"--limit", "1"});
  EXPECT_EQ(r.out.substr(r.out.find('\n') + 1), "1 regions; the limit was reached: continue with --start \"\\x80\"\n");
  json scanned = CtlJson("regions", {"--start", "\\x90", "--end", "\\xff"});
  EXPECT_EQ(scanned, json({{"regions", {{{"region", routed["region"]}, {"leader", routed["leader"]}}}}}));

  // Store 1 holds replicas of 2 and 10, and 77 has no record: nothing is stale.
  r = Ctl("heartbeat", {"--store-id", "1", "--region-id", "10", "--members", "4,1", "--caught-up-learners", "1",
                        "--check-regions", "2,10,77"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out, "PromoteLearner region 10 store 1\n");
  WriteFileOrDie(dir_ + "/hb.json", R"({"store_id": 5, "region_ids": [2, 10]})");
  EXPECT_EQ(CtlJson("heartbeat", {"--request", dir_ + "/hb.json"}),
            json::parse(R"({"commands": [
                {"kind": "DestroyStaleReplica", "region_id": 2, "store_id": 5, "address": ""},
                {"kind": "DestroyStaleReplica", "region_id": 10, "store_id": 5, "address": ""}]})"));
  r = Ctl("heartbeat", {"--store-id", "1"});
  EXPECT_EQ(r.out, "no commands\n");

  r = Ctl("upsert-region", {"--remove", "10"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out, "upserted 0 regions, removed 1\n");
  r = Ctl("get-region", {"\\xff"});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "remote: NotFound: no region covers key\n");
}

// Counted under the real load of the bench, read in the Prometheus form
// (that the form parses is the Prometheus and metric names tests': a real
// scrape, promtool), readable and as JSON.
TEST_F(CtlTest, StatsCountRealLoad) {
  ProgramResult r = RunProgram({KANDB_META_BENCH_BINARY, "--addr", server_.target(), "--method", "mix", "--conns",
                                "2", "--requests", "600", "--preload-regions", "50", "--json"},
                               120000);
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  const json bench = json::parse(r.out, nullptr, false);
  ASSERT_FALSE(bench.is_discarded()) << r.out;
  // One call the server cannot decode and one for a method it lacks.
  auto client = server_.NewClient();
  std::string answer;
  EXPECT_FALSE(client->CallRaw("Pd.Tso", "abc", &answer).ok());
  EXPECT_FALSE(client->CallRaw("Pd.Nothing", "", &answer).ok());

  r = Ctl("stats", {"--prometheus"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  const std::string text = r.out;
  // The value of a sample, its labels as written; -1 when there is none.
  auto m = [&text](const std::string& series) {
    const size_t at = text.find("\n" + series + " ");
    return at == std::string::npos ? -1 : std::strtod(text.c_str() + at + series.size() + 2, nullptr);
  };
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) EXPECT_EQ(line.find("kandb_meta_"), line[0] == '#' ? 7u : 0u);
  for (const char* type : {"requests_total counter", "request_duration_seconds histogram", "connections_open gauge"}) {
    EXPECT_NE(text.find(std::string("\n# TYPE kandb_meta_") + type + "\n"), std::string::npos) << type;
  }

  // Every call of the load was counted under its method, with its latency.
  const std::pair<const char*, const char*> methods[] = {{"tso", "Pd.Tso"},
                                                         {"alloc-id", "Pd.AllocId"},
                                                         {"get-region", "Pd.GetRegion"},
                                                         {"upsert-region", "Pd.UpsertRegion"},
                                                         {"heartbeat", "Pd.RegionHeartbeat"}};
  for (const auto& [bench_name, method] : methods) {
    SCOPED_TRACE(method);
    const std::string label = std::string("{method=\"") + method + "\"";
    const double requests = m("kandb_meta_requests_total" + label + "}");
    EXPECT_GE(requests, bench["per_method"][bench_name]["requests"].get<double>());
    EXPECT_EQ(m("kandb_meta_request_duration_seconds_count" + label + "}"), requests);
    EXPECT_EQ(m("kandb_meta_request_duration_seconds_bucket" + label + ",le=\"+Inf\"}"), requests);
    EXPECT_GT(m("kandb_meta_request_duration_seconds_sum" + label + "}"), 0);
  }
  EXPECT_EQ(m("kandb_meta_request_errors_total{method=\"Pd.Tso\",code=\"InvalidArgument\"}"), 1);
  EXPECT_EQ(m("kandb_meta_unknown_method_requests_total"), 1);
  EXPECT_GE(m("kandb_meta_connections_accepted_total"), 4);  // bench, client, ctl
  EXPECT_GE(m("kandb_meta_connections_open"), 1);

  // The writes went through the engine in groups, one fdatasync each.
  EXPECT_EQ(m("kandb_meta_engine_present"), 1);
  const double groups = m("kandb_meta_engine_write_groups_total");
  EXPECT_GE(m("kandb_meta_engine_batches_total"), bench["per_method"]["upsert-region"]["requests"].get<double>());
  EXPECT_GE(m("kandb_meta_engine_batches_total"), groups);
  EXPECT_EQ(m("kandb_meta_engine_syncs_total"), groups);
  EXPECT_EQ(m("kandb_meta_engine_sync_duration_seconds_count"), groups);
  EXPECT_GT(m("kandb_meta_engine_log_written_bytes_total"), 0);
  EXPECT_GT(m("kandb_meta_engine_memtable_bytes"), 0);
  EXPECT_EQ(m("kandb_meta_engine_faults_total{kind=\"disk_full\"}"), 0);

  // The preloaded regions are a clean partition: the index answered.
  EXPECT_GE(m("kandb_meta_routing_index_regions"), 50);
  EXPECT_GE(m("kandb_meta_routing_lookups_total{answered_by=\"index\"}"),
            bench["per_method"]["get-region"]["requests"].get<double>());

  const json stats = CtlJson("stats", {});
  EXPECT_EQ(stats["has_engine"], true);
  EXPECT_EQ(stats["unknown_method_requests"], 1);
  r = Ctl("stats", {});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_NE(r.out.find("\nerrors of Pd.Tso: InvalidArgument 1\n"), std::string::npos) << r.out;
}

// The store commands against a live server: a store heartbeat sent here
// makes store 4 Up with its labels; the list, one store, and its removal
// (Tombstone at once: no region has a peer on it), with the server's own
// error text for a store it does not know. The lines and pages themselves
// are the tools library's tests', the JSON the status port's.
TEST_F(CtlTest, StoresListShowAndRemove) {
  Bootstrap();
  kanrpc::RpcClient client(server_.target(), kanrpc::RpcClientOptions{2000, 1});
  pdpb::StoreHeartbeatRequest hb;
  hb.store.id = 4;
  hb.store.address = "127.0.0.1:20164";
  hb.store.labels = {{"zone", "z1"}, {"host", "h4"}};
  hb.stats.capacity = 100 << 20;
  hb.stats.available = 80 << 20;
  pdpb::StoreHeartbeatResponse state;
  ASSERT_TRUE(client.Call("Pd.StoreHeartbeat", hb, &state).ok());

  ProgramResult r = Ctl("stores", {});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_NE(r.out.find("\nstore 4 up address \"127.0.0.1:20164\" labels zone=z1,host=h4 replicas 0"),
            std::string::npos)
      << r.out;
  r = Ctl("store", {"4"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_NE(r.out.find("labels           zone=z1,host=h4\n"), std::string::npos) << r.out;
  r = Ctl("store", {"remove", "4"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out, "store 4 tombstone: removed, it held no replica\n");
  r = Ctl("store", {"9"});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "remote: NotFound: store 9 not found\n");
}

// GC safe points through the tool: none at first; two services listed in
// id order with the lower one as the GC safe point; a lower update refused
// with the current values and exit status 0; JSON with escaped ids.
TEST_F(CtlTest, SafePointListSetAndRefusal) {
  ProgramResult r = Ctl("safe-point", {});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out, "gc safe point 0\nno service holds it back\n");
  const std::string ts = std::to_string(uint64_t{1'700'000'000'000} << 18);  // 2023-11-14T22:13:20.000Z
  r = Ctl("safe-point", {"set", "gc_worker", "600", ts});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out.rfind("service \"gc_worker\" safe point " + ts + " (2023-11-14T22:13:20.000Z) expires in ", 0), 0u)
      << r.out;
  EXPECT_NE(r.out.find("\ngc safe point " + ts + " (2023-11-14T22:13:20.000Z)\n"), std::string::npos) << r.out;
  ASSERT_EQ(ExitCode(Ctl("safe-point", {"set", "backup\\x01", "3600", "12345678901234567890"})), 0);

  r = Ctl("safe-point", {"set", "gc_worker", "600", "100"});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out.rfind("refused: below the service's safe point or the gc safe point\nservice \"gc_worker\" safe point " + ts, 0),
            0u)
      << r.out;
  r = Ctl("safe-point", {});
  ASSERT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.out.rfind("gc safe point " + ts + " (2023-11-14T22:13:20.000Z)\nservice \"backup\\x01\" safe point "
                        "12345678901234567890 (",
                        0),
            0u)
      << r.out;
  EXPECT_NE(r.out.find("\nservice \"gc_worker\" safe point " + ts), std::string::npos) << r.out;
  json all = CtlJson("safe-point", {});
  EXPECT_EQ(all["safe_point"].get<uint64_t>(), uint64_t{1'700'000'000'000} << 18);
  ASSERT_EQ(all["services"].size(), 2u);
  EXPECT_EQ(all["services"][0]["service_id"], "backup\\x01");
  r = Ctl("safe-point", {"set", "", "1", "1"});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "remote: InvalidArgument: safe point: service id is empty\n");
}

TEST_F(CtlTest, BadCommandLinesAndDocumentsExitTwoWithoutCallingTheServer) {
  WriteFileOrDie(dir_ + "/bad.json", R"({"regions": [{"id": 1, "peers": [{"store": 1}]}]})");
  WriteFileOrDie(dir_ + "/broken.json", R"({"regions": [)");
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"tso", "--count", "x"}, "kandb-meta-ctl tso: --count: not a number: 'x'\n"},
      {{"tso", "--bogus"}, "kandb-meta-ctl tso: unknown option --bogus\n"},
      {{"get-region"}, "kandb-meta-ctl get-region: missing KEY\n"},
      {{"get-region", "a\\qb"}, "kandb-meta-ctl get-region: KEY: bad escape at offset 1\n"},
      {{"bootstrap", "--region-id", "2"}, "kandb-meta-ctl bootstrap: --store-id is required (or --request)\n"},
      {{"bootstrap", "--store-id", "1", "--region-id", "2", "--peer", "3"},
       "kandb-meta-ctl bootstrap: --peer: expected ID:STORE[:ROLE], got '3'\n"},
      {{"upsert-region"}, "kandb-meta-ctl upsert-region: nothing to do: give --region-id, --remove or --request\n"},
      {{"upsert-region", "--request", dir_ + "/bad.json"},
       "kandb-meta-ctl upsert-region: " + dir_ + "/bad.json: regions[0].peers[0].store: unknown field\n"},
      {{"upsert-region", "--request", dir_ + "/bad.json", "--remove", "3"},
       "kandb-meta-ctl upsert-region: --remove cannot be combined with --request\n"},
      {{"heartbeat", "--request", dir_ + "/missing.json"},
       "kandb-meta-ctl heartbeat: cannot read " + dir_ + "/missing.json: No such file or directory\n"},
      {{"stats", "--watch", "1s", "--prometheus"},
       "kandb-meta-ctl stats: --watch cannot be combined with --json or --prometheus\n"},
      {{"stats", "--watch", "0s"}, "kandb-meta-ctl stats: --watch: the interval must be positive\n"},
      {{"stores", "7"}, "kandb-meta-ctl stores: unexpected argument '7'\n"},
      {{"store"}, "kandb-meta-ctl store: missing ID\n"},
      {{"store", "--json", "remove"}, "kandb-meta-ctl store: missing ID\n"},
      {{"store", "x7"}, "kandb-meta-ctl store: ID: not a number: 'x7'\n"},
      {{"store", "5", "remove"}, "kandb-meta-ctl store: unexpected argument 'remove'\n"},
      {{"store", "remove", "5", "6"}, "kandb-meta-ctl store: unexpected argument '6'\n"},
      {{"region"}, "kandb-meta-ctl region: --id is required (or --request)\n"},
      {{"regions", "--start", "a\\qb"}, "kandb-meta-ctl regions: --start: bad escape at offset 1\n"},
      {{"regions", "--limit", "4294967296"},
       "kandb-meta-ctl regions: --limit: out of range (max 4294967295): '4294967296'\n"},
      {{"safe-point", "get"}, "kandb-meta-ctl safe-point: unexpected argument 'get'\n"},
      {{"safe-point", "set", "gc", "60"}, "kandb-meta-ctl safe-point: set needs SERVICE TTL_S SAFE_POINT\n"},
      {{"safe-point", "set", "gc", "60", "-1"}, "kandb-meta-ctl safe-point: SAFE_POINT: not a number: '-1'\n"},
  };
  for (const auto& [args, message] : cases) {
    ProgramResult r = Ctl(args[0], std::vector<std::string>(args.begin() + 1, args.end()));
    EXPECT_EQ(ExitCode(r), 2) << args[0];
    EXPECT_EQ(r.err, message + "(see kandb-meta-ctl " + args[0] + " --help)\n");
    EXPECT_EQ(r.out, "");
  }
  ProgramResult r = Ctl("upsert-region", {"--request", dir_ + "/broken.json"});
  EXPECT_EQ(ExitCode(r), 2);
  EXPECT_NE(r.err.find(dir_ + "/broken.json: bad JSON: "), std::string::npos) << r.err;

  // Before the command: only the common options; each is still checked by
  // the command's parser, as if typed after it.
  const std::pair<std::vector<std::string>, std::string> leading[] = {
      {{"frobnicate"}, "kandb-meta-ctl: unknown command 'frobnicate'\n(see kandb-meta-ctl --help)\n"},
      {{"--addr", "h:1", "--count", "3", "tso"}, "kandb-meta-ctl: unknown command '--count'\n(see kandb-meta-ctl --help)\n"},
      {{"--json", "--addr"}, "kandb-meta-ctl: --addr needs a value\n(see kandb-meta-ctl --help)\n"},
      {{"--timeout-ms", "soon", "tso"},
       "kandb-meta-ctl tso: --timeout-ms: not a number: 'soon'\n(see kandb-meta-ctl tso --help)\n"},
      {{"--addr", "h:1", "tso", "--addr", "h:2"},
       "kandb-meta-ctl tso: --addr given twice\n(see kandb-meta-ctl tso --help)\n"},
  };
  for (const auto& [args, message] : leading) {
    std::vector<std::string> argv = {KANDB_META_CTL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    r = RunProgram(argv);
    EXPECT_EQ(ExitCode(r), 2) << args[0];
    EXPECT_EQ(r.err, message);
  }
  r = RunProgram({KANDB_META_CTL_BINARY, "--addr", "h:1"});
  EXPECT_EQ(ExitCode(r), 2);
  EXPECT_EQ(r.err.rfind("usage: kandb-meta-ctl COMMAND [options]\n", 0), 0u) << r.err;
  // Nothing above reached the server: it was never bootstrapped.
  EXPECT_EQ(Ctl("get-region", {"a"}).err, "remote: NotFound: cluster not bootstrapped\n");
}

TEST(CtlHelpTest, EverySubcommandHasHelp) {
  for (const char* sub :
       {"tso", "alloc-id", "bootstrap", "get-region", "upsert-region", "heartbeat", "stores", "store", "stats",
        "region", "regions", "safe-point"}) {
    ProgramResult help = RunProgram({KANDB_META_CTL_BINARY, sub, "--help"});
    EXPECT_EQ(ExitCode(help), 0) << sub;
    EXPECT_EQ(help.out.rfind(std::string("usage: kandb-meta-ctl ") + sub + " [options]", 0), 0u) << help.out;
    EXPECT_NE(help.out.find("--json"), std::string::npos) << sub;
  }
  ProgramResult help = RunProgram({KANDB_META_CTL_BINARY, "store", "--help"});
  EXPECT_EQ(help.out.substr(0, help.out.find('\n')), "usage: kandb-meta-ctl store [options] [remove] ID");
}

}  // namespace
}  // namespace kandb::tools
