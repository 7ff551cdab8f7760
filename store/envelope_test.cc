// The sealed value envelope: layout and sizes, IV construction, the exact
// failures of Open, and IV uniqueness under concurrent sealing.

#include "store/envelope.h"

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/coding.h"

namespace kandb::store {
namespace {

StoreCrypto Key(const std::string& passphrase) { return StoreCryptoFromPassphrase(passphrase); }

uint64_t IvPrefix(const std::string& sealed) { return DecodeFixed64(sealed.data()); }
uint64_t IvCounter(const std::string& sealed) { return DecodeFixed64(sealed.data() + 8); }

TEST(EnvelopeTest, PlainStoreIsIdentity) {
  const StoreCrypto off = Key("");
  EXPECT_FALSE(off.encrypted);
  for (const std::string& v : {std::string(), std::string("x"), std::string(15, '\0'),
                              std::string("\xff\x00\x10", 3)}) {
    EXPECT_EQ(SealValue(off, v), v);
    std::string out = "junk";
    ASSERT_TRUE(OpenValue(off, v, &out).ok());
    EXPECT_EQ(out, v);
  }
  // Bytes that would be too short to open sealed are fine in plain.
  std::string out;
  EXPECT_TRUE(OpenValue(off, std::string(5, 'a'), &out).ok());
}

TEST(EnvelopeTest, KeyIsFirstHalfOfSm3OfPassphrase) {
  // SM3("abc") = 66c7f0f4 62eeedd9 d1f2d46b dc10e4e2 4167c487 ...
  const StoreCrypto k = Key("abc");
  ASSERT_TRUE(k.encrypted);
  const uint8_t want[16] = {0x66, 0xc7, 0xf0, 0xf4, 0x62, 0xee, 0xed, 0xd9,
                            0xd1, 0xf2, 0xd4, 0x6b, 0xdc, 0x10, 0xe4, 0xe2};
  for (int i = 0; i < 16; i++) EXPECT_EQ(k.key[i], want[i]) << i;
}

TEST(EnvelopeTest, SealedSizesAndRoundTrip) {
  const StoreCrypto k = Key("secret");
  struct Case {
    size_t plain;
    size_t sealed;
  };
  for (Case c : {Case{0, 32}, Case{1, 32}, Case{15, 32}, Case{16, 48}, Case{17, 48},
                 Case{100, 128}}) {
    std::string plain(c.plain, '\0');
    for (size_t i = 0; i < c.plain; i++) plain[i] = static_cast<char>(i * 7 + 1);
    const std::string sealed = SealValue(k, plain);
    EXPECT_EQ(sealed.size(), c.sealed) << c.plain;
    std::string opened;
    ASSERT_TRUE(OpenValue(k, sealed, &opened).ok()) << c.plain;
    EXPECT_EQ(opened, plain);
  }
}

TEST(EnvelopeTest, ConsecutiveSealsShareThePrefixAndStepTheCounter) {
  const StoreCrypto k = Key("secret");
  const std::string a = SealValue(k, "same value");
  const std::string b = SealValue(k, "same value");
  EXPECT_EQ(IvPrefix(a), IvPrefix(b));
  EXPECT_EQ(IvCounter(b), IvCounter(a) + 1);
  EXPECT_NE(a.substr(kIvSize), b.substr(kIvSize));
}

TEST(EnvelopeTest, OpenFailuresExactTextsAndOutputUntouched) {
  const StoreCrypto k = Key("secret");
  std::string out = "untouched";

  Status s = OpenValue(k, std::string(15, 'x'), &out);
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.ToString(), "Corruption: tde: ciphertext too short");
  EXPECT_EQ(OpenValue(k, "", &out).ToString(), "Corruption: tde: ciphertext too short");

  s = OpenValue(k, std::string(16, 'x'), &out);
  EXPECT_EQ(s.ToString(), "InvalidArgument: sm4: ciphertext not block-aligned");
  s = OpenValue(k, SealValue(k, "abc") + "x", &out);
  EXPECT_EQ(s.ToString(), "InvalidArgument: sm4: ciphertext not block-aligned");

  EXPECT_EQ(out, "untouched");

  // A wrong key decrypts to garbage that the padding check rejects, except
  // by a rare accident (about 1 in 256), so count over several seals.
  const StoreCrypto other = Key("other");
  int bad_padding = 0;
  for (int i = 0; i < 8; i++) {
    std::string garbage;
    s = OpenValue(other, SealValue(k, "region record"), &garbage);
    if (!s.ok()) {
      EXPECT_TRUE(s.IsInvalidArgument());
      if (s.message() == "sm4: bad padding") bad_padding++;
    }
  }
  EXPECT_GE(bad_padding, 6);
}

TEST(EnvelopeTest, ConcurrentSealersNeverShareAnIv) {
  const StoreCrypto k = Key("secret");
  constexpr int kThreads = 8;
  constexpr int kPerThread = 2000;
  std::vector<std::vector<std::string>> ivs(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; i++) ivs[t].push_back(SealValue(k, "v").substr(0, kIvSize));
    });
  }
  for (std::thread& th : threads) th.join();

  std::set<std::string> distinct;
  const uint64_t prefix = IvPrefix(ivs[0][0]);
  for (const auto& list : ivs) {
    for (const std::string& iv : list) {
      EXPECT_EQ(IvPrefix(iv), prefix);
      distinct.insert(iv);
    }
  }
  EXPECT_EQ(distinct.size(), static_cast<size_t>(kThreads * kPerThread));
}

}  // namespace
}  // namespace kandb::store
