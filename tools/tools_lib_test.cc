// The shared pieces of the tools with logic of their own: key escaping,
// number and duration limits, the strict JSON mapping of the messages and
// the latency histogram, the Redis protocol. Option parsing is checked
// through the programs.

#include <gtest/gtest.h>

#include "tools/command_line.h"
#include "tools/json_messages.h"
#include "tools/latency.h"
#include "tools/resp.h"
#include "tools/stats_view.h"
#include "tools/store_view.h"
#include "tools/text.h"

namespace kandb::tools {
namespace {

using nlohmann::json;

TEST(TextTest, EscapingRoundTripsEveryByteAndNamesTheBadOffset) {
  EXPECT_EQ(EscapeBytes("pd/region/7"), "pd/region/7");
  EXPECT_EQ(EscapeBytes(std::string("a\0b\\\n\x7f\xff", 7)), "a\\x00b\\\\\\x0a\\x7f\\xff");
  std::string all, back;
  for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
  ASSERT_TRUE(UnescapeBytes(EscapeBytes(all), &back).ok());
  EXPECT_EQ(back, all);
  ASSERT_TRUE(UnescapeBytes("\\xFF\\x41", &back).ok());
  EXPECT_EQ(back, "\xff" "A");
  for (const char* bad : {"ab\\", "ab\\x4", "ab\\xg0", "ab\\n"}) {
    std::string out = "kept";
    EXPECT_EQ(UnescapeBytes(bad, &out).ToString(), "InvalidArgument: bad escape at offset 2") << bad;
    EXPECT_EQ(out, "kept");
  }
}

TEST(TextTest, NumberAndDurationLimits) {
  uint64_t v = 0;
  EXPECT_TRUE(ParseUint("18446744073709551615", UINT64_MAX, &v).ok());
  EXPECT_EQ(v, UINT64_MAX);
  EXPECT_EQ(ParseUint("18446744073709551616", UINT64_MAX, &v).message(),
            "out of range (max 18446744073709551615): '18446744073709551616'");
  for (const char* bad : {"", "-1", " 1", "0x10"}) {
    EXPECT_EQ(ParseUint(bad, UINT64_MAX, &v).message(), "not a number: '" + std::string(bad) + "'");
  }
  std::vector<uint64_t> list;
  EXPECT_FALSE(ParseUintList("1,,2", &list).ok());
  int64_t ms = 0;
  for (auto [text, want] : {std::pair<const char*, int64_t>{"500ms", 500}, {"2m", 120000}, {"7", 7000}}) {
    ASSERT_TRUE(ParseDurationMillis(text, &ms).ok()) << text;
    EXPECT_EQ(ms, want) << text;
  }
  for (const char* bad : {"s", "1.5s", "-1s"}) {
    EXPECT_EQ(ParseDurationMillis(bad, &ms).message(), "bad duration: '" + std::string(bad) + "'");
  }
  EXPECT_EQ(FormatUtcMillis(1700000000123), "2023-11-14T22:13:20.123Z");
}

TEST(TextTest, HumanUnitsStepAtEachBinaryPrefixAndWholeSeconds) {
  const std::pair<double, const char*> sizes[] = {
      {0, "0 B"},           {1023, "1023 B"},       {1024, "1.0 KiB"},
      {1536, "1.5 KiB"},    {1048576, "1.0 MiB"},   {1073741824.0 * 80, "80.0 GiB"},
      {1099511627776.0 * 3.5, "3.5 TiB"},
  };
  for (const auto& [bytes, text] : sizes) EXPECT_EQ(FormatBytes(bytes), text) << bytes;
  EXPECT_EQ(FormatElapsed(999), "0s");
  EXPECT_EQ(FormatElapsed(59999), "59s");
  EXPECT_EQ(FormatElapsed(125000), "2m05s");
  EXPECT_EQ(FormatElapsed(3723000), "1h02m03s");
  EXPECT_EQ(FormatElapsed(100 * 3600000ULL), "100h00m00s");
}

TEST(JsonMessagesTest, RequestsRoundTripWithEscapedKeys) {
  pdpb::BootstrapRequest request;
  request.store = {1, "127.0.0.1:20160", 2};
  request.region = {2, std::string("a\0\xff", 3), "z\\", {3, 4}, {{5, 1, 1}, {6, 7, 0}}};
  request.extra_regions.push_back(pdpb::Region{9, "z\\", "", {1, 1}, {}});
  const json doc = ToJson(request);
  EXPECT_EQ(doc["region"]["start_key"], "a\\x00\\xff");
  pdpb::BootstrapRequest back;
  Status s = FromJson(json::parse(doc.dump()), &back);
  ASSERT_TRUE(s.ok()) << s.ToString();
  EXPECT_EQ(back, request);

  // A store record with what its store heartbeats added survives too.
  request.store.labels = {{"zone", "z\x01"}, {"host", "h1"}};
  request.store.node_state = pdpb::kNodeOffline;
  request.store.first_heartbeat_ms = 1700000000123;
  pdpb::BootstrapRequest labelled;
  s = FromJson(json::parse(ToJson(request).dump()), &labelled);
  ASSERT_TRUE(s.ok()) << s.ToString();
  EXPECT_EQ(labelled, request);

  pdpb::RegionHeartbeatRequest heartbeat{4, {{9, {4, 6}, {5}, {6}}}, {7, 8}, {2, 3}};
  pdpb::RegionHeartbeatRequest heartbeat_back;
  ASSERT_TRUE(FromJson(json::parse(ToJson(heartbeat).dump()), &heartbeat_back).ok());
  EXPECT_EQ(heartbeat_back, heartbeat);
}

TEST(JsonMessagesTest, StrictReadingNamesTheFieldPath) {
  const std::pair<const char*, std::string> cases[] = {
      {R"({"region": {"peers": [{"id": 1, "store_id": -1}]}})",
       "region.peers[0].store_id: expected an integer in [0, 18446744073709551615]"},
      {R"({"region": {"peers": [{"role": 256}]}})", "region.peers[0].role: expected an integer in [0, 255]"},
      {R"({"store": {"address": 7}})", "store.address: expected a string"},
      {R"({"store": {"address": "a\\q"}})", "store.address: bad escape at offset 1"},
      {R"({"region": {"epoch": {"version": 1.5}}})", "region.epoch.version: expected an integer in [0, 18446744073709551615]"},
      {R"({"extra_regions": {}})", "extra_regions: expected an array"},
      {R"({"region": {"id": 1, "peer": []}})", "region.peer: unknown field"},
      {R"([1])", "request: expected an object"},
      {R"({"store": {"labels": [{"key": "zone", "val": "z1"}]}})", "store.labels[0].val: unknown field"},
      {R"({"store": {"node_state": "gone"}})",
       "store.node_state: expected one of serving, offline, tombstone or an integer in [0, 255]"},
      {R"({"store": {"node_state": 256}})",
       "store.node_state: expected one of serving, offline, tombstone or an integer in [0, 255]"},
  };
  for (const auto& [text, message] : cases) {
    pdpb::BootstrapRequest request;
    EXPECT_EQ(FromJson(json::parse(text), &request).ToString(), "InvalidArgument: " + message) << text;
  }
  pdpb::TsoRequest tso;
  EXPECT_EQ(FromJson(json::parse(R"({"count": 4294967296})"), &tso).message(),
            "count: expected an integer in [0, 4294967295]");
  // Unknown command kinds stay numbers.
  const json doc = ToJson(pdpb::RegionHeartbeatResponse{{{pdpb::kAddPeer, 9, 10, "h:1"}, {77, 1, 2, ""}}});
  EXPECT_EQ(doc["commands"][0]["kind"], "AddPeer");
  EXPECT_EQ(doc["commands"][1]["kind"], 77u);
}

// A server on etcd (no engine) with one method, stores in every state and
// some repairs under way.
pdpb::StatsResponse SchedulingStatsFixture() {
  pdpb::StatsResponse s;
  s.uptime_ms = 3723000;
  s.connections = {2, 9, 0};
  pdpb::MethodStats tso;
  tso.method = "Pd.Tso";
  tso.requests = 4;
  tso.latency = {{16, 32}, {3, 1, 0}, 4, 40000};
  s.methods.push_back(tso);
  s.routing = {5, 7, 1};
  s.scheduling = {1, 3, 2, 1, 1, 4, 6, 2, 1, 10, 20, 30, 40, 50};
  return s;
}

TEST(StatsViewTest, SchedulingSectionOfTheReadablePage) {
  EXPECT_EQ(StatsText(SchedulingStatsFixture()),
            "uptime        1h02m03s\n"
            "connections   open 2, accepted 9, failed accepts 0\n"
            "\n"
            "method                   requests   errors      mean       p50       p99\n"
            "Pd.Tso                          4        0    10.0us  <=16.0us  <=32.0us\n"
            "(unknown methods)               0\n"
            "\n"
            "engine        none of its own (the store lies on etcd)\n"
            "routing       5 regions in the index; lookups by index 7, by walk 1\n"
            "stores        up 3, disconnected 2, down 1, offline 1, tombstone 4, unknown 1\n"
            "regions       6 missing a replica, 2 on a down store, 1 on an offline store\n"
            "scheduled     promote learner 10, add peer 20, remove peer 30, destroy stale replica 40, "
            "transfer leader 50\n");
}

TEST(StatsViewTest, SchedulingRatesShowStateNowAndCommandsPerSecond) {
  pdpb::StatsResponse before = SchedulingStatsFixture();
  pdpb::StatsResponse now = before;
  now.uptime_ms += 2000;
  now.scheduling.stores_up = 4;
  now.scheduling.add_peer += 3;
  now.scheduling.transfer_leader += 1;
  const std::string page = StatsRates(before, now);
  const std::string tail = page.substr(page.find("\nstores ") + 1);
  EXPECT_EQ(tail,
            "stores        up 4, disconnected 2, down 1, offline 1, tombstone 4, unknown 1\n"
            "regions       6 missing a replica, 2 on a down store, 1 on an offline store\n"
            "scheduled     promote learner 0.0/s, add peer 1.5/s, remove peer 0.0/s, "
            "destroy stale replica 0.0/s, transfer leader 0.5/s\n");
}

TEST(StatsViewTest, SchedulingFamiliesInThePrometheusForm) {
  const std::string text = StatsPrometheus(SchedulingStatsFixture());
  ASSERT_NE(text.find("\n# HELP kandb_meta_stores "), std::string::npos) << text;
  EXPECT_EQ(text.substr(text.find("\n# HELP kandb_meta_stores ") + 1),
            "# HELP kandb_meta_stores Stores by the state the scheduler sees them in.\n"
            "# TYPE kandb_meta_stores gauge\n"
            "kandb_meta_stores{state=\"up\"} 3\n"
            "kandb_meta_stores{state=\"disconnected\"} 2\n"
            "kandb_meta_stores{state=\"down\"} 1\n"
            "kandb_meta_stores{state=\"offline\"} 1\n"
            "kandb_meta_stores{state=\"tombstone\"} 4\n"
            "kandb_meta_stores{state=\"unknown\"} 1\n"
            "# HELP kandb_meta_regions_missing_replica Regions with fewer members than the replica target, "
            "as their leaders last reported them.\n"
            "# TYPE kandb_meta_regions_missing_replica gauge\n"
            "kandb_meta_regions_missing_replica 6\n"
            "# HELP kandb_meta_regions_on_down_store Regions with a member on a down store.\n"
            "# TYPE kandb_meta_regions_on_down_store gauge\n"
            "kandb_meta_regions_on_down_store 2\n"
            "# HELP kandb_meta_regions_on_offline_store Regions with a member on an offline store.\n"
            "# TYPE kandb_meta_regions_on_offline_store gauge\n"
            "kandb_meta_regions_on_offline_store 1\n"
            "# HELP kandb_meta_schedule_commands_total Scheduling commands issued in heartbeat answers, by kind.\n"
            "# TYPE kandb_meta_schedule_commands_total counter\n"
            "kandb_meta_schedule_commands_total{kind=\"promote_learner\"} 10\n"
            "kandb_meta_schedule_commands_total{kind=\"add_peer\"} 20\n"
            "kandb_meta_schedule_commands_total{kind=\"remove_peer\"} 30\n"
            "kandb_meta_schedule_commands_total{kind=\"destroy_stale_replica\"} 40\n"
            "kandb_meta_schedule_commands_total{kind=\"transfer_leader\"} 50\n");
}

TEST(StatsViewTest, SchedulingInTheJsonForm) {
  const json doc = ToJson(SchedulingStatsFixture());
  EXPECT_EQ(doc["scheduling"], json::parse(R"({"stores_unknown": 1, "stores_up": 3, "stores_disconnected": 2,
      "stores_down": 1, "stores_offline": 1, "stores_tombstone": 4, "regions_missing_replica": 6,
      "regions_on_down_store": 2, "regions_on_offline_store": 1, "promote_learner": 10, "add_peer": 20,
      "remove_peer": 30, "destroy_stale_replica": 40, "transfer_leader": 50})"));
  EXPECT_FALSE(doc.contains("engine"));
}

TEST(JsonMessagesTest, StoresWithStatesByNameAndTheirLoad) {
  pdpb::StoreInfo info;
  info.store = {7, "10.0.0.7:20160", 0, {{"zone", "z1"}}, pdpb::kNodeOffline, 1700000000000};
  info.state = pdpb::kStoreOffline;
  info.stats = {1000, 400, 600, 12, 5, 1, 2};
  info.last_heartbeat_ms = 1700000005000;
  info.replicas = 11;
  const json expected = json::parse(R"({
      "store": {"id": 7, "address": "10.0.0.7:20160", "state": 0, "labels": [{"key": "zone", "value": "z1"}],
                "node_state": "offline", "first_heartbeat_ms": 1700000000000},
      "state": "offline",
      "stats": {"capacity": 1000, "available": 400, "used_size": 600, "region_count": 12, "leader_count": 5,
                "sending_snap_count": 1, "receiving_snap_count": 2},
      "last_heartbeat_ms": 1700000005000,
      "replicas": 11})");
  EXPECT_EQ(ToJson(pdpb::GetStoreResponse{info}), json({{"store", expected}}));

  // States without a name stay numbers.
  pdpb::StoreInfo odd;
  odd.state = 9;
  odd.store.node_state = 7;
  const json all = ToJson(pdpb::GetAllStoresResponse{{info, odd}});
  ASSERT_EQ(all["stores"].size(), 2u);
  EXPECT_EQ(all["stores"][0], expected);
  EXPECT_EQ(all["stores"][1]["state"], 9);
  EXPECT_EQ(all["stores"][1]["store"]["node_state"], 7);
  EXPECT_EQ(all["stores"][1]["store"]["labels"], json::array());
  EXPECT_EQ(ToJson(pdpb::GetAllStoresResponse{}), json::parse(R"({"stores": []})"));
  EXPECT_EQ(ToJson(pdpb::RemoveStoreResponse{pdpb::kStoreTombstone}), json::parse(R"({"state": "tombstone"})"));
}

// Two stores: one that reports (a minute and a half ago, by `kNow`), one
// known only from its record.
constexpr uint64_t kNow = 1700000090000;

pdpb::StoreInfo ReportingStore() {
  pdpb::StoreInfo info;
  info.store = {1, "127.0.0.1:20160", 0, {{"zone", "z1"}, {"host", "h\x01"}}, pdpb::kNodeServing, 1700000000123};
  info.state = pdpb::kStoreDisconnected;
  info.stats = {100ULL << 30, 80ULL << 30, 20ULL << 30, 12, 4, 1, 0};
  info.last_heartbeat_ms = kNow - 90000;
  info.replicas = 11;
  return info;
}

pdpb::StoreInfo SilentStore() {
  pdpb::StoreInfo info;
  info.store = {4, "10.0.0.4:20160", 0, {}, pdpb::kNodeOffline, 0};
  info.state = pdpb::kStoreOffline;
  info.replicas = 2;
  return info;
}

TEST(StoreViewTest, OneLinePerStore) {
  EXPECT_EQ(StoreLine(ReportingStore(), kNow),
            "store 1 disconnected address \"127.0.0.1:20160\" labels zone=z1,host=h\\x01 replicas 11 regions 12 "
            "leaders 4 available 80.0 GiB/100.0 GiB heartbeat 1m30s ago");
  EXPECT_EQ(StoreLine(SilentStore(), kNow),
            "store 4 offline address \"10.0.0.4:20160\" labels - replicas 2 regions - leaders - available - "
            "heartbeat none");
  // A heartbeat stamped ahead of the reader's clock is not a negative age.
  const std::string early = StoreLine(ReportingStore(), kNow - 100000);
  EXPECT_EQ(early.substr(early.rfind(" heartbeat ")), " heartbeat 0s ago");
  for (auto [state, text] : {std::pair<uint8_t, const char*>{pdpb::kStoreUnknown, "unknown"},
                             {pdpb::kStoreUp, "up"},
                             {pdpb::kStoreDown, "down"},
                             {pdpb::kStoreTombstone, "tombstone"},
                             {6, "state 6"}}) {
    EXPECT_EQ(StoreStateText(state), text);
  }
}

TEST(StoreViewTest, PageOfOneStore) {
  EXPECT_EQ(StorePage(ReportingStore(), kNow),
            "store            1\n"
            "state            disconnected\n"
            "address          \"127.0.0.1:20160\"\n"
            "labels           zone=z1,host=h\\x01\n"
            "node state       serving\n"
            "replicas         11 in region records\n"
            "regions          12 reported, leading 4\n"
            "capacity         100.0 GiB (107374182400 bytes)\n"
            "available        80.0 GiB (85899345920 bytes)\n"
            "used             20.0 GiB (21474836480 bytes)\n"
            "snapshots        sending 1, receiving 0\n"
            "first heartbeat  2023-11-14T22:13:20.123Z\n"
            "last heartbeat   2023-11-14T22:13:20.000Z, 1m30s ago\n");
  EXPECT_EQ(StorePage(SilentStore(), kNow),
            "store            4\n"
            "state            offline\n"
            "address          \"10.0.0.4:20160\"\n"
            "labels           -\n"
            "node state       offline\n"
            "replicas         2 in region records\n"
            "load             not reported to this server\n"
            "first heartbeat  none\n"
            "last heartbeat   none since this server took over\n");
}

TEST(LatencyHistogramTest, PercentilesStayWithinTheBucketPrecision) {
  LatencyHistogram h;
  EXPECT_EQ(h.Percentile(0.5), 0u);
  for (uint64_t v = 1; v <= 100000; ++v) h.Record(v * 1000);  // 1 us .. 100 ms
  for (double p : {0.5, 0.9, 0.99, 0.999}) {
    const double exact = p * 100000 * 1000;
    const double got = static_cast<double>(h.Percentile(p));
    EXPECT_GE(got, exact) << p;
    EXPECT_LE(got, exact * (1 + 1.0 / 64) + 1) << p;
  }
  EXPECT_EQ(h.Percentile(1.0), 100000000u);

  LatencyHistogram small, other;
  for (uint64_t v : {3, 3, 9}) small.Record(v);
  other.Record(40);
  small.Merge(other);
  EXPECT_EQ(small.count(), 4u);
  EXPECT_EQ(small.Percentile(0.75), 9u);
  EXPECT_EQ(small.max(), 40u);
}

// The bytes a command goes out as, and replies taken from a buffer as
// they arrive: split anywhere, several at once, errors with their text.
TEST(RespTest, CommandsAndRepliesInPiecesOrTogether) {
  using namespace std::string_literals;
  std::string out;
  resp::AppendCommand(&out, {"PING"});
  resp::AppendCommand(&out, {"SET", "key:000000000042", "v\r\n\0"s});
  EXPECT_EQ(out, "*1\r\n$4\r\nPING\r\n*3\r\n$3\r\nSET\r\n$16\r\nkey:000000000042\r\n$4\r\nv\r\n\0\r\n"s);

  const std::string stream =
      "+PONG\r\n-ERR wrong number of arguments for 'set' command\r\n:-12\r\n$5\r\na\r\nbc\r\n$-1\r\n+OK\r\n";
  const std::vector<resp::Reply> want = {{'+', "PONG", false},
                                         {'-', "ERR wrong number of arguments for 'set' command", false},
                                         {':', "-12", false},
                                         {'$', "a\r\nbc", false},
                                         {'$', "", true},
                                         {'+', "OK", false}};
  // Every prefix short of a whole reply asks for more and consumes nothing.
  size_t at = 0;
  for (const resp::Reply& w : want) {
    resp::Reply reply;
    size_t size = 0;
    size_t end = at;
    for (; size == 0; ++end) {
      ASSERT_LE(end, stream.size());
      ASSERT_TRUE(resp::ParseReply(std::string_view(stream).substr(at, end - at), &reply, &size).ok());
    }
    EXPECT_EQ(at + size, end - 1) << w.text;
    EXPECT_EQ(reply.type, w.type);
    EXPECT_EQ(reply.text, w.text);
    EXPECT_EQ(reply.null, w.null);
    at += size;
  }
  EXPECT_EQ(at, stream.size());
}

TEST(RespTest, BytesThatCanNeverBeAReply) {
  const std::pair<std::string, std::string> cases[] = {
      {"*1\r\n+OK\r\n", "resp: unexpected reply type '*'"},
      {"PONG\r\n", "resp: unexpected reply type 'P'"},
      {":12a\r\n", "resp: bad integer '12a'"},
      {"$x\r\n", "resp: bad bulk length 'x'"},
      {"$-2\r\n", "resp: bad bulk length '-2'"},
      {"$67108865\r\n", "resp: bulk of 67108865 bytes is too long"},
      {"$2\r\nabXY", "resp: bulk not followed by its line end"},
      {"+" + std::string(resp::kMaxLineLength + 1, 'a'), "resp: line longer than 65536 bytes"},
  };
  for (const auto& [bytes, message] : cases) {
    resp::Reply reply;
    size_t size = 7;
    EXPECT_EQ(resp::ParseReply(bytes, &reply, &size).ToString(), "Corruption: " + message) << bytes.substr(0, 20);
    EXPECT_EQ(size, 0u);
  }
}

}  // namespace
}  // namespace kandb::tools
