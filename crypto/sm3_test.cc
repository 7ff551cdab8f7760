#include "crypto/sm3.h"

#include <gtest/gtest.h>

#include <string>

namespace kandb::crypto {
namespace {

TEST(Sm3Test, PublishedVectors) {
  EXPECT_EQ(Sm3Hex("abc", 3), "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0");
  std::string abcd;
  for (int i = 0; i < 16; ++i) abcd += "abcd";
  EXPECT_EQ(Sm3Hex(abcd.data(), abcd.size()),
            "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732");
}

// Lengths around where the bit count no longer fits behind the data (56 bytes
// into a block); digests from a separate implementation.
TEST(Sm3Test, PaddingBoundaries) {
  const std::pair<size_t, const char*> cases[] = {
      {55, "1b054d2273b72898f72f0c5fdab0d135346f0a5cad549e6be576e1a9ba4f6db0"},
      {56, "3314c3103d64dcbdad4a28a4bdd827b5b562d89bc41683b330490e226979d957"},
      {63, "5078a2d8ecfed3150e7893e246fa8f0c0bdb9b10877857c3c6b73a27cebc08fd"},
      {65, "7707917e48fe510e5ffc5f7c71c4d76fecfadca14ee2fe99054d5619836786ca"},
      {120, "8f24c3ade590645a4940c049882c1e476c0653a4af81a9e149e97ace69aeebe5"},
      {1000, "b14db1f539abd7f43d9f103ab4a13840ddeae02bc2dbce143b734c874f020486"},
  };
  for (const auto& [length, expected] : cases) {
    std::string message;
    for (size_t i = 0; i < length; ++i) message.push_back(static_cast<char>(i * 7 + 1));
    EXPECT_EQ(Sm3Hex(message.data(), message.size()), expected) << length;
  }
}

}  // namespace
}  // namespace kandb::crypto
