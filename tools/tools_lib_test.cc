// The shared pieces of the tools with logic of their own: key escaping,
// number and duration limits, the strict JSON mapping of the messages and
// the latency histogram. Option parsing is checked through the programs.

#include <gtest/gtest.h>

#include "tools/command_line.h"
#include "tools/json_messages.h"
#include "tools/latency.h"
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

  pdpb::RegionHeartbeatRequest heartbeat{4, {{9, {4, 6}, {5}, {6}}}, {7, 8}};
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

}  // namespace
}  // namespace kandb::tools
