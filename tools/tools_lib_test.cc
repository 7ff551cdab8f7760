// The shared pieces of the tools: key escaping, number and duration
// parsing, timestamp splitting, the option parser, the JSON mapping of the
// messages and the latency histogram.

#include <cstdio>

#include <gtest/gtest.h>

#include "tools/command_line.h"
#include "tools/json_messages.h"
#include "tools/latency.h"
#include "tools/text.h"

namespace kandb::tools {
namespace {

using nlohmann::json;

TEST(EscapeTest, PrintableStaysOtherBytesAreHexAndEveryByteRoundTrips) {
  EXPECT_EQ(EscapeBytes("pd/region/7"), "pd/region/7");
  EXPECT_EQ(EscapeBytes(std::string("a\0b", 3)), "a\\x00b");
  EXPECT_EQ(EscapeBytes("a\\b\n\x7f\xff"), "a\\\\b\\x0a\\x7f\\xff");
  std::string all;
  for (int b = 0; b < 256; ++b) all.push_back(static_cast<char>(b));
  std::string back;
  ASSERT_TRUE(UnescapeBytes(EscapeBytes(all), &back).ok());
  EXPECT_EQ(back, all);
  ASSERT_TRUE(UnescapeBytes("\\xFF\\x41", &back).ok());
  EXPECT_EQ(back, "\xff" "A");
}

TEST(EscapeTest, BadEscapesNameTheirOffsetAndLeaveTheOutputAlone) {
  std::string out = "kept";
  for (const char* bad : {"ab\\", "ab\\x4", "ab\\xg0", "ab\\n"}) {
    Status s = UnescapeBytes(bad, &out);
    EXPECT_TRUE(s.IsInvalidArgument()) << bad;
    EXPECT_EQ(s.message(), "bad escape at offset 2") << bad;
  }
  EXPECT_EQ(out, "kept");
}

TEST(NumberTest, UintsListsAndDurations) {
  uint64_t v = 0;
  EXPECT_TRUE(ParseUint("18446744073709551615", UINT64_MAX, &v).ok());
  EXPECT_EQ(v, UINT64_MAX);
  EXPECT_EQ(ParseUint("18446744073709551616", UINT64_MAX, &v).message(),
            "out of range (max 18446744073709551615): '18446744073709551616'");
  EXPECT_EQ(ParseUint("256", 255, &v).message(), "out of range (max 255): '256'");
  for (const char* bad : {"", "-1", "1x", " 1", "0x10"}) {
    EXPECT_EQ(ParseUint(bad, UINT64_MAX, &v).message(), "not a number: '" + std::string(bad) + "'");
  }
  std::vector<uint64_t> list = {9};
  ASSERT_TRUE(ParseUintList("1,20,3", &list).ok());
  EXPECT_EQ(list, (std::vector<uint64_t>{1, 20, 3}));
  ASSERT_TRUE(ParseUintList("", &list).ok());
  EXPECT_TRUE(list.empty());
  EXPECT_FALSE(ParseUintList("1,", &list).ok());
  EXPECT_FALSE(ParseUintList("1,,2", &list).ok());

  int64_t ms = 0;
  const std::pair<const char*, int64_t> good[] = {{"3s", 3000}, {"500ms", 500}, {"2m", 120000}, {"7", 7000}};
  for (const auto& [text, want] : good) {
    ASSERT_TRUE(ParseDurationMillis(text, &ms).ok()) << text;
    EXPECT_EQ(ms, want) << text;
  }
  for (const char* bad : {"", "s", "1.5s", "3h", "-1s"}) {
    EXPECT_EQ(ParseDurationMillis(bad, &ms).message(), "bad duration: '" + std::string(bad) + "'");
  }
}

TEST(TimestampTest, SplitsEighteenLogicalBitsAndFormatsUtc) {
  const uint64_t physical = 1700000000123;
  const TsoParts parts = SplitTso((physical << 18) | 262142);
  EXPECT_EQ(parts.physical_ms, physical);
  EXPECT_EQ(parts.logical, 262142u);
  EXPECT_EQ(FormatUtcMillis(physical), "2023-11-14T22:13:20.123Z");
  EXPECT_EQ(FormatUtcMillis(0), "1970-01-01T00:00:00.000Z");
}

// Runs a parse with its output and errors captured.
struct ParseResult {
  int rc;
  std::string out;
  std::string err;
};
ParseResult RunParse(CommandLine* cl, const std::vector<std::string>& args) {
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  ParseResult r{cl->Parse(args, out, err), "", ""};
  for (auto [file, text] : {std::pair{out, &r.out}, std::pair{err, &r.err}}) {
    std::rewind(file);
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), file)) > 0) text->append(buf, n);
    std::fclose(file);
  }
  return r;
}

TEST(CommandLineTest, ValuesInBothFormsRepeatsSwitchesAndPositionals) {
  std::string addr = "default";
  uint64_t count = 1;
  bool json_out = false;
  std::vector<std::string> peers, keys;
  CommandLine cl("tool sub", "Does a thing.");
  cl.AddString("addr", &addr, "where");
  cl.AddUint("count", &count, 1000, "how many");
  cl.AddSwitch("json", &json_out, "json");
  cl.AddRepeated("peer", &peers, "a peer");
  cl.SetPositional("KEY", &keys, 0, 1, "a key");
  ParseResult r = RunParse(&cl, {"--addr=h:1", "--count", "7", "--peer", "1:2", "--json", "--peer=3:4", "--", "--k"});
  EXPECT_EQ(r.rc, -1) << r.err;
  EXPECT_EQ(addr, "h:1");
  EXPECT_EQ(count, 7u);
  EXPECT_TRUE(json_out);
  EXPECT_EQ(peers, (std::vector<std::string>{"1:2", "3:4"}));
  EXPECT_EQ(keys, (std::vector<std::string>{"--k"}));
  EXPECT_TRUE(cl.Given("count"));
}

TEST(CommandLineTest, ErrorsNameTheOptionAndExitTwoHelpExitsZero) {
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"--bogus"}, "tool sub: unknown option --bogus\n"},
      {{"--count"}, "tool sub: --count needs a value\n"},
      {{"--count=1001"}, "tool sub: --count: out of range (max 1000): '1001'\n"},
      {{"--count=1", "--count=2"}, "tool sub: --count given twice\n"},
      {{"--json=yes"}, "tool sub: --json takes no value\n"},
      {{"a", "b"}, "tool sub: unexpected argument 'b'\n"},
  };
  for (const auto& [args, message] : cases) {
    uint64_t count = 0;
    bool json_out = false;
    std::vector<std::string> keys;
    CommandLine cl("tool sub", "Does a thing.");
    cl.AddUint("count", &count, 1000, "how many");
    cl.AddSwitch("json", &json_out, "json");
    cl.SetPositional("KEY", &keys, 0, 1, "a key");
    ParseResult r = RunParse(&cl, args);
    EXPECT_EQ(r.rc, kExitUsage) << args[0];
    EXPECT_EQ(r.err, message + "(see tool sub --help)\n");
    EXPECT_EQ(r.out, "");
  }
  uint64_t count = 0;
  CommandLine cl("tool sub", "Does a thing.");
  cl.AddUint("count", &count, 1000, "how many");
  ParseResult r = RunParse(&cl, {"--count=5", "--help", "--bogus"});
  EXPECT_EQ(r.rc, kExitOk);
  EXPECT_EQ(r.out, "usage: tool sub [options]\nDoes a thing.\n\noptions:\n  --count N\n      how many\n"
                   "  --help\n      print this help and exit\n");
  EXPECT_EQ(r.err, "");
}

TEST(JsonMessagesTest, RequestsRoundTripWithEscapedKeys) {
  pdpb::BootstrapRequest request;
  request.store = {1, "127.0.0.1:20160", 2};
  request.region.id = 2;
  request.region.start_key = std::string("a\0\xff", 3);
  request.region.end_key = "z\\";
  request.region.epoch = {3, 4};
  request.region.peers = {{5, 1, 1}, {6, 7, 0}};
  request.extra_regions.push_back(pdpb::Region{9, "z\\", "", {1, 1}, {}});
  const json doc = ToJson(request);
  EXPECT_EQ(doc["region"]["start_key"], "a\\x00\\xff");
  pdpb::BootstrapRequest back;
  Status s = FromJson(json::parse(doc.dump()), &back);
  ASSERT_TRUE(s.ok()) << s.ToString();
  EXPECT_EQ(back, request);

  pdpb::RegionHeartbeatRequest heartbeat;
  heartbeat.store_id = 4;
  heartbeat.regions.push_back({9, {4, 6}, {5}, {6}});
  heartbeat.region_ids = {7, 8};
  pdpb::RegionHeartbeatRequest heartbeat_back;
  ASSERT_TRUE(FromJson(json::parse(ToJson(heartbeat).dump()), &heartbeat_back).ok());
  EXPECT_EQ(heartbeat_back, heartbeat);

  pdpb::UpsertRegionRequest upsert;
  upsert.regions.push_back(request.region);
  upsert.removed_region_ids = {3};
  pdpb::UpsertRegionRequest upsert_back;
  ASSERT_TRUE(FromJson(json::parse(ToJson(upsert).dump()), &upsert_back).ok());
  EXPECT_EQ(upsert_back, upsert);
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
      {R"({"stroe": {}})", "stroe: unknown field"},
      {R"({"region": {"id": 1, "peer": []}})", "region.peer: unknown field"},
      {R"([1])", "request: expected an object"},
  };
  for (const auto& [text, message] : cases) {
    pdpb::BootstrapRequest request;
    Status s = FromJson(json::parse(text), &request);
    EXPECT_TRUE(s.IsInvalidArgument()) << text;
    EXPECT_EQ(s.message(), message) << text;
  }
  pdpb::TsoRequest tso;
  EXPECT_EQ(FromJson(json::parse(R"({"count": 4294967296})"), &tso).message(),
            "count: expected an integer in [0, 4294967295]");
  json doc;
  Status s = ParseJsonDocument("{\"count\": ", &doc);
  EXPECT_TRUE(s.IsInvalidArgument());
  EXPECT_EQ(s.message().rfind("bad JSON: ", 0), 0u) << s.message();
}

TEST(JsonMessagesTest, ResponsesSplitTimestampsAndNameCommandKinds) {
  const json tso = ToJson(pdpb::TsoResponse{(uint64_t{1700000000123} << 18) | 5, 3});
  EXPECT_EQ(tso["physical"], 1700000000123u);
  EXPECT_EQ(tso["logical"], 5u);
  EXPECT_EQ(tso["count"], 3u);
  pdpb::RegionHeartbeatResponse response;
  response.commands = {{pdpb::kAddPeer, 9, 10, "h:1"}, {77, 1, 2, ""}};
  const json doc = ToJson(response);
  EXPECT_EQ(doc["commands"][0]["kind"], "AddPeer");
  EXPECT_EQ(doc["commands"][0]["address"], "h:1");
  EXPECT_EQ(doc["commands"][1]["kind"], 77u);
}

TEST(LatencyHistogramTest, PercentilesStayWithinTheBucketPrecision) {
  LatencyHistogram h;
  EXPECT_EQ(h.Percentile(0.5), 0u);
  for (uint64_t v = 1; v <= 100000; ++v) h.Record(v * 1000);  // 1 us .. 100 ms
  EXPECT_EQ(h.count(), 100000u);
  EXPECT_EQ(h.max(), 100000000u);
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
  EXPECT_EQ(small.Percentile(0.5), 3u);
  EXPECT_EQ(small.Percentile(0.75), 9u);
  EXPECT_EQ(small.max(), 40u);
}

}  // namespace
}  // namespace kandb::tools
