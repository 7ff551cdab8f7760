#include "pdpb/wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kandb::pdpb {
namespace {

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(static_cast<char>(b));
  return s;
}

TEST(WireTest, AppendLayouts) {
  std::string out;
  // The tag keeps its low 16 bits; the length is 4 bytes, low byte first.
  AppendField(&out, 0x10203, 3, "a\0b");
  EXPECT_EQ(out, Bytes({0x03, 0x02, 3, 0, 0, 0, 'a', 0, 'b'}));

  out.clear();
  AppendU64Field(&out, 7, 0x0102030405060708ull);
  EXPECT_EQ(out, Bytes({7, 0, 8, 0, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1}));

  out.clear();
  AppendBoolField(&out, 0x0100, true);
  AppendBoolField(&out, 2, false);
  EXPECT_EQ(out, Bytes({0, 1, 1, 0, 0, 0, 1, 2, 0, 1, 0, 0, 0, 0}));

  out = "x";  // appends, never overwrites
  AppendField(&out, 1, 0, "");
  EXPECT_EQ(out, Bytes({'x', 1, 0, 0, 0, 0, 0}));
}

// Collects what the loop hands out, for checking the walk itself.
struct Seen {
  uint16_t tag;
  std::string value;
};

bool Walk(const std::string& input, std::vector<Seen>* seen, int reject_tag = -1) {
  // An exactly-sized heap copy, so that a read past the end is caught.
  std::vector<char> buf(input.begin(), input.end());
  return DecodeFields(buf.size(), buf.data(), [&](const Field& f) {
    seen->push_back({f.tag, std::string(f.data, f.size)});
    return f.tag != reject_tag;
  });
}

TEST(WireTest, DecodeLoopWalksRecordsAndRejectsBadFraming) {
  std::string two;
  AppendField(&two, 9, 0, "");
  AppendField(&two, 0xfffe, 2, "hi");

  std::vector<Seen> seen;
  ASSERT_TRUE(Walk(two, &seen));
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].tag, 9);
  EXPECT_EQ(seen[0].value, "");
  EXPECT_EQ(seen[1].tag, 0xfffe);
  EXPECT_EQ(seen[1].value, "hi");

  seen.clear();
  EXPECT_TRUE(Walk("", &seen));
  EXPECT_TRUE(seen.empty());

  // 1 to 5 bytes after the last whole record are a torn header.
  for (size_t extra = 1; extra < kFieldHeaderSize; ++extra) {
    seen.clear();
    EXPECT_FALSE(Walk(two + std::string(extra, '\0'), &seen)) << extra;
    EXPECT_EQ(seen.size(), 2u);
  }

  // A record claiming one byte more than remains; and a length near 2^32,
  // which must not wrap the bounds check.
  std::string overrun = two;
  AppendField(&overrun, 1, 3, "abc");
  overrun.pop_back();
  seen.clear();
  EXPECT_FALSE(Walk(overrun, &seen));
  EXPECT_EQ(seen.size(), 2u);
  seen.clear();
  EXPECT_FALSE(Walk(Bytes({1, 0, 0xff, 0xff, 0xff, 0xff, 0}), &seen));
  EXPECT_TRUE(seen.empty());

  // A rejected record stops the loop at once.
  seen.clear();
  EXPECT_FALSE(Walk(two, &seen, 9));
  EXPECT_EQ(seen.size(), 1u);
}

Field MakeField(const std::string& value) {
  return Field{1, static_cast<uint32_t>(value.size()), value.data()};
}

TEST(WireTest, ValueReadersCheckLengthsAndTruncate) {
  const std::string eight = Bytes({0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88});
  uint64_t u64 = 5;
  EXPECT_TRUE(ReadU64(MakeField(eight), &u64));
  EXPECT_EQ(u64, 0x8877665544332211ull);
  uint32_t u32 = 0;
  EXPECT_TRUE(ReadU32(MakeField(eight), &u32));
  EXPECT_EQ(u32, 0x44332211u);
  uint8_t u8 = 0;
  EXPECT_TRUE(ReadLowByte(MakeField(eight), &u8));
  EXPECT_EQ(u8, 0x11);
  uint32_t kind = 0;
  EXPECT_TRUE(ReadLowByte(MakeField(eight), &kind));
  EXPECT_EQ(kind, 0x11u);

  // Wrong integer lengths fail and leave the target alone.
  for (size_t n : {0, 1, 4, 7, 9}) {
    const std::string value(n, '\x7f');
    u64 = 5;
    u32 = 5;
    u8 = 5;
    std::vector<uint64_t> repeated;
    EXPECT_FALSE(ReadU64(MakeField(value), &u64));
    EXPECT_FALSE(ReadU32(MakeField(value), &u32));
    EXPECT_FALSE(ReadLowByte(MakeField(value), &u8));
    EXPECT_FALSE(ReadRepeatedU64(MakeField(value), &repeated));
    EXPECT_EQ(u64, 5u);
    EXPECT_EQ(u32, 5u);
    EXPECT_EQ(u8, 5u);
    EXPECT_TRUE(repeated.empty());
  }

  bool b = true;
  EXPECT_TRUE(ReadBool(MakeField(Bytes({0})), &b));
  EXPECT_FALSE(b);
  EXPECT_FALSE(ReadBool(MakeField(""), &b));

  std::string s = "previous";
  ReadBytes(MakeField(Bytes({0, 0xff})), &s);
  EXPECT_EQ(s, Bytes({0, 0xff}));
}

}  // namespace
}  // namespace kandb::pdpb
