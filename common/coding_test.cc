#include "common/coding.h"

#include <gtest/gtest.h>

namespace kandb {
namespace {

TEST(CodingTest, LittleEndianLayoutAndRoundTrip) {
  std::string s;
  PutFixed16(&s, 0x0102);
  PutFixed32(&s, 0x03040506u);
  PutFixed64(&s, 0x0708090a0b0c0d0eull);
  ASSERT_EQ(s, std::string("\x02\x01\x06\x05\x04\x03\x0e\x0d\x0c\x0b\x0a\x09\x08\x07", 14));
  EXPECT_EQ(DecodeFixed16(s.data()), 0x0102);
  EXPECT_EQ(DecodeFixed32(s.data() + 2), 0x03040506u);
  EXPECT_EQ(DecodeFixed64(s.data() + 6), 0x0708090a0b0c0d0eull);
  // High bits survive (no sign extension through char).
  std::string t;
  PutFixed64(&t, ~0ull);
  PutFixed32(&t, 0x80000000u);
  EXPECT_EQ(DecodeFixed64(t.data()), ~0ull);
  EXPECT_EQ(DecodeFixed32(t.data() + 8), 0x80000000u);
}

}  // namespace
}  // namespace kandb
