// Readers, writers, flushes and compactions all at once. Meant for the
// ThreadSanitizer build as much as for its own checks: no reader may ever
// see a key go back to an older version, whatever the background thread
// installs meanwhile.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <map>
#include <thread>

#include "lsm/db.h"
#include "lsm/db_test_util.h"

namespace kandb::lsm {
namespace {

std::string Version(uint64_t n) {
  char buf[24];
  std::snprintf(buf, sizeof(buf), "%012llu", static_cast<unsigned long long>(n));
  return buf;
}

TEST(StressTest, ReadsNeverGoBackwardsWhileTablesChangeUnderThem) {
  ScratchDir dir;
  const LsmDb::Options options = SmallOptions(4096, 2, false);
  std::unique_ptr<LsmDb> db;
  ASSERT_TRUE(LsmDb::Open(dir.path(), options, &db).ok());

  constexpr int kWriters = 3;
  constexpr int kKeysPerWriter = 16;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
  std::atomic<bool> stop{false};
  std::vector<uint64_t> last_version(kWriters, 0);

  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      // Each batch rewrites every key of this writer with the next version
      // and deletes and re-creates a scratch key, so tables fill with
      // overwritten versions and deletion markers for compaction to drop.
      uint64_t version = 0;
      while (!stop) {
        // The engine never stalls writers; the test does, so that the
        // backlog of memtables stays small enough to drain quickly.
        while (db->ImmutableMemTableCount() > 2 && !stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ++version;
        WriteBatch batch;
        for (int k = 0; k < kKeysPerWriter; ++k) {
          batch.push_back(Put("w" + std::to_string(w) + "/" + std::to_string(k), Version(version)));
        }
        batch.push_back(version % 2 ? Del("w" + std::to_string(w) + "/x") : Put("w" + std::to_string(w) + "/x", "x"));
        ASSERT_TRUE(db->Write(batch).ok());
      }
      last_version[w] = version;
    });
  }

  std::atomic<uint64_t> reads{0};
  auto reader = [&](bool scans) {
    // What this reader has seen of each key: it may only grow.
    std::map<std::string, std::string> seen;
    while (!stop) {
      if (scans) {
        std::vector<Entry> out;
        ASSERT_TRUE(db->Scan("w", "x", 1000, &out).ok());
        for (size_t i = 0; i < out.size(); ++i) {
          if (i > 0) {
            ASSERT_LT(out[i - 1].key, out[i].key);
          }
          if (out[i].value == "x") continue;
          ASSERT_GE(out[i].value, seen[out[i].key]) << out[i].key;
          seen[out[i].key] = out[i].value;
        }
      } else {
        for (int w = 0; w < kWriters; ++w) {
          const std::string key = "w" + std::to_string(w) + "/" + std::to_string(reads % kKeysPerWriter);
          std::string value;
          bool found = false;
          ASSERT_TRUE(db->Get(key, &value, &found).ok());
          if (!found) continue;  // not written yet
          ASSERT_GE(value, seen[key]) << key;
          seen[key] = value;
        }
      }
      ++reads;
    }
  };
  threads.emplace_back(reader, false);
  threads.emplace_back(reader, true);
  threads.emplace_back([&] {
    while (std::chrono::steady_clock::now() < deadline) {
      (void)db->TableFileCount();
      (void)db->ImmutableMemTableCount();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    stop = true;
  });
  for (std::thread& t : threads) t.join();
  db->WaitForBackgroundIdle();
  EXPECT_GT(reads.load(), 0u);
  EXPECT_LE(db->TableFileCount(), 2u);

  // Every key ends at its writer's last version, before and after a reopen.
  for (int pass = 0; pass < 2; ++pass) {
    for (int w = 0; w < kWriters; ++w) {
      for (int k = 0; k < kKeysPerWriter; ++k) {
        EXPECT_EQ(GetOrAbsent(db.get(), "w" + std::to_string(w) + "/" + std::to_string(k)), Version(last_version[w]));
      }
      EXPECT_EQ(GetOrAbsent(db.get(), "w" + std::to_string(w) + "/x"), last_version[w] % 2 ? "<absent>" : "x");
    }
    db.reset();
    ASSERT_TRUE(LsmDb::Open(dir.path(), options, &db).ok());
  }
}

}  // namespace
}  // namespace kandb::lsm
