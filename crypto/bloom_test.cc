#include "crypto/bloom.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace kandb::crypto {
namespace {

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) {
    s.push_back(static_cast<char>(b));
  }
  return s;
}

std::string Key(int i) { return "key" + std::to_string(i); }

TEST(BloomTest, Geometry) {
  struct Case {
    size_t num_keys;
    int bits_per_key;
    size_t serialised_size;
    uint32_t num_bits;
    int num_probes;
  };
  const Case cases[] = {
      {1, 10, 13, 64, 6},       // the 64-bit floor
      {0, 10, 13, 64, 6},       // empty table file
      {7, 9, 13, 64, 6},        // 63 bits still rounds to the floor
      {13, 5, 14, 72, 3},       // 65 bits round up to whole bytes
      {100, 10, 130, 1000, 6},  //
      {10, 1, 13, 64, 1},       // 0.69 truncates to 0, clamped to 1
      {10, 3, 13, 64, 2},       // 2.07
      {2, 50, 18, 104, 30},     // 34.5 clamped to 30
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.num_keys << " keys at " << c.bits_per_key);
    BloomFilter filter(c.num_keys, c.bits_per_key);
    std::string s = filter.Serialize();
    EXPECT_EQ(s.size(), c.serialised_size);
    EXPECT_EQ(filter.num_probes(), c.num_probes);
    BloomFilterView view(s);
    EXPECT_EQ(view.num_bits(), c.num_bits);
  }
}

// Hand-checkable: with 64 bits the modulus keeps the low six bits, so the
// empty key (h1, h2 = the two bases) probes 37, 21, 5, 53, 37, 21.
TEST(BloomTest, SerialisedLayoutOfOneKey) {
  BloomFilter filter(1, 10);
  filter.Add("");
  EXPECT_EQ(filter.Serialize(),
            Bytes({0x40, 0x00, 0x00, 0x00,  // num_bits 64, little-endian
                   0x06,                    // num_probes
                   0x20, 0x00, 0x20, 0x00, 0x20, 0x00, 0x20, 0x00}));
}

// 72 bits is not a power of two, so the 64-bit wrap of h1 + i * h2 before the
// remainder matters. Fixed bytes computed once by a separate implementation.
TEST(BloomTest, SerialisedLayoutWithWrappingProbes) {
  BloomFilter filter(7, 10);
  for (const char* key : {"a", "b", "c"}) {
    filter.Add(key);
  }
  EXPECT_EQ(filter.Serialize(),
            Bytes({0x48, 0x00, 0x00, 0x00, 0x06, 0x20, 0x00, 0x04, 0x44, 0xa0, 0x28, 0x9a, 0x01,
                   0x30}));
}

TEST(BloomTest, NoFalseNegativesAndAboutOnePercentFalsePositives) {
  constexpr int kKeys = 10000;
  constexpr int kAbsent = 100000;
  BloomFilter filter(kKeys, 10);
  for (int i = 0; i < kKeys; ++i) {
    filter.Add(Key(i));
  }
  filter.Add("");
  BloomFilterView view(filter.Serialize());
  EXPECT_TRUE(view.MayContain(""));
  for (int i = 0; i < kKeys; ++i) {
    ASSERT_TRUE(view.MayContain(Key(i))) << Key(i);
  }
  int false_positives = 0;
  for (int i = kKeys; i < kKeys + kAbsent; ++i) {
    false_positives += view.MayContain(Key(i)) ? 1 : 0;
  }
  double rate = static_cast<double>(false_positives) / kAbsent;
  // Theory gives about 0.8% for 10 bits and 6 probes; the bound is loose.
  EXPECT_LT(rate, 0.025) << false_positives << " false positives";
}

// Table files hand the view whatever bytes they read: anything malformed
// must degrade to "may contain", never to a false "absent".
TEST(BloomTest, MalformedFilterAdmitsEveryKey) {
  BloomFilter filter(10, 10);
  filter.Add("present");
  std::string good = filter.Serialize();
  // Establish that the intact filter does exclude these keys, so the cases
  // below prove something.
  BloomFilterView intact(good);
  std::vector<std::string> excluded;
  for (int i = 0; excluded.size() < 20; ++i) {
    if (!intact.MayContain(Key(i))) {
      excluded.push_back(Key(i));
    }
  }

  std::string zero_probes = good;
  zero_probes[4] = 0;
  const std::pair<const char*, std::string> cases[] = {
      {"one byte short", good.substr(0, good.size() - 1)},
      {"one byte long", good + "x"},
      {"four bytes", good.substr(0, 4)},
      {"five bytes", good.substr(0, 5)},
      {"empty", ""},
      {"zero probes", zero_probes},
  };
  for (const auto& [name, bytes] : cases) {
    SCOPED_TRACE(name);
    BloomFilterView view(bytes);
    for (const std::string& key : excluded) {
      ASSERT_TRUE(view.MayContain(key)) << key;
    }
  }
  BloomFilterView missing;
  EXPECT_TRUE(missing.MayContain(excluded[0]));
  EXPECT_EQ(missing.num_bits(), 0u);
  EXPECT_EQ(BloomFilterView(good.substr(0, 4)).num_bits(), 0u);
  EXPECT_EQ(BloomFilterView(good + "x").num_bits(), 0u);
}

}  // namespace
}  // namespace kandb::crypto
