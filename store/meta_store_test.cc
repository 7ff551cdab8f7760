// The sealed value envelope and the metadata store over a real engine in a
// scratch directory: sizes, IVs, exact failures, and what a store opened
// without or with another passphrase sees.

#include "store/meta_store.h"

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/coding.h"
#include "common/test_util.h"
#include "store/envelope.h"

namespace kandb::store {
namespace {

const std::string kBinary("\x00\x01\xff\x10pd", 6);

TEST(EnvelopeTest, SizesRoundTripAndPlainIdentity) {
  const StoreCrypto k = StoreCryptoFromPassphrase("secret");
  const StoreCrypto off = StoreCryptoFromPassphrase("");
  EXPECT_FALSE(off.encrypted);
  for (auto [plain_size, sealed_size] : {std::pair<size_t, size_t>{0, 32}, {1, 32}, {15, 32},
                                         {16, 48}, {17, 48}, {100, 128}}) {
    std::string plain(plain_size, '\0');
    for (size_t i = 0; i < plain_size; i++) plain[i] = static_cast<char>(i * 7 + 1);
    const std::string sealed = SealValue(k, plain);
    EXPECT_EQ(sealed.size(), sealed_size) << plain_size;
    std::string opened;
    ASSERT_TRUE(OpenValue(k, sealed, &opened).ok()) << plain_size;
    EXPECT_EQ(opened, plain);
    EXPECT_EQ(SealValue(off, plain), plain);
    ASSERT_TRUE(OpenValue(off, plain, &opened).ok());
    EXPECT_EQ(opened, plain);
  }
  // The key is the first half of SM3 of the passphrase: SM3("abc") = 66c7f0f4 ...
  const uint8_t want[16] = {0x66, 0xc7, 0xf0, 0xf4, 0x62, 0xee, 0xed, 0xd9,
                            0xd1, 0xf2, 0xd4, 0x6b, 0xdc, 0x10, 0xe4, 0xe2};
  const StoreCrypto abc = StoreCryptoFromPassphrase("abc");
  for (int i = 0; i < 16; i++) EXPECT_EQ(abc.key[i], want[i]) << i;
}

TEST(EnvelopeTest, OpenFailuresKeepTheOutput) {
  const StoreCrypto k = StoreCryptoFromPassphrase("secret");
  struct Case {
    std::string stored, want;
  } cases[] = {
      {"", "Corruption: tde: ciphertext too short"},
      {std::string(15, 'x'), "Corruption: tde: ciphertext too short"},
      {std::string(16, 'x'), "InvalidArgument: sm4: ciphertext not block-aligned"},
      {SealValue(k, "abc") + "x", "InvalidArgument: sm4: ciphertext not block-aligned"},
  };
  for (const Case& c : cases) {
    std::string out = "untouched";
    EXPECT_EQ(OpenValue(k, c.stored, &out).ToString(), c.want);
    EXPECT_EQ(out, "untouched");
  }
}

TEST(EnvelopeTest, ConcurrentSealersShareThePrefixAndNeverAnIv) {
  const StoreCrypto k = StoreCryptoFromPassphrase("secret");
  constexpr int kThreads = 8, kPerThread = 2000;
  std::vector<std::vector<std::string>> ivs(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; i++) ivs[t].push_back(SealValue(k, "v").substr(0, kIvSize));
    });
  }
  for (std::thread& th : threads) th.join();
  std::set<std::string> distinct;
  for (const auto& list : ivs) {
    for (size_t i = 0; i < list.size(); i++) {
      EXPECT_EQ(DecodeFixed64(list[i].data()), DecodeFixed64(ivs[0][0].data()));
      if (i > 0) {
        EXPECT_GT(DecodeFixed64(list[i].data() + 8), DecodeFixed64(list[i - 1].data() + 8));
      }
      distinct.insert(list[i]);
    }
  }
  EXPECT_EQ(distinct.size(), static_cast<size_t>(kThreads * kPerThread));
}

class MetaStoreTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = kandb::testing::MakeTempDir("kandb-store"); }
  void TearDown() override { kandb::testing::RemoveTree(dir_); }

  std::unique_ptr<MetaStore> Open(const std::string& passphrase) {
    std::unique_ptr<MetaStore> store;
    EXPECT_TRUE(MetaStore::Open(dir_, passphrase, 0, &store).ok());
    return store;
  }
  // The value, "<absent>", or the rendered failure.
  static std::string Get(MetaStore* store, const std::string& key) {
    std::string value = "untouched";
    bool found = false;
    Status s = store->Get(key, &value, &found);
    if (!s.ok()) return s.ToString() + (value == "untouched" ? "" : " (output changed)");
    return found ? value : "<absent>";
  }
  static std::vector<KeyValue> Scan(MetaStore* store, const std::string& start, const std::string& end, uint32_t limit) {
    std::vector<KeyValue> out = {{"stale", "entry"}};
    EXPECT_TRUE(store->Scan(start, end, limit, &out).ok());
    return out;
  }

  std::string dir_;
};

TEST_F(MetaStoreTest, PlainBatchesAndRangeReads) {
  {
    auto store = Open("");
    ASSERT_TRUE(store->Put({{"a", ""}, {"b", kBinary}, {"a", "later"}}).ok());
  }
  auto store = Open("");
  EXPECT_EQ(Get(store.get(), "a"), "later");  // later pair of one batch wins
  EXPECT_EQ(Get(store.get(), "b"), kBinary);  // byte for byte after a reopen
  EXPECT_EQ(Get(store.get(), "c"), "<absent>");
  // Deletions follow the puts, so a key both put and deleted is gone.
  ASSERT_TRUE(store->Write({{"c", "3"}, {"b", "new"}}, {"b", "a", "absent"}).ok());
  EXPECT_EQ(Scan(store.get(), "", "", 100), (std::vector<KeyValue>{{"c", "3"}}));

  ASSERT_TRUE(
      store->Put({{"pd/region/10", "r10"}, {"pd/region/9", "r9"}, {"pd/region0", "x"}, {"pd/regio", "x"}, {"pd/region/", "p"}}).ok());
  EXPECT_EQ(Scan(store.get(), "pd/region/", "pd/region0", 1000),
            (std::vector<KeyValue>{{"pd/region/", "p"}, {"pd/region/10", "r10"}, {"pd/region/9", "r9"}}));
  EXPECT_EQ(Scan(store.get(), "pd/region/", "pd/region0", 2),
            (std::vector<KeyValue>{{"pd/region/", "p"}, {"pd/region/10", "r10"}}));
  EXPECT_TRUE(Scan(store.get(), "pd/region/", "pd/region0", 0).empty());
  std::vector<std::string> seen;
  ASSERT_TRUE(store->ForEach("pd/region/1", "", 1000, [&](std::string_view k, std::string_view) {
                     seen.emplace_back(k);
                     return seen.size() < 2;
                   }).ok());
  EXPECT_EQ(seen, (std::vector<std::string>{"pd/region/10", "pd/region/9"}));
}

TEST_F(MetaStoreTest, SealedStoreWithoutOrWithAnotherPassphrase) {
  {
    auto store = Open("secret");
    ASSERT_TRUE(store->Put({{"empty", ""}, {"sixteen", std::string(16, 's')}, {"x", kBinary}}).ok());
  }
  {
    // Without the passphrase the store hands out the sealed bytes as they lie;
    // a short value planted in plain cannot be opened sealed later.
    auto plain = Open("");
    EXPECT_EQ(Get(plain.get(), "empty").size(), 32u);
    EXPECT_EQ(Get(plain.get(), "sixteen").size(), 48u);
    ASSERT_TRUE(plain->Put({{"short", "short"}}).ok());
  }
  {
    auto wrong = Open("another");
    int bad_padding = 0;
    for (const char* key : {"empty", "sixteen", "x"}) {
      const std::string got = Get(wrong.get(), key);
      // A wrong key can, rarely, yield valid padding.
      bad_padding += got == "InvalidArgument: sm4: bad padding";
    }
    EXPECT_GE(bad_padding, 2);
  }
  auto store = Open("secret");
  EXPECT_EQ(Get(store.get(), "sixteen"), std::string(16, 's'));
  EXPECT_EQ(Get(store.get(), "short"), "Corruption: tde: ciphertext too short");
  // A scan stops at the first value that cannot be opened.
  std::vector<KeyValue> out;
  EXPECT_EQ(store->Scan("", "", 100, &out).ToString(), "Corruption: tde: ciphertext too short");
  EXPECT_EQ(out, (std::vector<KeyValue>{{"empty", ""}}));
}

}  // namespace
}  // namespace kandb::store
