#include "crypto/crc32c.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <utility>
#include <vector>

namespace kandb::crypto {
namespace {

std::string RandomBytes(size_t n, uint32_t seed) {
  std::mt19937 rng(seed);
  std::string s(n, '\0');
  for (char& c : s) c = static_cast<char>(rng());
  return s;
}

TEST(Crc32cTest, PublishedValuesOnEveryPath) {
  std::vector<std::pair<const char*, decltype(&Crc32cExtendTable)>> paths = {
      {"table", &Crc32cExtendTable}};
  if (Crc32cHardwareEnabled()) paths.emplace_back("hardware", &Crc32cExtendHardware);
  const std::string zeros(32, '\0'), ones(32, '\xff');
  EXPECT_EQ(Crc32c("123456789", 9), 0xE3069283u);
  for (const auto& [name, extend] : paths) {
    SCOPED_TRACE(name);
    EXPECT_EQ(extend(0, "", 0), 0u);
    EXPECT_EQ(extend(0, "123456789", 9), 0xE3069283u);
    EXPECT_EQ(extend(0, zeros.data(), 32), 0x8A9136AAu);
    EXPECT_EQ(extend(0, ones.data(), 32), 0x62A8AB43u);
    // Continuing a finished CRC over the rest equals the CRC of the whole.
    const std::string buf = RandomBytes(100, 3);
    const uint32_t whole = extend(0, buf.data(), buf.size());
    for (size_t split = 0; split <= buf.size(); ++split) {
      ASSERT_EQ(extend(extend(0, buf.data(), split), buf.data() + split, buf.size() - split),
                whole);
    }
  }
}

// The hardware path works in three 128-byte stripes at a time, then 8-byte
// groups, then a 0-7 byte tail, so every tail length and misalignment, and
// lengths around the stripes, are compared with the table path.
TEST(Crc32cTest, HardwareAndTableAgree) {
  if (!Crc32cHardwareEnabled()) GTEST_SKIP() << "processor without SSE4.2";
  const std::string buf = RandomBytes((1 << 20) + 3, 1);
  for (size_t align = 0; align < 8; ++align) {
    for (size_t len = 0; len <= 1200; ++len) {
      const char* p = buf.data() + align;
      ASSERT_EQ(Crc32cExtendHardware(0xDEADBEEF, p, len), Crc32cExtendTable(0xDEADBEEF, p, len))
          << "align " << align << " len " << len;
      ASSERT_EQ(Crc32c(p, len), Crc32cExtendTable(0, p, len));
    }
  }
  EXPECT_EQ(Crc32cExtendHardware(0, buf.data(), buf.size()),
            Crc32cExtendTable(0, buf.data(), buf.size()));
}

}  // namespace
}  // namespace kandb::crypto
