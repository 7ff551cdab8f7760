#include "crypto/bloom.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kandb::crypto {
namespace {

std::string Key(int i) { return "key" + std::to_string(i); }

TEST(BloomTest, GeometryAndLayout) {
  struct Case {
    size_t keys;
    int bits_per_key;
    size_t bytes;
    uint32_t bits;
    int probes;
  };
  const Case cases[] = {
      {1, 10, 13, 64, 6},       // the 64-bit floor
      {13, 5, 14, 72, 3},       // 65 bits round up to whole bytes
      {100, 10, 130, 1000, 6},  //
      {10, 1, 13, 64, 1},       // 0.69 probes clamped to 1
      {2, 50, 18, 104, 30},     // 34.5 probes clamped to 30
  };
  for (const Case& c : cases) {
    BloomFilter filter(c.keys, c.bits_per_key);
    const std::string s = filter.Serialize();
    EXPECT_EQ(s.size(), c.bytes) << c.keys;
    EXPECT_EQ(filter.num_probes(), c.probes) << c.keys;
    EXPECT_EQ(BloomFilterView(s).num_bits(), c.bits) << c.keys;
  }
  // num_bits (LE), num_probes, bits. With 64 bits the empty key probes 37,
  // 21, 5, 53; with 72 bits the 64-bit wrap of h1 + i * h2 matters.
  BloomFilter one(1, 10);
  one.Add("");
  EXPECT_EQ(one.Serialize(), std::string("\x40\0\0\0\x06\x20\0\x20\0\x20\0\x20\0", 13));
  BloomFilter three(7, 10);
  for (const char* key : {"a", "b", "c"}) three.Add(key);
  EXPECT_EQ(three.Serialize(), std::string("\x48\0\0\0\x06\x20\0\x04\x44\xa0\x28\x9a\x01\x30", 14));
}

TEST(BloomTest, NoFalseNegativesAndAboutOnePercentFalsePositives) {
  constexpr int kKeys = 10000;
  BloomFilter filter(kKeys, 10);
  for (int i = 0; i < kKeys; ++i) filter.Add(Key(i));
  const BloomFilterView view(filter.Serialize());
  for (int i = 0; i < kKeys; ++i) ASSERT_TRUE(view.MayContain(Key(i))) << Key(i);
  int false_positives = 0;
  for (int i = kKeys; i < 11 * kKeys; ++i) false_positives += view.MayContain(Key(i));
  EXPECT_LT(false_positives, kKeys * 10 / 40);  // under 2.5%; theory says 0.8%
}

// Whatever bytes a table file hands over, a malformed filter must say "may
// contain", never a false "absent".
TEST(BloomTest, MalformedFilterAdmitsEveryKey) {
  BloomFilter filter(10, 10);
  filter.Add("present");
  const std::string good = filter.Serialize();
  std::vector<std::string> excluded;  // keys the intact filter rejects
  for (int i = 0; excluded.size() < 20; ++i) {
    if (!BloomFilterView(good).MayContain(Key(i))) excluded.push_back(Key(i));
  }
  std::string zero_probes = good;
  zero_probes[4] = 0;
  for (const std::string& bytes : {good.substr(0, good.size() - 1), good + "x", good.substr(0, 4),
                                   std::string(), zero_probes}) {
    const BloomFilterView view(bytes);
    for (const std::string& key : excluded) ASSERT_TRUE(view.MayContain(key)) << bytes.size();
  }
  EXPECT_TRUE(BloomFilterView().MayContain(excluded[0]));
}

}  // namespace
}  // namespace kandb::crypto
