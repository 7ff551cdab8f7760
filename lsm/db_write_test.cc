// Group commit, syncing and the memtable switch.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "lsm/db.h"
#include "lsm/db_test_util.h"
#include "lsm/filename.h"

namespace kandb::lsm {
namespace {

class WritePathTest : public ::testing::Test {
 protected:
  void OpenDb(const LsmDb::Options& options) { ASSERT_TRUE(LsmDb::Open(dir_.path(), options, &db_).ok()); }

  ScratchDir dir_;
  // Installed before any engine opens its log, so that the log's writes and
  // syncs are matched by path.
  HookedFileIo io_;
  ScopedFileIo install_{&io_};
  std::unique_ptr<LsmDb> db_;
};

TEST_F(WritePathTest, SyncedWritesSyncOncePerGroupAndUnsyncedNever) {
  OpenDb(SmallOptions(1 << 20, 8, /*sync=*/true));
  io_.ResetCounts();
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(db_->Write({Put("k" + std::to_string(i), "v")}).ok());
  EXPECT_EQ(io_.count(FileOp::kFdatasync), 5u);
  EXPECT_EQ(io_.count(FileOp::kWrite), 5u);  // one record, one write call
  db_.reset();

  OpenDb(SmallOptions(1 << 20, 8, /*sync=*/false));
  io_.ResetCounts();
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(db_->Write({Put("k" + std::to_string(i), "w")}).ok());
  EXPECT_EQ(io_.count(FileOp::kFdatasync), 0u);
  EXPECT_EQ(GetOrAbsent(db_.get(), "k4"), "w");
}

// Holds the first group in its fdatasync until seven more writers have
// queued behind it; they must then go out as one group with one sync.
// When `fail_second_sync` is set, that second sync fails and every writer
// of the group must hear so.
void RunTwoGroups(HookedFileIo* io, LsmDb* db, bool fail_second_sync) {
  Gate gate;
  io->on_fdatasync = [&gate](int) { gate.Arrive(); };
  io->ResetCounts();

  Status first;
  std::thread leader([&] { first = db->Write({Put("leader", "L")}); });
  EXPECT_TRUE(gate.WaitArrived());

  constexpr int kFollowers = 7;
  std::vector<Status> results(kFollowers);
  std::vector<std::thread> followers;
  for (int i = 0; i < kFollowers; ++i) {
    followers.emplace_back([&, i] {
      results[i] = db->Write({Put("f" + std::to_string(i), "a"), Put("g" + std::to_string(i), "b")});
    });
  }
  LsmDbTestPeer peer(db);
  EXPECT_TRUE(Eventually([&] { return peer.QueuedWriters() == 1 + kFollowers; }));
  if (fail_second_sync) io->FailNth(FileOp::kFdatasync, 2);
  gate.Open();
  leader.join();
  for (std::thread& t : followers) t.join();
  io->on_fdatasync = nullptr;

  EXPECT_TRUE(first.ok()) << first.ToString();
  EXPECT_EQ(io->count(FileOp::kFdatasync), 2u);
  EXPECT_EQ(io->count(FileOp::kWrite), 1u + kFollowers);
  for (int i = 0; i < kFollowers; ++i) {
    const std::string f = GetOrAbsent(db, "f" + std::to_string(i));
    const std::string g = GetOrAbsent(db, "g" + std::to_string(i));
    if (fail_second_sync) {
      EXPECT_EQ(results[i].code(), Status::kCorruption);
      EXPECT_EQ(results[i].message(), "wal fdatasync: Input/output error");
      // A failed group never reaches the memtable.
      EXPECT_EQ(f, "<absent>");
      EXPECT_EQ(g, "<absent>");
    } else {
      EXPECT_TRUE(results[i].ok()) << results[i].ToString();
      EXPECT_EQ(f, "a");
      EXPECT_EQ(g, "b");
    }
  }
}

TEST_F(WritePathTest, WritersQueuedBehindAGroupShareOneSync) {
  OpenDb(SmallOptions(1 << 20, 8, true));
  RunTwoGroups(&io_, db_.get(), /*fail_second_sync=*/false);
}

TEST_F(WritePathTest, FailedSyncIsReportedToEveryWriterOfTheGroup) {
  OpenDb(SmallOptions(1 << 20, 8, true));
  RunTwoGroups(&io_, db_.get(), /*fail_second_sync=*/true);
  // The engine goes on after the failure.
  ASSERT_TRUE(db_->Write({Put("after", "1")}).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "after"), "1");
}

TEST_F(WritePathTest, SwitchesAtExactlyTheWriteBufferSizeWithSharedNumbers) {
  // 99 bytes stay below the 132-byte buffer; 33 more reach it exactly.
  OpenDb(SmallOptions(132, 8, true));
  ASSERT_EQ(LsmDbTestPeer(db_.get()).NextFile(), 2u);  // wal-000001.log is current
  ASSERT_TRUE(db_->Write({Put("a", std::string(66, 'x'))}).ok());
  EXPECT_FALSE(FileExists(LogFileName(dir_.path(), 2)));
  ASSERT_TRUE(db_->Write({Put("b", "")}).ok());
  EXPECT_TRUE(FileExists(LogFileName(dir_.path(), 2)));

  // The flush takes the next number from the same counter, and the next
  // switch the one after it.
  db_->WaitForBackgroundIdle();
  EXPECT_TRUE(FileExists(TableFileName(dir_.path(), 3)));
  EXPECT_TRUE(Eventually([&] { return !FileExists(LogFileName(dir_.path(), 1)); }));
  EXPECT_TRUE(FileExists(LogFileName(dir_.path(), 2)));  // its memtable is still active
  ASSERT_TRUE(db_->Write({Put("c", std::string(200, 'y'))}).ok());
  EXPECT_TRUE(FileExists(LogFileName(dir_.path(), 4)));
  db_->WaitForBackgroundIdle();
  EXPECT_EQ(LsmDbTestPeer(db_.get()).LiveTables(), (std::vector<uint64_t>{5, 3}));
  EXPECT_EQ(GetOrAbsent(db_.get(), "a"), std::string(66, 'x'));
  EXPECT_EQ(GetOrAbsent(db_.get(), "c"), std::string(200, 'y'));
}

TEST_F(WritePathTest, FailedSwitchReportsButKeepsTheDataAndTheOldLog) {
  OpenDb(SmallOptions(100, 8, true));
  io_.FailNth(FileOp::kOpen, 1, "wal-");
  Status s = db_->Write({Put("big", std::string(100, 'z'))});
  EXPECT_EQ(s.code(), Status::kCorruption);
  EXPECT_EQ(s.message(), "wal open " + LogFileName(dir_.path(), 2) + ": Input/output error");
  // Logged and applied before the switch failed.
  EXPECT_EQ(GetOrAbsent(db_.get(), "big"), std::string(100, 'z'));

  // The full memtable was queued anyway and is flushed; the next group
  // goes to the old log, and the next full memtable switches normally.
  db_->WaitForBackgroundIdle();
  EXPECT_EQ(db_->TableFileCount(), 1u);
  ASSERT_TRUE(db_->Write({Put("next", std::string(100, 'n'))}).ok());
  EXPECT_TRUE(FileExists(LogFileName(dir_.path(), 4)));
  EXPECT_EQ(GetOrAbsent(db_.get(), "next"), std::string(100, 'n'));
}

}  // namespace
}  // namespace kandb::lsm
