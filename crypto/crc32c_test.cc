#include "crypto/crc32c.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace kandb::crypto {
namespace {

using ExtendFn = uint32_t (*)(uint32_t, const char*, size_t);

std::string RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s) {
    c = static_cast<char>(rng());
  }
  return s;
}

// Both entry points, each checked against the published values. The hardware
// one only on a processor that has the instruction.
std::vector<std::pair<const char*, ExtendFn>> Paths() {
  std::vector<std::pair<const char*, ExtendFn>> paths = {{"table", &Crc32cExtendTable}};
  if (Crc32cHardwareEnabled()) {
    paths.emplace_back("hardware", &Crc32cExtendHardware);
  }
  return paths;
}

TEST(Crc32cTest, PublishedValues) {
  std::string zeros(32, '\0');
  std::string ones(32, '\xff');
  std::string ascending, descending;
  for (int i = 0; i < 32; ++i) {
    ascending.push_back(static_cast<char>(i));
    descending.push_back(static_cast<char>(31 - i));
  }
  // Plain CRC, not masked: what the log, table footers and frames store.
  EXPECT_EQ(Crc32c("", 0), 0x00000000u);
  EXPECT_EQ(Crc32c("123456789", 9), 0xE3069283u);
  for (const auto& [name, extend] : Paths()) {
    SCOPED_TRACE(name);
    EXPECT_EQ(extend(0, "", 0), 0x00000000u);
    EXPECT_EQ(extend(0, "123456789", 9), 0xE3069283u);
    EXPECT_EQ(extend(0, zeros.data(), zeros.size()), 0x8A9136AAu);
    EXPECT_EQ(extend(0, ones.data(), ones.size()), 0x62A8AB43u);
    EXPECT_EQ(extend(0, ascending.data(), ascending.size()), 0x46DD794Eu);
    EXPECT_EQ(extend(0, descending.data(), descending.size()), 0x113FDB5Cu);
  }
}

// The two paths split the input differently (8-byte groups, then a tail of
// 0 to 7 bytes), so every tail length and every misalignment is exercised.
TEST(Crc32cTest, HardwareAndTableAgreeAtEveryLengthAndAlignment) {
  if (!Crc32cHardwareEnabled()) {
    GTEST_SKIP() << "processor without SSE4.2";
  }
  std::string buf = RandomBytes(64 + 8, 1);
  for (size_t align = 0; align < 8; ++align) {
    for (size_t len = 0; len <= 64; ++len) {
      const char* p = buf.data() + align;
      uint32_t table = Crc32cExtendTable(0, p, len);
      ASSERT_EQ(Crc32cExtendHardware(0, p, len), table) << "align " << align << " len " << len;
      ASSERT_EQ(Crc32c(p, len), table) << "align " << align << " len " << len;
      // A non-zero starting CRC must be carried the same way too.
      ASSERT_EQ(Crc32cExtendHardware(0xDEADBEEF, p, len), Crc32cExtendTable(0xDEADBEEF, p, len));
    }
  }
}

TEST(Crc32cTest, HardwareAndTableAgreeOnLargeBuffers) {
  if (!Crc32cHardwareEnabled()) {
    GTEST_SKIP() << "processor without SSE4.2";
  }
  std::string buf = RandomBytes((1 << 20) + 3, 2);
  for (size_t len : {size_t{1} << 20, (size_t{1} << 20) + 3, size_t{65536 + 5}}) {
    EXPECT_EQ(Crc32cExtendHardware(0, buf.data(), len), Crc32cExtendTable(0, buf.data(), len))
        << len;
  }
}

TEST(Crc32cTest, ExtendContinuesAFinishedCrc) {
  std::string buf = RandomBytes(100, 3);
  for (const auto& [name, extend] : Paths()) {
    SCOPED_TRACE(name);
    uint32_t whole = extend(0, buf.data(), buf.size());
    for (size_t split = 0; split <= buf.size(); ++split) {
      uint32_t first = extend(0, buf.data(), split);
      ASSERT_EQ(extend(first, buf.data() + split, buf.size() - split), whole) << split;
    }
    // Three pieces, through the public entry points.
    EXPECT_EQ(Crc32cExtend(Crc32cExtend(Crc32c(buf.data(), 10), buf.data() + 10, 45),
                           buf.data() + 55, 45),
              whole);
  }
}

}  // namespace
}  // namespace kandb::crypto
