// Flush and compaction: their crash-safety order, their results, their
// retries, and a flush installed while a compaction runs.

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "lsm/db.h"
#include "lsm/db_test_util.h"
#include "lsm/filename.h"

namespace kandb::lsm {
namespace {

class BackgroundTest : public ::testing::Test {
 protected:
  void OpenDb(const LsmDb::Options& options) { ASSERT_TRUE(LsmDb::Open(dir_.path(), options, &db_).ok()); }
  // The gate opens first, so that a test that failed while the background
  // thread was held can still close the engine.
  void TearDown() override {
    gate_.Open();
    db_.reset();
  }
  std::string Manifest() { return testing::ReadFileOrEmpty(dir_.File("MANIFEST")); }
  std::vector<std::string> Tables() {
    std::vector<std::string> tables;
    for (const std::string& name : ListNames(dir_.path())) {
      if (name.rfind("sst-", 0) == 0) tables.push_back(name);
    }
    return tables;
  }

  ScratchDir dir_;
  // What the hooks use lives here, so that it outlives the engine's thread.
  Gate gate_;
  std::mutex steps_mu_;
  std::vector<std::string> steps_;
  std::atomic<int> countdown_{-1};
  HookedFileIo io_;
  ScopedFileIo install_{&io_};
  std::unique_ptr<LsmDb> db_;
};

TEST_F(BackgroundTest, FlushPublishesTableThenManifestThenDeletesLogs) {
  // Records the order of the flush's visible steps, and what the manifest
  // on disk says at the moment each log is unlinked.
  io_.on_rename = [this](const std::string&, const std::string& to) {
    std::lock_guard<std::mutex> lock(steps_mu_);
    steps_.push_back("rename " + Basename(to));
  };
  io_.on_unlink = [this](const std::string& path) {
    std::lock_guard<std::mutex> lock(steps_mu_);
    steps_.push_back("unlink " + Basename(path) + " with manifest [" + Manifest() + "]");
  };
  OpenDb(SmallOptions(100, 8, true));  // wal 1; the switch opens wal 2
  ASSERT_TRUE(db_->Write({Put("k", std::string(100, 'v'))}).ok());
  db_->WaitForBackgroundIdle();
  ASSERT_TRUE(Eventually([&] { return !FileExists(LogFileName(dir_.path(), 1)); }));

  // Copied out: the hooks run with the engine's lock held, so the test must
  // not hold steps_mu_ while it calls the engine.
  std::vector<std::string> steps;
  {
    std::lock_guard<std::mutex> lock(steps_mu_);
    steps = steps_;
  }
  EXPECT_EQ(steps, (std::vector<std::string>{
                       "rename MANIFEST",  // by Open
                       "rename sst-000003.sst",
                       "rename MANIFEST",
                       "unlink wal-000001.log with manifest [next_file 4\nsst 3\n]",
                   }));
  EXPECT_TRUE(FileExists(LogFileName(dir_.path(), 2)));
  EXPECT_EQ(GetOrAbsent(db_.get(), "k"), std::string(100, 'v'));
}

TEST_F(BackgroundTest, CompactionDropsDeletionsAndOverwrittenVersions) {
  // Every write fills its memtable, so every write becomes one table file.
  OpenDb(SmallOptions(1, 2, false));
  LsmDbTestPeer peer(db_.get());
  auto write = [&](const Entry& e) {
    ASSERT_TRUE(db_->Write({e}).ok());
    db_->WaitForBackgroundIdle();
  };
  write(Put("a", "1"));
  write(Put("b", "1"));
  EXPECT_EQ(db_->TableFileCount(), 2u);
  write(Del("b"));  // the third table goes over the limit of two
  EXPECT_EQ(db_->TableFileCount(), 1u);
  EXPECT_EQ(peer.TableEntryCounts(), (std::vector<uint64_t>{1}));  // only a=1 is left
  EXPECT_EQ(GetOrAbsent(db_.get(), "b"), "<absent>");

  write(Put("a", "2"));
  write(Put("c", "3"));
  EXPECT_EQ(peer.TableEntryCounts(), (std::vector<uint64_t>{2}));
  EXPECT_EQ(GetOrAbsent(db_.get(), "a"), "2");
  EXPECT_EQ(GetOrAbsent(db_.get(), "c"), "3");

  // Only the merged table is on disk and in the manifest; the inputs are gone.
  const std::vector<uint64_t> live = peer.LiveTables();
  ASSERT_EQ(live.size(), 1u);
  ASSERT_TRUE(Eventually([&] { return Tables().size() == 1; }));
  EXPECT_EQ(Tables()[0], Basename(TableFileName(dir_.path(), live[0])));
  EXPECT_NE(Manifest().find("\nsst " + std::to_string(live[0]) + "\n"), std::string::npos);

  db_.reset();
  OpenDb(SmallOptions(1, 2, false));
  EXPECT_EQ(GetOrAbsent(db_.get(), "a"), "2");
  EXPECT_EQ(GetOrAbsent(db_.get(), "b"), "<absent>");
}

TEST_F(BackgroundTest, TableFlushedDuringCompactionSurvivesIt) {
  // The background thread never flushes while it compacts, so the test
  // flushes from its own thread while the compaction is held just before
  // publishing its output: the second table rename after arming.
  io_.on_rename = [this](const std::string& from, const std::string&) {
    if (from.find(".sst") == std::string::npos || countdown_.load() < 0) return;
    if (countdown_.fetch_sub(1) == 0) gate_.Arrive();
  };
  OpenDb(SmallOptions(1, 2, false));
  LsmDbTestPeer peer(db_.get());
  ASSERT_TRUE(db_->Write({Put("a", "1"), Put("x", "old")}).ok());
  db_->WaitForBackgroundIdle();
  ASSERT_TRUE(db_->Write({Put("b", "1")}).ok());
  db_->WaitForBackgroundIdle();

  countdown_ = 1;  // the third table's flush passes; the compaction stops
  ASSERT_TRUE(db_->Write({Put("c", "1")}).ok());
  ASSERT_TRUE(gate_.WaitArrived());

  // A write retires a memtable that the held background thread cannot
  // flush; the test flushes it and installs it in front of the inputs.
  ASSERT_TRUE(db_->Write({Put("x", "new"), Del("a")}).ok());
  ASSERT_EQ(db_->ImmutableMemTableCount(), 1u);
  ASSERT_TRUE(peer.FlushOldestMemTable().ok());
  const uint64_t flushed = peer.LiveTables().front();
  ASSERT_EQ(peer.LiveTables().size(), 4u);

  const std::vector<uint64_t> before = peer.LiveTables();

  gate_.Open();
  db_->WaitForBackgroundIdle();
  const std::vector<uint64_t> live = peer.LiveTables();
  ASSERT_EQ(live.size(), 2u);
  EXPECT_EQ(live[0], flushed);
  // Behind it the merged table, numbered before the flush took its number.
  EXPECT_LT(live[1], flushed);
  for (uint64_t input : before) {
    if (input == flushed) continue;
    EXPECT_NE(live[1], input);
    EXPECT_TRUE(Eventually([&] { return !FileExists(TableFileName(dir_.path(), input)); }));
  }
  EXPECT_EQ(Manifest(), "next_file " + std::to_string(peer.NextFile()) + "\nsst " + std::to_string(live[0]) +
                            "\nsst " + std::to_string(live[1]) + "\n");
  // The newer table still wins over the merged data: x was rewritten and a
  // deleted after the compaction took its inputs.
  EXPECT_EQ(GetOrAbsent(db_.get(), "x"), "new");
  EXPECT_EQ(GetOrAbsent(db_.get(), "a"), "<absent>");
  EXPECT_EQ(GetOrAbsent(db_.get(), "b"), "1");
  EXPECT_EQ(GetOrAbsent(db_.get(), "c"), "1");

  db_.reset();
  OpenDb(SmallOptions(1, 2, false));
  EXPECT_EQ(LsmDbTestPeer(db_.get()).LiveTables(), live);
  EXPECT_EQ(GetOrAbsent(db_.get(), "x"), "new");
  EXPECT_EQ(GetOrAbsent(db_.get(), "a"), "<absent>");
}

TEST_F(BackgroundTest, FailedFlushIsRetriedUntilItSucceeds) {
  OpenDb(SmallOptions(100, 8, true));
  io_.FailFrom(FileOp::kRename, 1, ".sst");
  ASSERT_TRUE(db_->Write({Put("k", std::string(100, 'v'))}).ok());
  // Retried at once, again and again, while the fault lasts.
  ASSERT_TRUE(Eventually([&] { return io_.injected(FileOp::kRename) >= 5; }));
  EXPECT_EQ(db_->ImmutableMemTableCount(), 1u);
  EXPECT_EQ(db_->TableFileCount(), 0u);
  EXPECT_TRUE(FileExists(LogFileName(dir_.path(), 1)));
  EXPECT_EQ(GetOrAbsent(db_.get(), "k"), std::string(100, 'v'));

  io_.Clear(FileOp::kRename);
  db_->WaitForBackgroundIdle();
  EXPECT_EQ(db_->TableFileCount(), 1u);
  EXPECT_TRUE(Eventually([&] { return !FileExists(LogFileName(dir_.path(), 1)); }));
  EXPECT_EQ(Tables().size(), 1u);  // failed attempts left no files behind
  EXPECT_EQ(GetOrAbsent(db_.get(), "k"), std::string(100, 'v'));
}

}  // namespace
}  // namespace kandb::lsm
