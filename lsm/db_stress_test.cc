// Writers, readers, flushes and compactions at once. Meant for the
// ThreadSanitizer build as much as for its own checks; injected failures
// are the fault sweep's (db_fault_test.cc).

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

// No reader ever sees a key go back to an older version, whatever the
// background thread installs meanwhile.
TEST(StressTest, ReadsNeverGoBackwardsWhileTablesChangeUnderThem) {
  ScratchDir dir;
  const LsmDb::Options options = SmallOptions(4096, 2, false);
  std::unique_ptr<LsmDb> db;
  ASSERT_TRUE(LsmDb::Open(dir.path(), options, &db).ok());
  constexpr int kWriters = 3;
  constexpr int kKeys = 16;
  std::atomic<bool> stop{false};
  std::vector<uint64_t> last_version(kWriters, 0);
  std::vector<std::thread> threads;
  for (int w = 0; w < kWriters; ++w) {
    threads.emplace_back([&, w] {
      // Each batch rewrites every key of this writer and deletes or puts a
      // scratch key, so compaction has versions and markers to drop.
      const std::string p = std::string("w").append(std::to_string(w)) + "/";
      uint64_t version = 0;
      while (!stop) {
        // The engine never stalls writers; the test does, to keep the
        // backlog of memtables small enough to drain quickly.
        while (db->ImmutableMemTableCount() > 2 && !stop) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ++version;
        WriteBatch batch;
        for (int k = 0; k < kKeys; ++k) batch.push_back(Put(p + std::to_string(k), Version(version)));
        batch.push_back(version % 2 ? Del(p + "x") : Put(p + "x", "x"));
        ASSERT_TRUE(db->Write(batch).ok());
      }
      last_version[w] = version;
    });
  }
  std::atomic<uint64_t> reads{0};
  auto reader = [&](bool scans) {
    std::map<std::string, std::string> seen;  // may only grow
    while (!stop) {
      std::vector<Entry> out;
      if (scans) {
        (void)db->TableFileCount();
        ASSERT_TRUE(db->Scan("w", "x", 1000, &out).ok());
        for (size_t i = 1; i < out.size(); ++i) ASSERT_LT(out[i - 1].key, out[i].key);
      } else {
        for (int w = 0; w < kWriters; ++w) {
          Entry e = Put(std::string("w").append(std::to_string(w)) + "/" + std::to_string(reads % kKeys), "");
          bool found = false;
          ASSERT_TRUE(db->Get(e.key, &e.value, &found).ok());
          if (found) out.push_back(e);
        }
      }
      for (const Entry& e : out) {
        if (e.value == "x") continue;
        ASSERT_GE(e.value, seen[e.key]) << e.key;
        seen[e.key] = e.value;
      }
      ++reads;
    }
  };
  threads.emplace_back(reader, false);
  threads.emplace_back(reader, true);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  stop = true;
  for (std::thread& t : threads) t.join();
  db->WaitForBackgroundIdle();
  EXPECT_GT(reads.load(), 0u);
  EXPECT_LE(db->TableFileCount(), 2u);

  // Every key ends at its writer's last version, before and after a reopen.
  for (int pass = 0; pass < 2; ++pass) {
    for (int w = 0; w < kWriters; ++w) {
      const std::string p = std::string("w").append(std::to_string(w)) + "/";
      for (int k = 0; k < kKeys; ++k) EXPECT_EQ(GetOrAbsent(db.get(), p + std::to_string(k)), Version(last_version[w]));
      EXPECT_EQ(GetOrAbsent(db.get(), p + "x"), last_version[w] % 2 ? "<absent>" : "x");
    }
    db.reset();
    ASSERT_TRUE(LsmDb::Open(dir.path(), options, &db).ok());
  }
}

}  // namespace
}  // namespace kandb::lsm
