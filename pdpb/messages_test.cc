#include "pdpb/messages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "pdpb/wire.h"

namespace kandb::pdpb {
namespace {

constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(static_cast<char>(b));
  return s;
}

// Decodes from an exactly-sized heap copy, so that a read past the end is
// caught by the address sanitizer.
template <typename M>
bool DecodeCopy(const std::string& input, M* out) {
  std::vector<char> buf(input.begin(), input.end());
  return Decode(buf.size(), buf.data(), out);
}

const std::string kBinary = Bytes({0, 1, 0xff, 0x80, 0, '\n', 0x7f});

Region SampleRegion(uint64_t id, int peers) {
  Region r;
  r.id = id;
  r.start_key = kBinary;
  r.end_key = "t\xff\xff";
  r.epoch = {kMax, 7};
  for (int i = 0; i < peers; ++i) {
    r.peers.push_back({id * 10 + i, kMax - i, static_cast<uint8_t>(i == 0 ? 0xff : i)});
  }
  return r;
}

// One message type behind a uniform face, with a rich sample of it.
struct Codec {
  const char* name;
  std::string valid;                // the sample's encoding
  std::function<void()> round_trip;  // checks the sample survives every path
  // Decodes an input; when that succeeds, also checks that the result
  // re-encodes to something decoding to the same value.
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
    M m;
    if (!DecodeCopy(input, &m)) return false;
    M again;
    EXPECT_TRUE(DecodeCopy(Encode(m), &again));
    EXPECT_EQ(again, m);
    return true;
  };
  return {name, Encode(sample), round_trip, decode};
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
      MakeCodec("BootstrapRequest",
                BootstrapRequest{Store{1, "10.0.0.1:20160", 1}, SampleRegion(2, 3),
                                 {SampleRegion(3, 1), SampleRegion(4, 0), Region{}}}),
      MakeCodec("BootstrapResponse", BootstrapResponse{true}),
      MakeCodec("GetRegionRequest", GetRegionRequest{kBinary}),
      MakeCodec("GetRegionResponse",
                GetRegionResponse{SampleRegion(9, 3), Peer{91, 2, 1}, Store{2, "b", 0},
                                  {Store{3, kBinary, 2}, Store{}, Store{4, "d", 0xff}}}),
      MakeCodec("UpsertRegionRequest",
                UpsertRegionRequest{{SampleRegion(5, 2), SampleRegion(6, 4)}, {kMax, 0, 17}}),
      MakeCodec("UpsertRegionResponse", UpsertRegionResponse{kBinary}),
      MakeCodec("RegionHeartbeatEntry", entry),
      MakeCodec("RegionHeartbeatRequest",
                RegionHeartbeatRequest{7, {entry, RegionHeartbeatEntry{}, entry}, {kMax, 0}}),
      MakeCodec("ScheduleCommand", ScheduleCommand{kAddPeer, kMax, 3, kBinary}),
      MakeCodec("RegionHeartbeatResponse",
                RegionHeartbeatResponse{{ScheduleCommand{kPromoteLearner, 1, 2, ""},
                                         ScheduleCommand{kAddPeer, 1, 5, "h:1"},
                                         ScheduleCommand{kTransferLeader, kMax, kMax, ""}}}),
  };
}

TEST(MessagesTest, EveryMessageRoundTrips) {
  for (const Codec& codec : AllCodecs()) {
    SCOPED_TRACE(codec.name);
    codec.round_trip();
  }
}

TEST(MessagesTest, DefaultMessagesHaveTheSizeOfTheirFieldLists) {
  // Integer record 14 bytes, bool 7, empty string 6, nested record 6 + body.
  EXPECT_EQ(Encode(RegionEpoch{}).size(), 28u);
  EXPECT_EQ(Encode(Peer{}).size(), 42u);
  EXPECT_EQ(Encode(Store{}).size(), 34u);
  EXPECT_EQ(Encode(Region{}).size(), 60u);
  EXPECT_EQ(Encode(TsoRequest{}).size(), 14u);
  EXPECT_EQ(Encode(TsoResponse{}).size(), 28u);
  EXPECT_EQ(Encode(AllocIdRequest{}).size(), 14u);
  EXPECT_EQ(Encode(AllocIdResponse{}).size(), 28u);
  EXPECT_EQ(Encode(BootstrapRequest{}).size(), 6u + 34 + 6 + 60);
  EXPECT_EQ(Encode(BootstrapResponse{}).size(), 7u);
  EXPECT_EQ(Encode(GetRegionRequest{}).size(), 6u);
  EXPECT_EQ(Encode(GetRegionResponse{}).size(), 6u + 60 + 6 + 42 + 6 + 34);
  EXPECT_EQ(Encode(UpsertRegionRequest{}).size(), 0u);
  EXPECT_EQ(Encode(UpsertRegionResponse{}).size(), 0u);
  EXPECT_EQ(Encode(RegionHeartbeatEntry{}).size(), 14u);
  EXPECT_EQ(Encode(RegionHeartbeatRequest{}).size(), 14u);
  EXPECT_EQ(Encode(ScheduleCommand{}).size(), 48u);
  EXPECT_EQ(Encode(RegionHeartbeatResponse{}).size(), 0u);
}

TEST(MessagesTest, ExactByteLayouts) {
  const std::string zero8(8, '\0');
  const std::string default_region =
      Bytes({1, 0, 8, 0, 0, 0}) + zero8 +                    // id
      Bytes({2, 0, 0, 0, 0, 0}) + Bytes({3, 0, 0, 0, 0, 0}) +  // empty keys
      Bytes({4, 0, 28, 0, 0, 0}) +                            // epoch
      Bytes({1, 0, 8, 0, 0, 0}) + zero8 + Bytes({2, 0, 8, 0, 0, 0}) + zero8;
  ASSERT_EQ(default_region.size(), 60u);
  EXPECT_EQ(Encode(Region{}), default_region);

  // A one-byte enumeration sits in the lowest byte of an 8-byte value.
  EXPECT_EQ(Encode(Peer{0x0102, 3, 0xfe}),
            Bytes({1, 0, 8, 0, 0, 0, 2, 1, 0, 0, 0, 0, 0, 0}) +
                Bytes({2, 0, 8, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0}) +
                Bytes({3, 0, 8, 0, 0, 0, 0xfe, 0, 0, 0, 0, 0, 0, 0}));

  // Only the lowest byte of a command kind travels.
  ScheduleCommand wide{0x1234502, 1, 2, "a"};
  const std::string cmd = Encode(wide);
  EXPECT_EQ(cmd.substr(0, 14), Bytes({1, 0, 8, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(cmd.substr(42), Bytes({4, 0, 1, 0, 0, 0, 'a'}));
  ScheduleCommand back;
  ASSERT_TRUE(DecodeCopy(cmd, &back));
  EXPECT_EQ(back.kind, kAddPeer);

  // Repeated fields: one record per element, in order, after the single ones.
  GetRegionResponse resp;
  const std::string no_stores = Encode(resp);
  resp.stores = {Store{5, "x", 0}, Store{6, "", 1}};
  EXPECT_EQ(Encode(resp), no_stores + Bytes({4, 0, 35, 0, 0, 0}) + Encode(resp.stores[0]) +
                              Bytes({4, 0, 34, 0, 0, 0}) + Encode(resp.stores[1]));
  EXPECT_EQ(Encode(UpsertRegionRequest{{}, {1, kMax}}),
            Bytes({2, 0, 8, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0}) + Bytes({2, 0, 8, 0, 0, 0}) +
                std::string(8, '\xff'));
  EXPECT_EQ(Encode(BootstrapResponse{true}), Bytes({1, 0, 1, 0, 0, 0, 1}));
  EXPECT_EQ(Encode(UpsertRegionResponse{"no"}), Bytes({1, 0, 2, 0, 0, 0, 'n', 'o'}));
}

TEST(MessagesTest, DecodersRejectMalformedKnownFields) {
  std::string bytes;
  Region region;
  TsoRequest tso;
  BootstrapResponse boot;

  // An 8-byte integer field given with length 4 or 9.
  for (size_t n : {4, 9}) {
    bytes.clear();
    AppendField(&bytes, 1, n, std::string(n, '\1').data());
    EXPECT_FALSE(DecodeCopy(bytes, &tso)) << n;
    EXPECT_FALSE(DecodeCopy(bytes, &region)) << n;
  }
  // A boolean given with length 8.
  bytes.clear();
  AppendU64Field(&bytes, 1, 1);
  EXPECT_FALSE(DecodeCopy(bytes, &boot));

  // A role record of length 1 fails the peer, and so every message around it.
  std::string peer;
  AppendU64Field(&peer, 1, 1);
  AppendField(&peer, 3, 1, "\1");
  Peer p;
  EXPECT_FALSE(DecodeCopy(peer, &p));
  std::string region_bytes = Encode(Region{});
  AppendField(&region_bytes, 5, peer.size(), peer.data());
  EXPECT_FALSE(DecodeCopy(region_bytes, &region));
  GetRegionResponse resp;
  bytes.clear();
  AppendField(&bytes, 1, region_bytes.size(), region_bytes.data());
  EXPECT_FALSE(DecodeCopy(bytes, &resp));
  UpsertRegionRequest upsert;  // the same record, as a repeated region
  EXPECT_FALSE(DecodeCopy(bytes, &upsert));

  // Torn headers and overruns, on a real message.
  const std::string valid = Encode(SampleRegion(1, 2));
  for (size_t extra = 1; extra <= 5; ++extra) {
    EXPECT_FALSE(DecodeCopy(valid + std::string(extra, '\x05'), &region)) << extra;
  }
  EXPECT_FALSE(DecodeCopy(valid.substr(0, valid.size() - 1), &region));
}

TEST(MessagesTest, DecodersAreLenient) {
  // Empty input: defaults, for every type.
  Region region;
  ASSERT_TRUE(DecodeCopy("", &region));
  EXPECT_EQ(region, Region{});
  TsoRequest tso{9};
  ASSERT_TRUE(DecodeCopy("", &tso));
  EXPECT_EQ(tso.count, 9u);  // absent fields keep what they held

  // A count above 2^32 - 1 keeps its low 32 bits.
  std::string bytes;
  AppendU64Field(&bytes, 1, (uint64_t{1} << 32) + 5);
  tso = {};
  ASSERT_TRUE(DecodeCopy(bytes, &tso));
  EXPECT_EQ(tso.count, 5u);
  Peer peer;
  AppendU64Field(&bytes, 3, 0x1ff);  // the role: low byte only
  ASSERT_TRUE(DecodeCopy(bytes, &peer));
  EXPECT_EQ(peer.role, 0xff);

  // A boolean byte of 2 is true.
  BootstrapResponse boot;
  ASSERT_TRUE(DecodeCopy(Bytes({1, 0, 1, 0, 0, 0, 2}), &boot));
  EXPECT_TRUE(boot.already_bootstrapped);

  // Unknown tags are skipped whole, with length 0 or more, anywhere.
  Store store{7, "addr", 1};
  bytes.clear();
  AppendField(&bytes, 0xffff, 0, "");
  bytes += Encode(store);
  AppendField(&bytes, 99, 3, "\1\2\3");
  Store got;
  ASSERT_TRUE(DecodeCopy(bytes, &got));
  EXPECT_EQ(got, store);

  // A string given twice keeps the second.
  bytes = Encode(GetRegionRequest{"first"}) + Encode(GetRegionRequest{"second"});
  GetRegionRequest key;
  ASSERT_TRUE(DecodeCopy(bytes, &key));
  EXPECT_EQ(key.key, "second");
}

TEST(MessagesTest, LastOccurrenceOfANestedMessageReplacesItWhole) {
  // The second region record has one peer and no epoch record; nothing of
  // the first one (three peers, a non-zero epoch) may leak into the result.
  Region second;
  second.id = 2;
  second.peers = {Peer{20, 2, 0}};
  std::string second_body;
  AppendU64Field(&second_body, 1, second.id);
  AppendMessageField(&second_body, 5, second.peers[0]);

  std::string bytes;
  AppendMessageField(&bytes, 1, SampleRegion(1, 3));
  AppendField(&bytes, 1, second_body.size(), second_body.data());
  GetRegionResponse resp;
  ASSERT_TRUE(DecodeCopy(bytes, &resp));
  EXPECT_EQ(resp.region, second);

  // Repeated elements accumulate instead.
  bytes = Encode(UpsertRegionRequest{{SampleRegion(1, 1)}, {1}}) +
          Encode(UpsertRegionRequest{{SampleRegion(2, 1)}, {2}});
  UpsertRegionRequest upsert;
  ASSERT_TRUE(DecodeCopy(bytes, &upsert));
  EXPECT_EQ(upsert.regions.size(), 2u);
  EXPECT_EQ(upsert.removed_region_ids, (std::vector<uint64_t>{1, 2}));
}


// Offsets at which a top-level record of `bytes` starts or the input ends.
std::vector<bool> RecordBoundaries(const std::string& bytes) {
  std::vector<bool> boundary(bytes.size() + 1, false);
  size_t pos = 0;
  boundary[0] = true;
  while (pos < bytes.size()) {
    pos += kFieldHeaderSize + DecodeFixed32(bytes.data() + pos + 2);
    boundary[pos] = true;
  }
  return boundary;
}

TEST(MessagesTest, EveryPrefixDecodesIffItEndsOnARecordBoundary) {
  for (const Codec& codec : AllCodecs()) {
    SCOPED_TRACE(codec.name);
    ASSERT_TRUE(codec.decode(codec.valid));
    const std::vector<bool> boundary = RecordBoundaries(codec.valid);
    for (size_t n = 0; n <= codec.valid.size(); ++n) {
      EXPECT_EQ(codec.decode(codec.valid.substr(0, n)), boundary[n]) << "prefix " << n;
    }
  }
}

// Random damage must never make a decoder read outside its input (the
// sanitizer build turns that into a failure) nor accept something it cannot
// re-encode.
TEST(MessagesTest, DecodersSurviveRandomDamage) {
  std::mt19937 rng(20240601);
  auto below = [&rng](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng); };
  for (const Codec& codec : AllCodecs()) {
    SCOPED_TRACE(codec.name);
    int accepted = 0;
    for (int round = 0; round < 3000; ++round) {
      std::string input = codec.valid;
      const int edits = 1 + static_cast<int>(below(3));
      for (int e = 0; e < edits && !input.empty(); ++e) {
        switch (below(4)) {
          case 0:  // overwrite one byte
            input[below(input.size())] = static_cast<char>(below(256));
            break;
          case 1:  // flip one bit: a length stays plausible and the walk goes deeper
            input[below(input.size())] ^= static_cast<char>(1 << below(8));
            break;
          case 2:  // cut the tail
            input.resize(below(input.size()));
            break;
          case 3:  // insert a few random bytes
            input.insert(below(input.size() + 1), std::string(1 + below(7),
                                                              static_cast<char>(below(256))));
            break;
        }
      }
      if (codec.decode(input)) ++accepted;
    }
    // Some damage (inside string values, unknown tags) is legitimately accepted.
    EXPECT_GT(accepted, 0);
  }
}

}  // namespace
}  // namespace kandb::pdpb
