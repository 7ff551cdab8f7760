// The engine: group commit, memtable switch, reads, flush and compaction,
// and the rules of open.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <thread>

#include "lsm/db.h"
#include "lsm/db_test_util.h"
#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/manifest.h"
#include "lsm/table_builder.h"

namespace kandb::lsm {
namespace {

std::string Key(int i) {
  char buf[16];
  std::snprintf(buf, sizeof(buf), "k%05d", i);
  return buf;
}

class DbTest : public ::testing::Test {
 protected:
  // The gate opens first, so that a failed test whose background thread is
  // held can still close the engine.
  void TearDown() override {
    gate_.Open();
    db_.reset();
  }
  Status OpenDb(LsmDb::Options options) {
    options.io = &io_;
    return LsmDb::Open(dir_.path(), options, &db_);
  }
  std::string Manifest() { return testing::ReadFileOrEmpty(dir_.File("MANIFEST")); }
  bool Exists(const std::string& name) { return FileExists(dir_.File(name)); }
  // Makes everything written so far a table file of its own.
  void FlushAll() {
    ASSERT_TRUE(LsmDbTestPeer(db_.get()).SwitchMemTable().ok());
    db_->WaitForBackgroundIdle();
  }
  std::vector<std::string> Scan(const std::string& start, const std::string& end, uint32_t limit) {
    std::vector<Entry> out;
    Status s = db_->Scan(start, end, limit, &out);
    EXPECT_TRUE(s.ok()) << s.ToString();
    std::vector<std::string> kv;
    for (const Entry& e : out) kv.push_back(e.key + "=" + e.value);
    return kv;
  }
  void AppendToLog(uint64_t number, const WriteBatch& batch, const std::string& name = "") {
    std::unique_ptr<LogFile> log;
    ASSERT_TRUE(OpenLogForAppend(&io_, name.empty() ? LogFileName(dir_.path(), number) : dir_.File(name), &log).ok());
    std::string record;
    EncodeBatch(batch, &record);
    ASSERT_TRUE(log->Append(record.data(), record.size()).ok());
  }

  ScratchDir dir_;
  // What the hooks use lives here, so that it outlives the engine's thread.
  Gate gate_;
  std::mutex steps_mu_;
  std::vector<std::string> steps_;
  HookedFileIo io_;
  std::unique_ptr<LsmDb> db_;
};

// The first group is held in its fdatasync until seven writers queue behind
// it; they go out as one group with one sync. When that sync fails, every
// writer of the group hears so and none of its data is applied.
TEST_F(DbTest, QueuedWritersShareOneSyncAndItsFailure) {
  ASSERT_TRUE(OpenDb(SmallOptions(1 << 20, 8, true)).ok());
  constexpr int kFollowers = 7;
  for (bool fail : {false, true}) {
    SCOPED_TRACE(fail ? "failing sync" : "good sync");
    const std::string p = fail ? "bad" : "good";
    Gate gate;
    io_.on_fdatasync = [&gate](int) { gate.Arrive(); };
    io_.ResetCounts();
    Status first;
    std::thread leader([&] { first = db_->Write({Put(p + "leader", "L")}); });
    EXPECT_TRUE(gate.WaitArrived());
    // Odd followers write asynchronously: they share the group, its sync
    // and its failure, each answered exactly once.
    std::vector<Status> results(kFollowers);
    std::atomic<int> answered{0};
    std::vector<std::thread> followers;
    for (int i = 0; i < kFollowers; ++i) {
      WriteBatch batch = {Put(p + "f" + std::to_string(i), "a"), Put(p + "g", "b")};
      if (i % 2 == 1) {
        db_->WriteAsync(batch, [&, i](const Status& s) {
          results[i] = s;
          answered++;
        });
        continue;
      }
      followers.emplace_back([&, i, batch] {
        results[i] = db_->Write(batch);
        answered++;
      });
    }
    EXPECT_TRUE(Eventually([&] { return LsmDbTestPeer(db_.get()).QueuedWriters() == 1 + kFollowers; }));
    if (fail) io_.FailNth(FileOp::kFdatasync, 2);
    gate.Open();
    leader.join();
    for (std::thread& t : followers) t.join();
    EXPECT_TRUE(Eventually([&] { return answered.load() == kFollowers; }));
    io_.on_fdatasync = nullptr;

    EXPECT_TRUE(first.ok()) << first.ToString();
    EXPECT_EQ(io_.count(FileOp::kFdatasync), 2u);
    // One write per group, holding one record per writer.
    EXPECT_EQ(io_.count(FileOp::kWrite), 2u);
    if (!fail) {
      std::unique_ptr<LogReader> log;
      ASSERT_TRUE(LogReader::Open(DefaultFileIo(), LogFileName(dir_.path(), 1), &log).ok());
      WriteBatch batch;
      size_t records = 0;
      while (log->Next(&batch)) records++;
      EXPECT_EQ(records, 1u + kFollowers);
    }
    for (int i = 0; i < kFollowers; ++i) {
      EXPECT_EQ(results[i].ToString(), fail ? "Corruption: wal fdatasync: Input/output error" : "OK");
      EXPECT_EQ(GetOrAbsent(db_.get(), p + "f" + std::to_string(i)), fail ? "<absent>" : "a");
    }
    EXPECT_EQ(GetOrAbsent(db_.get(), p + "g"), fail ? "<absent>" : "b");
  }
  // The engine goes on, in a fresh log: a log whose sync failed is never
  // written again, since the kernel may have dropped its pages.
  const std::vector<std::string> before = ListNames(dir_.path());
  ASSERT_TRUE(db_->Write({Put("after", "1")}).ok());
  std::vector<std::string> added;
  for (const std::string& name : ListNames(dir_.path())) {
    if (std::find(before.begin(), before.end(), name) == before.end()) added.push_back(name);
  }
  EXPECT_EQ(added, (std::vector<std::string>{"wal-000002.log"}));
}

TEST_F(DbTest, SwitchesAtExactlyTheWriteBufferSizeWithSharedNumbers) {
  // 99 bytes stay below the 132-byte buffer; 33 more reach it exactly.
  ASSERT_TRUE(OpenDb(SmallOptions(132, 8, true)).ok());
  ASSERT_EQ(LsmDbTestPeer(db_.get()).NextFile(), 2u);  // wal-000001.log is current
  ASSERT_TRUE(db_->Write({Put("a", std::string(66, 'x'))}).ok());
  EXPECT_FALSE(Exists("wal-000002.log"));
  ASSERT_TRUE(db_->Write({Put("b", "")}).ok());
  EXPECT_TRUE(Exists("wal-000002.log"));
  // The flush takes the next number from the same counter, the next switch
  // the one after.
  db_->WaitForBackgroundIdle();
  EXPECT_TRUE(Exists("sst-000003.sst"));
  EXPECT_TRUE(Eventually([&] { return !Exists("wal-000001.log"); }));
  ASSERT_TRUE(db_->Write({Put("c", std::string(200, 'y'))}).ok());
  EXPECT_TRUE(Exists("wal-000004.log"));
  db_->WaitForBackgroundIdle();
  EXPECT_EQ(LsmDbTestPeer(db_.get()).LiveTables(), (std::vector<uint64_t>{5, 3}));
  EXPECT_EQ(GetOrAbsent(db_.get(), "a"), std::string(66, 'x'));
}

TEST_F(DbTest, NewestVersionWinsAndScansAreHalfOpen) {
  ASSERT_TRUE(OpenDb(SmallOptions(64 << 20, 100, false)).ok());
  ASSERT_TRUE(db_->Write({Put("twice", "old"), Put("gone", "was"), Put("c", "3")}).ok());
  FlushAll();
  ASSERT_TRUE(db_->Write({Put("twice", "new")}).ok());
  FlushAll();
  EXPECT_EQ(GetOrAbsent(db_.get(), "twice"), "new");  // newer table first
  // A deletion in the memtable hides the flushed value, before and after
  // its own flush; a put over a deletion in a table brings it back.
  ASSERT_TRUE(db_->Write({Del("gone"), Put("b", "2"), Put("\xff", "ff")}).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "gone"), "<absent>");
  const std::vector<std::string> all = {"b=2", "c=3", "twice=new", "\xff=ff"};  // bytes compare unsigned
  EXPECT_EQ(Scan("", "", 100), all);
  FlushAll();
  EXPECT_EQ(GetOrAbsent(db_.get(), "gone"), "<absent>");
  EXPECT_EQ(Scan("", "", 100), all);
  ASSERT_TRUE(db_->Write({Put("gone", "back")}).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "gone"), "back");

  EXPECT_EQ(Scan("b", "gone", 100), (std::vector<std::string>{"b=2", "c=3"}));  // end exclusive
  EXPECT_EQ(Scan("bb", "", 2), (std::vector<std::string>{"c=3", "gone=back"}));  // limit
  EXPECT_TRUE(Scan("", "", 0).empty());
  std::vector<Entry> out = {Put("stale", "entry")};
  ASSERT_TRUE(db_->Scan("c", "", 1, &out).ok());
  EXPECT_EQ(out, (std::vector<Entry>{Put("c", "3")}));
}

TEST_F(DbTest, LongScanCrossesMemTableChunksOnceEach) {
  // 10000 keys in a table, all rewritten in the memtable with every seventh
  // deleted: the scan refills its memtable chunk while merging the table.
  ASSERT_TRUE(OpenDb(SmallOptions(64 << 20, 100, false)).ok());
  constexpr int kKeys = 10000;
  for (int pass = 0; pass < 2; ++pass) {
    WriteBatch batch;
    for (int i = 0; i < kKeys; ++i) {
      batch.push_back(pass == 0 ? Put(Key(i), "old") : i % 7 != 0 ? Put(Key(i), "new") : Del(Key(i)));
    }
    ASSERT_TRUE(db_->Write(batch).ok());
    if (pass == 0) FlushAll();
  }
  std::vector<Entry> out, expected;
  ASSERT_TRUE(db_->Scan("", "", 1u << 30, &out).ok());
  for (int i = 1; i < kKeys; ++i) {
    if (i % 7 != 0) expected.push_back(Put(Key(i), "new"));
  }
  EXPECT_TRUE(out == expected) << out.size() << " entries";
}

TEST_F(DbTest, FlushPublishesTableThenManifestThenDeletesLogs) {
  io_.on_rename = [this](const std::string&, const std::string& to) {
    std::lock_guard<std::mutex> lock(steps_mu_);
    steps_.push_back("rename " + to.substr(to.rfind('/') + 1));
  };
  io_.on_unlink = [this](const std::string& path) {
    std::lock_guard<std::mutex> lock(steps_mu_);
    steps_.push_back("unlink " + path.substr(path.rfind('/') + 1) + " with manifest [" + Manifest() + "]");
  };
  ASSERT_TRUE(OpenDb(SmallOptions(100, 8, true)).ok());
  ASSERT_TRUE(db_->Write({Put("k", std::string(100, 'v'))}).ok());
  db_->WaitForBackgroundIdle();
  ASSERT_TRUE(Eventually([&] { return !Exists("wal-000001.log"); }));
  std::lock_guard<std::mutex> lock(steps_mu_);  // the engine is idle now
  EXPECT_EQ(steps_, (std::vector<std::string>{"rename MANIFEST",  // by Open
                                              "rename sst-000003.sst", "rename MANIFEST",
                                              "unlink wal-000001.log with manifest [next_file 4\nsst 3\n]"}));
  EXPECT_TRUE(Exists("wal-000002.log"));
}

TEST_F(DbTest, CompactionDropsDeletionsAndOverwrittenVersions) {
  // Every write fills its memtable and becomes one table file.
  ASSERT_TRUE(OpenDb(SmallOptions(1, 2, false)).ok());
  LsmDbTestPeer peer(db_.get());
  for (const Entry& e : {Put("a", "1"), Put("b", "1"), Del("b")}) {
    ASSERT_TRUE(db_->Write({e}).ok());
    db_->WaitForBackgroundIdle();
  }
  EXPECT_EQ(peer.TableEntryCounts(), (std::vector<uint64_t>{1}));  // the third went over two: only a=1 left
  for (const Entry& e : {Put("a", "2"), Put("c", "3")}) {
    ASSERT_TRUE(db_->Write({e}).ok());
    db_->WaitForBackgroundIdle();
  }
  EXPECT_EQ(peer.TableEntryCounts(), (std::vector<uint64_t>{2}));
  const std::vector<uint64_t> live = peer.LiveTables();
  ASSERT_EQ(live.size(), 1u);
  EXPECT_TRUE(Eventually([&] {  // the inputs are gone from disk
    for (uint64_t n = 1; n < peer.NextFile(); ++n) {
      if (FileExists(TableFileName(dir_.path(), n)) != (n == live[0])) return false;
    }
    return true;
  }));
  EXPECT_EQ(Manifest(), "next_file " + std::to_string(peer.NextFile()) + "\nsst " + std::to_string(live[0]) + "\n");
  db_.reset();
  ASSERT_TRUE(OpenDb(SmallOptions(1, 2, false)).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "a"), "2");
  EXPECT_EQ(GetOrAbsent(db_.get(), "b"), "<absent>");
}

// A bit flipped in a table's records fails the reads that reach its run and
// every compaction, which would otherwise copy the damage into a table
// that looks good; the tables stay as they are and the rest is served.
TEST_F(DbTest, DamagedTableFailsItsReadsAndCompactionButNothingElse) {
  ASSERT_TRUE(OpenDb(SmallOptions(1, 2, false)).ok());
  LsmDbTestPeer peer(db_.get());
  for (const Entry& e : {Put("a", "1"), Put("b", "2")}) {
    ASSERT_TRUE(db_->Write({e}).ok());
    db_->WaitForBackgroundIdle();
  }
  const std::vector<uint64_t> live = peer.LiveTables();
  ASSERT_EQ(live.size(), 2u);
  // The older table holds a=1 as its only record; flip a bit of its value
  // in place, under the open reader.
  const std::string damaged = TableFileName(dir_.path(), live[1]);
  {
    std::fstream f(damaged, std::ios::in | std::ios::out | std::ios::binary);
    f.seekp(10);
    f.put('1' ^ 0x02);
  }
  const std::string error = "Corruption: sst checksum mismatch: " + damaged + " at offset 0";
  EXPECT_EQ(GetOrAbsent(db_.get(), "a"), error);
  std::vector<Entry> out;
  EXPECT_EQ(db_->Scan("", "", 10, &out).ToString(), error);
  EXPECT_EQ(GetOrAbsent(db_.get(), "b"), "2");

  std::atomic<int> abandoned{0};
  io_.on_unlink = [&abandoned](const std::string& path) {
    if (path.size() > 8 && path.compare(path.size() - 8, 8, ".sst.tmp") == 0) ++abandoned;
  };
  ASSERT_TRUE(db_->Write({Put("c", "3")}).ok());  // a third table: a compaction is due
  ASSERT_TRUE(Eventually([&] { return abandoned.load() >= 1; }));  // and failed
  std::vector<uint64_t> now = peer.LiveTables();
  ASSERT_EQ(now.size(), 3u);
  EXPECT_EQ(std::vector<uint64_t>(now.begin() + 1, now.end()), live);
  const std::string manifest = Manifest();
  EXPECT_EQ(manifest.substr(manifest.find('\n') + 1), "sst " + std::to_string(now[0]) + "\nsst " +
                                                          std::to_string(live[0]) + "\nsst " + std::to_string(live[1]) + "\n");
  const std::vector<std::string> names = ListNames(dir_.path());
  EXPECT_EQ(std::count_if(names.begin(), names.end(), [](const std::string& n) { return n.rfind("sst-", 0) == 0; }), 3)
      << "no merged output is left behind";
  EXPECT_EQ(GetOrAbsent(db_.get(), "c"), "3");
  db_.reset();
  io_.on_unlink = nullptr;
}

TEST_F(DbTest, TableFlushedDuringCompactionSurvivesIt) {
  // The compaction is held just before it publishes its output (the second
  // table rename after arming); meanwhile the test flushes a newer memtable.
  std::atomic<int> countdown{-1};
  io_.on_rename = [this, &countdown](const std::string& from, const std::string&) {
    if (from.find(".sst") != std::string::npos && countdown.load() >= 0 && countdown.fetch_sub(1) == 0) gate_.Arrive();
  };
  ASSERT_TRUE(OpenDb(SmallOptions(1, 2, false)).ok());
  LsmDbTestPeer peer(db_.get());
  ASSERT_TRUE(db_->Write({Put("a", "1"), Put("x", "old")}).ok());
  db_->WaitForBackgroundIdle();
  ASSERT_TRUE(db_->Write({Put("b", "1")}).ok());
  db_->WaitForBackgroundIdle();
  countdown = 1;
  ASSERT_TRUE(db_->Write({Put("c", "1")}).ok());
  ASSERT_TRUE(gate_.WaitArrived());
  ASSERT_TRUE(db_->Write({Put("x", "new"), Del("a")}).ok());
  ASSERT_TRUE(peer.FlushOldestMemTable().ok());
  const std::vector<uint64_t> before = peer.LiveTables();
  ASSERT_EQ(before.size(), 4u);

  gate_.Open();
  db_->WaitForBackgroundIdle();
  const std::vector<uint64_t> live = peer.LiveTables();
  ASSERT_EQ(live.size(), 2u);
  EXPECT_EQ(live[0], before[0]);  // the flushed table, in front of the merged one
  EXPECT_EQ(std::count(before.begin(), before.end(), live[1]), 0);
  EXPECT_EQ(Manifest(), "next_file " + std::to_string(peer.NextFile()) + "\nsst " + std::to_string(live[0]) +
                            "\nsst " + std::to_string(live[1]) + "\n");
  db_.reset();
  ASSERT_TRUE(OpenDb(SmallOptions(1, 2, false)).ok());
  EXPECT_EQ(LsmDbTestPeer(db_.get()).LiveTables(), live);
  EXPECT_EQ(Scan("", "", 100), (std::vector<std::string>{"b=1", "c=1", "x=new"}));
}

// A flush that keeps failing is retried after a growing pause, leaving
// nothing behind per try; once the fault is gone it succeeds. A limit of
// zero table files never makes the background thread merge one table
// again and again.
TEST_F(DbTest, FailedFlushIsRetriedUntilItSucceeds) {
  ASSERT_TRUE(OpenDb(SmallOptions(100, 0, true)).ok());
  io_.FailFrom(FileOp::kRename, 1, ".sst");
  ASSERT_TRUE(db_->Write({Put("k", std::string(100, 'v'))}).ok());
  ASSERT_TRUE(Eventually([&] { return io_.injected(FileOp::kRename) >= 3; }));
  EXPECT_EQ(db_->ImmutableMemTableCount(), 1u);
  EXPECT_TRUE(Exists("wal-000001.log"));
  EXPECT_EQ(ListNames(dir_.path()), (std::vector<std::string>{"MANIFEST", "wal-000001.log", "wal-000002.log"}));
  io_.Clear(FileOp::kRename);
  db_->WaitForBackgroundIdle();
  EXPECT_EQ(db_->TableFileCount(), 1u);
  EXPECT_TRUE(Eventually([&] { return !Exists("wal-000001.log"); }));
  EXPECT_EQ(GetOrAbsent(db_.get(), "k"), std::string(100, 'v'));
  const uint64_t next = LsmDbTestPeer(db_.get()).NextFile();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(LsmDbTestPeer(db_.get()).NextFile(), next);  // idle, not merging
}

// The background thread's manifest write, sync, rename and directory sync,
// and its unlinks of replaced files, never run under the lock that a write
// leader takes. Held inside each of them, it keeps no write group waiting:
// neither one led by a writer thread (Write) nor one led by the caller of
// LeadDeferred, which the server's event loop is; nor the statistics. A
// switch meanwhile makes a log whose number the manifest being written
// does not cover; a crash there (the directory copied while the thread is
// held) opens with every acknowledged write and numbers its next file past
// every file it lists.
TEST(DbBackgroundIoTest, WriteGroupsCompleteWhileTheBackgroundThreadIsHeldInItsIo) {
  const std::string points[] = {"manifest fsync", "manifest rename", "log unlink"};
  for (const std::string& point : points) {
    SCOPED_TRACE(point);
    ScratchDir dir;
    ScratchDir image("kandb-crash-image");
    Gate gate;
    std::atomic<bool> armed{false};
    HookedFileIo io;
    io.on_fsync = [&](int fd) {
      if (armed.load() && point == "manifest fsync" && EndsWith(PathOfDescriptor(fd), "/MANIFEST.tmp")) gate.Arrive();
    };
    io.on_rename = [&](const std::string&, const std::string& to) {
      if (armed.load() && point == "manifest rename" && EndsWith(to, "/MANIFEST")) gate.Arrive();
    };
    io.on_unlink = [&](const std::string& path) {
      if (armed.load() && point == "log unlink" && EndsWith(path, ".log")) gate.Arrive();
    };
    const std::string value(600, 'v');
    std::unique_ptr<LsmDb> db;
    ASSERT_TRUE(LsmDb::Open(dir.path(), SmallOptions(1000, 8, true, &io), &db).ok());
    ASSERT_TRUE(db->Write({Put("before", value)}).ok());
    armed = true;
    // Fills the memtable: the switch wakes the background thread, whose
    // flush is then held at the point.
    ASSERT_TRUE(db->Write({Put("fill", value)}).ok());
    ASSERT_TRUE(gate.WaitArrived());

    // A writer that leads its own group and fills the memtable again, so
    // that its group switches to a new log; a deferred write whose group
    // the caller of LeadDeferred (or the commit thread) leads; Pd.Stats.
    std::atomic<int> completed{0};
    Status led, deferred;
    std::thread writer([&] {
      led = db->Write({Put("during/led", value + value)});
      ++completed;
    });
    std::thread loop([&] {
      db->WriteAsync({Put("during/deferred", "d")},
                     [&](const Status& s) {
                       deferred = s;
                       ++completed;
                     },
                     /*defer_lead=*/true);
      db->LeadDeferred();
      (void)db->GetStats();
      ++completed;
    });
    const bool all_completed = Eventually([&] { return completed.load() == 3; });
    EXPECT_TRUE(all_completed) << "write groups waited for the background thread's I/O";
    if (all_completed) {
      EXPECT_TRUE(led.ok()) << led.ToString();
      EXPECT_TRUE(deferred.ok()) << deferred.ToString();
      // What a crash at this point leaves on disk.
      std::filesystem::copy(dir.path(), image.path(), std::filesystem::copy_options::recursive |
                                                          std::filesystem::copy_options::overwrite_existing);
    }
    gate.Open();
    writer.join();
    loop.join();
    db->WaitForBackgroundIdle();
    db.reset();
    if (!all_completed) return;

    // The image holds a log made after its manifest's next_file was read.
    ManifestState manifest;
    bool exists = false;
    ASSERT_TRUE(ReadManifest(DefaultFileIo(), image.path(), &manifest, &exists).ok());
    uint64_t largest = 0;
    uint64_t largest_log = 0;
    for (const std::string& name : ListNames(image.path())) {
      uint64_t number = 0;
      const FileKind kind = ParseFileName(name, &number);
      if (kind == FileKind::kOther) continue;
      largest = std::max(largest, number);
      if (kind == FileKind::kLog) largest_log = std::max(largest_log, number);
    }
    EXPECT_GE(largest_log, manifest.next_file);
    ASSERT_TRUE(LsmDb::Open(image.path(), SmallOptions(1000, 8, true), &db).ok());
    EXPECT_GT(LsmDbTestPeer(db.get()).NextFile(), largest + 1);  // its own new log took largest + 1 at least
    for (const char* key : {"before", "fill"}) EXPECT_EQ(GetOrAbsent(db.get(), key), value) << key;
    EXPECT_EQ(GetOrAbsent(db.get(), "during/led"), value + value);
    EXPECT_EQ(GetOrAbsent(db.get(), "during/deferred"), "d");
  }
}

// The caller of LeadDeferred (the server's event loop) leads a complete,
// quick group itself, but not while the background thread writes: then a
// log's fdatasync waits for the disk's other work, and the group goes to
// the commit thread. Held inside a flush's table rename, the background
// thread is writing; once it is idle, the caller leads again.
TEST(DbBackgroundIoTest, LeadDeferredLeavesGroupsToTheCommitThreadWhileTheBackgroundThreadWrites) {
  ScratchDir dir;
  Gate gate;
  std::atomic<bool> armed{false};
  HookedFileIo io;
  io.on_rename = [&](const std::string&, const std::string& to) {
    if (armed.load() && EndsWith(to, ".sst")) gate.Arrive();
  };
  std::unique_ptr<LsmDb> db;
  // Unsynced, so that a group's time stays below the caller's limit.
  ASSERT_TRUE(LsmDb::Open(dir.path(), SmallOptions(1000, 8, false, &io), &db).ok());
  int written = 0;
  // One deferred write and LeadDeferred, as a pass of the event loop ends;
  // true when its group was led on this thread.
  auto led_here = [&] {
    std::mutex mu;
    std::optional<std::thread::id> answered_on;
    const std::string key = "deferred/" + std::to_string(written++);
    db->WriteAsync({Put(key, "d")},
                   [&](const Status& s) {
                     EXPECT_TRUE(s.ok()) << s.ToString();
                     std::lock_guard<std::mutex> lock(mu);
                     answered_on = std::this_thread::get_id();
                   },
                   /*defer_lead=*/true);
    db->LeadDeferred();
    EXPECT_TRUE(Eventually([&] {
      std::lock_guard<std::mutex> lock(mu);
      return answered_on.has_value();
    }));
    std::lock_guard<std::mutex> lock(mu);
    return answered_on == std::this_thread::get_id();
  };
  // A group may take longer than the limit now and then (a busy machine):
  // the next one is led here again.
  EXPECT_TRUE(Eventually(led_here)) << "idle: the caller leads";

  armed = true;
  ASSERT_TRUE(db->Write({Put("fill", std::string(1000, 'v'))}).ok());
  ASSERT_TRUE(gate.WaitArrived());
  for (int i = 0; i < 5; ++i) EXPECT_FALSE(led_here()) << "led by the caller while a flush wrote, write " << i;
  gate.Open();
  db->WaitForBackgroundIdle();
  EXPECT_TRUE(Eventually(led_here)) << "idle again: the caller leads";
  for (int i = 0; i < written; ++i) EXPECT_EQ(GetOrAbsent(db.get(), "deferred/" + std::to_string(i)), "d");
}

TEST_F(DbTest, OpenDirectoryRules) {
  // Live table 5, orphan table 7, a leftover temporary of table 9, and a
  // log under the non-canonical name wal-1.log.
  ASSERT_TRUE(WriteTable(&io_, dir_.File("sst-000005.sst"), {Put("live", "5")}).ok());
  ASSERT_TRUE(WriteTable(&io_, dir_.File("sst-000007.sst"), {Put("orphan", "7")}).ok());
  testing::WriteFileOrDie(dir_.File("sst-000009.sst.tmp"), "half written");
  AppendToLog(1, {Put("ghost", "1")}, "wal-1.log");
  testing::WriteFileOrDie(dir_.File("MANIFEST"), "next_file 2\nsst 5\n");
  ASSERT_TRUE(OpenDb(SmallOptions(64 << 20, 8, false)).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "live"), "5");
  EXPECT_EQ(GetOrAbsent(db_.get(), "orphan"), "<absent>");
  // wal-1.log counts as log 1, is replayed under its six-digit name (which
  // does not exist), and never deleted. The orphan goes; the temporary file
  // stays, and its number, the largest listed, places the new log at 10.
  EXPECT_EQ(GetOrAbsent(db_.get(), "ghost"), "<absent>");
  EXPECT_EQ(ListNames(dir_.path()), (std::vector<std::string>{"MANIFEST", "sst-000005.sst", "sst-000009.sst.tmp",
                                                              "wal-000010.log", "wal-1.log"}));
  EXPECT_EQ(Manifest(), "next_file 11\nsst 5\n");
}

TEST_F(DbTest, OpenReplaysLogsInOrderAndNeedsEveryListedTable) {
  // Two logs replay in order into one memtable and stay until it is flushed.
  AppendToLog(1, {Put("k", "1"), Put("only1", "a")});
  AppendToLog(2, {Put("k", "2"), Del("only1")});
  testing::WriteFileOrDie(dir_.File("MANIFEST"), "next_file 1\n");
  ASSERT_TRUE(OpenDb(SmallOptions(64 << 20, 8, false)).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "k"), "2");
  EXPECT_EQ(GetOrAbsent(db_.get(), "only1"), "<absent>");
  EXPECT_EQ(Manifest(), "next_file 4\n");
  EXPECT_EQ(ListNames(dir_.path()),
            (std::vector<std::string>{"MANIFEST", "wal-000001.log", "wal-000002.log", "wal-000003.log"}));
  db_.reset();

  testing::WriteFileOrDie(dir_.File("MANIFEST"), "next_file 3\nsst 2\n");
  EXPECT_EQ(OpenDb(SmallOptions(64 << 20, 8, false)).ToString(),
            "Corruption: sst open " + dir_.File("sst-000002.sst") + ": No such file or directory");
  EXPECT_EQ(db_, nullptr);
}

// A file that open cannot use is reported by the step that opens it, in
// that step's own words: the listing's stat of every entry, there for the
// inspector's sizes, does not speak first. A listing cut short still fails
// the open, and a file gone between the listing and its stat is left out.
TEST_F(DbTest, OpenReportsAFileItCannotUseInTheWordsOfItsOpen) {
  auto self_link = [&](const std::string& name) {
    ASSERT_EQ(::symlink(name.c_str(), dir_.File(name).c_str()), 0) << name;
  };
  const LsmDb::Options options = SmallOptions(64 << 20, 8, false);
  self_link("wal-000001.log");
  EXPECT_EQ(OpenDb(options).ToString(),
            "Corruption: wal open " + dir_.File("wal-000001.log") + ": Too many levels of symbolic links");
  ASSERT_EQ(::unlink(dir_.File("wal-000001.log").c_str()), 0);

  testing::WriteFileOrDie(dir_.File("MANIFEST"), "next_file 6\nsst 5\n");
  self_link("sst-000005.sst");
  EXPECT_EQ(OpenDb(options).ToString(),
            "Corruption: sst open " + dir_.File("sst-000005.sst") + ": Too many levels of symbolic links");
  ASSERT_EQ(::unlink(dir_.File("sst-000005.sst").c_str()), 0);

  // An orphan goes as any orphan does, and its number counts; a file that
  // is not the engine's stays.
  testing::WriteFileOrDie(dir_.File("MANIFEST"), "next_file 2\n");
  self_link("sst-000007.sst");
  self_link("notes");
  ASSERT_TRUE(OpenDb(options).ok());
  EXPECT_EQ(ListNames(dir_.path()), (std::vector<std::string>{"MANIFEST", "notes", "wal-000008.log"}));
  ASSERT_TRUE(db_->Write({Put("in8", "1")}).ok());
  db_.reset();

  // A stat that fails for another reason only costs the size.
  io_.FailNth(FileOp::kStat, 1, "wal-000008.log");
  ASSERT_TRUE(OpenDb(options).ok());
  EXPECT_EQ(io_.injected(FileOp::kStat), 1u);
  EXPECT_EQ(GetOrAbsent(db_.get(), "in8"), "1");
  ASSERT_TRUE(db_->Write({Put("in9", "1")}).ok());  // wal-000009.log
  db_.reset();

  // What the stat finds gone is left out, as if the listing had not seen it.
  io_.FailNth(FileOp::kStat, 1, "wal-000009.log", ENOENT);
  ASSERT_TRUE(OpenDb(options).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "in8"), "1");
  EXPECT_EQ(GetOrAbsent(db_.get(), "in9"), "<absent>");
  db_.reset();

  io_.FailNth(FileOp::kList, 1);
  EXPECT_EQ(OpenDb(options).ToString(), "Corruption: list " + dir_.path() + ": Input/output error");
}

}  // namespace
}  // namespace kandb::lsm
