#include "pdpb/messages.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "pdpb/stats.h"
#include "pdpb/wire.h"

namespace kandb::pdpb {
namespace {

constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(static_cast<char>(b));
  return s;
}

std::string U64(uint16_t tag, uint64_t v) {
  std::string s;
  AppendU64Field(&s, tag, v);
  return s;
}

// Decodes from an exactly-sized heap copy, so ASan catches any overread.
template <typename M>
bool DecodeCopy(const std::string& input, M* out) {
  std::vector<char> buf(input.begin(), input.end());
  return Decode(buf.size(), buf.data(), out);
}

const std::string kBinary = Bytes({0, 1, 0xff, 0x80, 0, '\n', 0x7f});

Region SampleRegion(uint64_t id, int peers) {
  Region r{id, kBinary, "t\xff\xff", {kMax, 7}, {}};
  for (int i = 0; i < peers; ++i) r.peers.push_back({id * 10 + i, kMax - i, uint8_t(0xff - i)});
  return r;
}

// A rich sample of one message type; `decode` decodes an input and, when
// that succeeds, checks the result re-encodes to the same value.
struct Codec {
  const char* name;
  std::string valid;
  std::function<void()> round_trip;
  std::function<bool(const std::string&)> decode;
};

template <typename M>
Codec MakeCodec(const char* name, const M& sample) {
  auto round_trip = [sample] {
    const std::string bytes = Encode(sample);
    EXPECT_EQ(bytes.size(), EncodedSize(sample));
    std::string appended = "prefix";
    EncodeTo(sample, &appended);
    EXPECT_EQ(appended, "prefix" + bytes);
    M back;
    EXPECT_TRUE(DecodeCopy(bytes, &back));
    EXPECT_EQ(back, sample);
  };
  auto decode = [](const std::string& input) {
    M m, again;
    if (!DecodeCopy(input, &m)) return false;
    EXPECT_TRUE(DecodeCopy(Encode(m), &again));
    EXPECT_EQ(again, m);
    return true;
  };
  return {name, Encode(sample), round_trip, decode};
}

// Live statistics with every field set, histograms of two layouts.
StatsResponse SampleStats() {
  StatsResponse stats;
  stats.uptime_ms = kMax;
  const LatencyHistogram latency{{1, 2, 4}, {0, kMax, 3, 1}, 9, kMax};
  stats.methods = {MethodStats{"Pd.Tso", kMax, {ErrorCount{1, 2}, ErrorCount{0xffffffffu, kMax}}, latency},
                   MethodStats{kBinary, 0, {}, LatencyHistogram{}}};
  stats.unknown_method_requests = 3;
  stats.connections = {16, kMax, 1};
  stats.has_engine = true;
  EngineStats& e = stats.engine;
  e = {1, 2, 3, 4, LatencyHistogram{{1}, {5, 6}, 11, 12}, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, kBinary};
  stats.routing = {2500, kMax, 1};
  return stats;
}

std::vector<Codec> AllCodecs() {
  const RegionHeartbeatEntry entry{kMax, {1, 2, 3}, {kMax}, {4, 5}};
  return {
      MakeCodec("RegionEpoch", RegionEpoch{kMax, 1}),
      MakeCodec("Peer", Peer{kMax, 2, 0xff}),
      MakeCodec("Store", Store{kMax, kBinary, 0x80}),
      MakeCodec("Region", SampleRegion(kMax, 5)),
      MakeCodec("TsoRequest", TsoRequest{0xffffffffu}),
      MakeCodec("TsoResponse", TsoResponse{kMax, 0xffffffffu}),
      MakeCodec("AllocIdRequest", AllocIdRequest{123}),
      MakeCodec("AllocIdResponse", AllocIdResponse{kMax, 0x80000000u}),
      MakeCodec("BootstrapRequest", BootstrapRequest{Store{1, "10.0.0.1:20160", 1},
                                                     SampleRegion(2, 3),
                                                     {SampleRegion(3, 1), Region{}}}),
      MakeCodec("BootstrapResponse", BootstrapResponse{true}),
      MakeCodec("GetRegionRequest", GetRegionRequest{kBinary}),
      MakeCodec("GetRegionResponse", GetRegionResponse{SampleRegion(9, 3),
                                                       Peer{91, 2, 1},
                                                       Store{2, "b", 0},
                                                       {Store{3, kBinary, 2}, Store{}}}),
      MakeCodec("UpsertRegionRequest",
                UpsertRegionRequest{{SampleRegion(5, 2), SampleRegion(6, 4)}, {kMax, 0, 17}}),
      MakeCodec("UpsertRegionResponse", UpsertRegionResponse{kBinary}),
      MakeCodec("RegionHeartbeatEntry", entry),
      MakeCodec("RegionHeartbeatRequest",
                RegionHeartbeatRequest{7, {entry, RegionHeartbeatEntry{}}, {kMax, 0}, {3, kMax}}),
      MakeCodec("ScheduleCommand", ScheduleCommand{kAddPeer, kMax, 3, kBinary}),
      MakeCodec("RegionHeartbeatResponse",
                RegionHeartbeatResponse{{ScheduleCommand{kPromoteLearner, 1, 2, ""},
                                         ScheduleCommand{kTransferLeader, kMax, kMax, "h:1"}}}),
      MakeCodec("StatsResponse", SampleStats()),
      MakeCodec("GetRegionByIdRequest", GetRegionByIdRequest{kMax}),
      MakeCodec("ScanRegionsRequest", ScanRegionsRequest{kBinary, "\xff", 0xffffffffu}),
      MakeCodec("ScanRegionsResponse",
                ScanRegionsResponse{{ScannedRegion{SampleRegion(4, 2), Peer{41, kMax, 1}}, ScannedRegion{}}}),
      MakeCodec("UpdateServiceSafePointRequest", UpdateServiceSafePointRequest{kBinary, kMax, 1}),
      MakeCodec("UpdateServiceSafePointResponse", UpdateServiceSafePointResponse{kBinary, 2, kMax, 3, true}),
      MakeCodec("GetGcSafePointResponse",
                GetGcSafePointResponse{kMax, {ServiceSafePoint{kBinary, 1, 2}, ServiceSafePoint{}}}),
  };
}

TEST(MessagesTest, ExactByteLayouts) {
  // Records are tag (u16), length (u32), value; integers are 8 bytes LE.
  const std::string zero8(8, '\0');
  const std::string default_region = Bytes({1, 0, 8, 0, 0, 0}) + zero8 +
                                     Bytes({2, 0, 0, 0, 0, 0, 3, 0, 0, 0, 0, 0}) +
                                     Bytes({4, 0, 28, 0, 0, 0}) + Bytes({1, 0, 8, 0, 0, 0}) +
                                     zero8 + Bytes({2, 0, 8, 0, 0, 0}) + zero8;
  ASSERT_EQ(default_region.size(), 60u);
  EXPECT_EQ(Encode(Region{}), default_region);
  // A one-byte enumeration sits in the lowest byte of its 8-byte value.
  EXPECT_EQ(Encode(Peer{0x0102, 3, 0xfe}),
            Bytes({1, 0, 8, 0, 0, 0, 2, 1, 0, 0, 0, 0, 0, 0,    2, 0, 8, 0, 0, 0, 3,
                   0, 0, 0, 0, 0, 0, 0, 3, 0, 8, 0, 0, 0, 0xfe, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(Encode(BootstrapResponse{true}), Bytes({1, 0, 1, 0, 0, 0, 1}));
  EXPECT_EQ(Encode(UpsertRegionResponse{}), "");
  EXPECT_EQ(Encode(UpsertRegionResponse{"no"}), Bytes({1, 0, 2, 0, 0, 0, 'n', 'o'}));
  // Repeated fields: one record per element, after the single fields; none when empty.
  GetRegionResponse resp;
  const std::string no_stores = Encode(resp);
  EXPECT_EQ(no_stores.size(), 6u + 60 + 6 + 42 + 6 + 34);
  resp.stores = {Store{5, "x", 0}, Store{6, "", 1}};
  EXPECT_EQ(Encode(resp), no_stores + Bytes({4, 0, 35, 0, 0, 0}) + Encode(resp.stores[0]) +
                              Bytes({4, 0, 34, 0, 0, 0}) + Encode(resp.stores[1]));
  EXPECT_EQ(Encode(UpsertRegionRequest{{}, {1, kMax}}), U64(2, 1) + U64(2, kMax));

  // Pd.Stats: an empty request; in the answer a histogram's bounds, then
  // its counts, count and sum; every single field written, the engine's
  // too when there is none, and has_engine as one byte.
  EXPECT_EQ(Encode(StatsRequest{}), "");
  EXPECT_EQ(Encode(LatencyHistogram{{1, 2}, {3, 4, 5}, 12, 99}),
            U64(1, 1) + U64(1, 2) + U64(2, 3) + U64(2, 4) + U64(2, 5) + U64(3, 12) + U64(4, 99));
  StatsResponse stats;
  stats.uptime_ms = 7;
  stats.methods = {MethodStats{"Pd.Tso", 2, {ErrorCount{3, 1}}, {}}};
  stats.has_engine = true;
  const std::string method = Bytes({1, 0, 6, 0, 0, 0}) + "Pd.Tso" + U64(2, 2) + Bytes({3, 0, 28, 0, 0, 0}) +
                             U64(1, 3) + U64(2, 1) + Bytes({4, 0, 28, 0, 0, 0}) + U64(3, 0) + U64(4, 0);
  const std::string zero_engine = Encode(EngineStats{});
  ASSERT_EQ(zero_engine.size(), 16 * 14 + 6 + 28 + 6u);
  const std::string three_zeros = U64(1, 0) + U64(2, 0) + U64(3, 0);
  EXPECT_EQ(Encode(stats), U64(1, 7) + Bytes({2, 0, 94, 0, 0, 0}) + method + U64(3, 0) +
                               Bytes({4, 0, 42, 0, 0, 0}) + three_zeros + Bytes({5, 0, 1, 0, 0, 0, 1}) +
                               Bytes({6, 0, 8, 1, 0, 0}) + zero_engine + Bytes({7, 0, 42, 0, 0, 0}) + three_zeros +
                               Bytes({8, 0, 196, 0, 0, 0}) + Encode(SchedulingStats{}));
  EXPECT_EQ(Encode(SchedulingStats{}).size(), 14 * 14u);
}

// The region reads: a region id; a scan's two keys, both always written,
// and its limit in an 8-byte record; each scanned entry a region, then its
// leader, one record per entry and none for an empty answer.
TEST(MessagesTest, RegionReadLayouts) {
  EXPECT_EQ(Encode(GetRegionByIdRequest{0x0102}), U64(1, 0x0102));
  EXPECT_EQ(Encode(ScanRegionsRequest{"ab", "", 7}),
            Bytes({1, 0, 2, 0, 0, 0, 'a', 'b', 2, 0, 0, 0, 0, 0}) + U64(3, 7));
  const ScannedRegion entry{Region{}, Peer{1, 2, 0}};
  const std::string entry_bytes = Bytes({1, 0, 60, 0, 0, 0}) + Encode(Region{}) + Bytes({2, 0, 42, 0, 0, 0}) +
                                  U64(1, 1) + U64(2, 2) + U64(3, 0);
  EXPECT_EQ(Encode(entry), entry_bytes);
  EXPECT_EQ(Encode(ScanRegionsResponse{}), "");
  EXPECT_EQ(Encode(ScanRegionsResponse{{entry, entry}}),
            Bytes({1, 0, 114, 0, 0, 0}) + entry_bytes + Bytes({1, 0, 114, 0, 0, 0}) + entry_bytes);
}

// GC safe points: the service id first, then 8-byte integers, the refusal
// as one byte; an entry is persisted in exactly its wire encoding.
TEST(MessagesTest, SafePointByteLayouts) {
  const std::string entry = Bytes({1, 0, 2, 0, 0, 0}) + "gc" + U64(2, 7) + U64(3, 9);
  EXPECT_EQ(Encode(ServiceSafePoint{"gc", 7, 9}), entry);
  EXPECT_EQ(Encode(UpdateServiceSafePointRequest{"gc", 60, 7}), Bytes({1, 0, 2, 0, 0, 0}) + "gc" + U64(2, 60) + U64(3, 7));
  EXPECT_EQ(Encode(UpdateServiceSafePointResponse{"gc", 7, 9, 5, true}),
            Bytes({1, 0, 2, 0, 0, 0}) + "gc" + U64(2, 7) + U64(3, 9) + U64(4, 5) + Bytes({5, 0, 1, 0, 0, 0, 1}));
  EXPECT_EQ(Encode(GetGcSafePointRequest{}), "");
  EXPECT_EQ(Encode(GetGcSafePointResponse{5, {ServiceSafePoint{"gc", 7, 9}}}),
            U64(1, 5) + Bytes({2, 0, static_cast<int>(entry.size()), 0, 0, 0}) + entry);
}

// The fields that stores sending store heartbeats add to their record are
// written only when set: a record without them is byte for byte what it
// was before they existed, and one with them still decodes, minus them, in
// every reader, since readers skip the tags they do not know.
TEST(MessagesTest, StoreRecordExtensionsAreWrittenOnlyWhenSet) {
  Store plain{7, "s7:20160", 1};
  const std::string designed = U64(1, 7) + Bytes({2, 0, 8, 0, 0, 0}) + "s7:20160" + U64(3, 1);
  EXPECT_EQ(Encode(plain), designed);

  Store labelled = plain;
  labelled.labels = {StoreLabel{"zone", "z1"}};
  labelled.node_state = kNodeOffline;
  labelled.first_heartbeat_ms = 5;
  const std::string label = Bytes({1, 0, 4, 0, 0, 0}) + "zone" + Bytes({2, 0, 2, 0, 0, 0}) + "z1";
  EXPECT_EQ(Encode(labelled), designed + Bytes({4, 0, static_cast<int>(label.size()), 0, 0, 0}) + label +
                                  U64(5, kNodeOffline) + U64(6, 5));
  Store back;
  const std::string encoded = Encode(labelled);
  ASSERT_TRUE(Decode(encoded.size(), encoded.data(), &back));
  EXPECT_EQ(back, labelled);

}

TEST(MessagesTest, DecodersRejectMalformedInput) {
  const std::string valid = Encode(SampleRegion(1, 2));
  std::string bad_role = U64(1, 1);
  AppendField(&bad_role, 3, 1, "\1");  // a peer's role with length 1
  std::string region_with_bad_peer = valid;
  AppendField(&region_with_bad_peer, 5, bad_role.size(), bad_role.data());
  const std::pair<const char*, std::string> region_cases[] = {
      {"torn header 1", valid + "\5"},
      {"torn header 5", valid + std::string(5, '\5')},
      {"length near 2^32", Bytes({9, 0, 0xff, 0xff, 0xff, 0xff, 0})},
      {"integer of 4", Bytes({1, 0, 4, 0, 0, 0, 1, 1, 1, 1})},
      {"integer of 9", Bytes({1, 0, 9, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1})},
      {"nested peer fails", region_with_bad_peer},
  };
  for (const auto& [name, bytes] : region_cases) {
    Region region;
    EXPECT_FALSE(DecodeCopy(bytes, &region)) << name;
  }
  TsoRequest tso;
  EXPECT_FALSE(DecodeCopy(Bytes({1, 0, 4, 0, 0, 0, 1, 1, 1, 1}), &tso));
  BootstrapResponse boot;
  EXPECT_FALSE(DecodeCopy(U64(1, 1), &boot));  // a boolean of 8 bytes
  std::string outer;
  AppendField(&outer, 1, region_with_bad_peer.size(), region_with_bad_peer.data());
  GetRegionResponse resp;
  UpsertRegionRequest upsert;
  EXPECT_FALSE(DecodeCopy(outer, &resp));
  EXPECT_FALSE(DecodeCopy(outer, &upsert));
}

TEST(MessagesTest, DecodersAreLenient) {
  TsoRequest tso;
  ASSERT_TRUE(DecodeCopy(U64(1, (uint64_t{1} << 32) + 5), &tso));
  EXPECT_EQ(tso.count, 5u);  // low 32 bits of a count
  Peer peer;
  ASSERT_TRUE(DecodeCopy(U64(3, 0x1ff), &peer));
  EXPECT_EQ(peer.role, 0xff);  // low byte of a role
  BootstrapResponse boot;
  ASSERT_TRUE(DecodeCopy(Bytes({1, 0, 1, 0, 0, 0, 2}), &boot));
  EXPECT_TRUE(boot.already_bootstrapped);

  // Unknown tags are skipped whole, whatever their length.
  const Store store{7, "addr", 1};
  std::string bytes = Bytes({0xff, 0xff, 0, 0, 0, 0}) + Encode(store);
  AppendField(&bytes, 99, 3, "\1\2\3");
  Store got;
  ASSERT_TRUE(DecodeCopy(bytes, &got));
  EXPECT_EQ(got, store);

  // A non-repeated field given twice keeps the last, a nested one replaced
  // whole (nothing of the first region's peers or epoch leaks through).
  GetRegionRequest key;
  ASSERT_TRUE(
      DecodeCopy(Encode(GetRegionRequest{"first"}) + Encode(GetRegionRequest{"second"}), &key));
  EXPECT_EQ(key.key, "second");
  const std::string second = U64(1, 2);
  bytes.clear();
  AppendMessageField(&bytes, 1, SampleRegion(1, 3));
  AppendField(&bytes, 1, second.size(), second.data());
  GetRegionResponse resp;
  ASSERT_TRUE(DecodeCopy(bytes, &resp));
  EXPECT_EQ(resp.region, (Region{2, "", "", {}, {}}));
  // Repeated elements accumulate.
  UpsertRegionRequest upsert;
  ASSERT_TRUE(DecodeCopy(U64(2, 1) + Encode(UpsertRegionRequest{{}, {2}}), &upsert));
  EXPECT_EQ(upsert.removed_region_ids, (std::vector<uint64_t>{1, 2}));
}

// Every message round-trips, and every prefix of its encoding decodes iff
// it ends on a record boundary. Random damage is the fuzz target's.
TEST(MessagesTest, RoundTripsAndPrefixesDecodeIffOnARecordBoundary) {
  for (const Codec& codec : AllCodecs()) {
    SCOPED_TRACE(codec.name);
    codec.round_trip();
    std::vector<bool> boundary(codec.valid.size() + 1, false);
    for (size_t pos = 0;; pos += kFieldHeaderSize + DecodeFixed32(codec.valid.data() + pos + 2)) {
      boundary[pos] = true;
      if (pos == codec.valid.size()) break;
    }
    for (size_t n = 0; n <= codec.valid.size(); ++n) {
      EXPECT_EQ(codec.decode(codec.valid.substr(0, n)), boundary[n]) << "prefix " << n;
    }
  }
}

}  // namespace
}  // namespace kandb::pdpb
