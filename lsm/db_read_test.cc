// Point lookups and scans across memtables and table files.

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "lsm/db.h"
#include "lsm/db_test_util.h"
#include "lsm/filename.h"

namespace kandb::lsm {
namespace {

std::string Key(int i) {
  char buf[16];
  std::snprintf(buf, sizeof(buf), "k%05d", i);
  return buf;
}

std::vector<std::string> ScanKeys(LsmDb* db, const std::string& start, const std::string& end,
                                  uint32_t limit) {
  std::vector<Entry> out;
  Status s = db->Scan(start, end, limit, &out);
  EXPECT_TRUE(s.ok()) << s.ToString();
  std::vector<std::string> keys;
  for (const Entry& e : out) keys.push_back(e.key + "=" + e.value);
  return keys;
}

class ReadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Large buffer and table limit: only the test retires memtables.
    ASSERT_TRUE(LsmDb::Open(dir_.path(), SmallOptions(64 << 20, 100, false), &db_).ok());
  }
  // Makes everything written so far a table file of its own.
  void FlushAll() {
    ASSERT_TRUE(LsmDbTestPeer(db_.get()).SwitchMemTable().ok());
    db_->WaitForBackgroundIdle();
  }

  ScratchDir dir_;
  std::unique_ptr<LsmDb> db_;
};

TEST_F(ReadTest, NewestVersionWinsAcrossMemTablesAndTables) {
  ASSERT_TRUE(db_->Write({Put("twice", "old"), Put("gone", "was"), Put("plain", "p")}).ok());
  FlushAll();
  ASSERT_TRUE(db_->Write({Put("twice", "new")}).ok());
  FlushAll();
  ASSERT_EQ(db_->TableFileCount(), 2u);
  EXPECT_EQ(GetOrAbsent(db_.get(), "twice"), "new");  // newer table first

  // A deletion marker in the memtable hides the flushed value from both
  // Get and Scan, and the value survives nowhere after another flush.
  ASSERT_TRUE(db_->Write({Del("gone")}).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "gone"), "<absent>");
  EXPECT_EQ(ScanKeys(db_.get(), "", "", 100), (std::vector<std::string>{"plain=p", "twice=new"}));
  FlushAll();
  EXPECT_EQ(GetOrAbsent(db_.get(), "gone"), "<absent>");
  EXPECT_EQ(ScanKeys(db_.get(), "", "", 100), (std::vector<std::string>{"plain=p", "twice=new"}));

  // And a put in the memtable over a deletion in a table brings it back.
  ASSERT_TRUE(db_->Write({Put("gone", "back")}).ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "gone"), "back");
  EXPECT_EQ(GetOrAbsent(db_.get(), "never"), "<absent>");
}

TEST_F(ReadTest, ScanBoundsAreHalfOpenAndLimitCounts) {
  ASSERT_TRUE(db_->Write({Put("a", "1"), Put("c", "3")}).ok());
  FlushAll();
  ASSERT_TRUE(db_->Write({Put("b", "2"), Put("d", "4"), Del("e")}).ok());

  EXPECT_EQ(ScanKeys(db_.get(), "b", "d", 100), (std::vector<std::string>{"b=2", "c=3"}));
  EXPECT_EQ(ScanKeys(db_.get(), "", "", 100), (std::vector<std::string>{"a=1", "b=2", "c=3", "d=4"}));
  EXPECT_EQ(ScanKeys(db_.get(), "", "", 2), (std::vector<std::string>{"a=1", "b=2"}));
  EXPECT_EQ(ScanKeys(db_.get(), "bb", "", 100), (std::vector<std::string>{"c=3", "d=4"}));
  EXPECT_TRUE(ScanKeys(db_.get(), "", "", 0).empty());
  EXPECT_TRUE(ScanKeys(db_.get(), "x", "", 100).empty());

  std::vector<Entry> out = {Put("stale", "entry")};
  ASSERT_TRUE(db_->Scan("c", "", 1, &out).ok());
  EXPECT_EQ(out, (std::vector<Entry>{Put("c", "3")}));
}

TEST_F(ReadTest, LongScanCrossesMemTableChunksOnceEach) {
  // 10000 keys in a table, then all rewritten in the memtable with every
  // seventh deleted: the scan refills the memtable chunk twice while also
  // merging the table and skipping deletions at chunk edges.
  constexpr int kKeys = 10000;
  for (int base = 0; base < kKeys; base += 1000) {
    WriteBatch batch;
    for (int i = base; i < base + 1000; ++i) batch.push_back(Put(Key(i), "old"));
    ASSERT_TRUE(db_->Write(batch).ok());
  }
  FlushAll();
  for (int base = 0; base < kKeys; base += 1000) {
    WriteBatch batch;
    for (int i = base; i < base + 1000; ++i) batch.push_back(i % 7 == 0 ? Del(Key(i)) : Put(Key(i), "new"));
    ASSERT_TRUE(db_->Write(batch).ok());
  }

  std::vector<Entry> out;
  ASSERT_TRUE(db_->Scan("", "", 1u << 30, &out).ok());
  std::vector<Entry> expected;
  for (int i = 0; i < kKeys; ++i) {
    if (i % 7 != 0) expected.push_back(Put(Key(i), "new"));
  }
  EXPECT_EQ(out.size(), expected.size());
  EXPECT_TRUE(out == expected);

  // The same from the memtable alone, and bounded inside a chunk edge.
  ASSERT_TRUE(db_->Write({Put(Key(4096), "edge")}).ok());
  ASSERT_TRUE(db_->Scan(Key(4096), Key(4099), 100, &out).ok());
  EXPECT_EQ(out, (std::vector<Entry>{Put(Key(4096), "edge"), Put(Key(4097), "new"), Put(Key(4098), "new")}));
}

TEST_F(ReadTest, DamagedTableRecordFailsReads) {
  ASSERT_TRUE(db_->Write({Put("k", "v")}).ok());
  FlushAll();
  const std::vector<uint64_t> live = LsmDbTestPeer(db_.get()).LiveTables();
  ASSERT_EQ(live.size(), 1u);
  db_.reset();
  {
    // The first record's op byte becomes 3; the footer still checks out.
    std::fstream f(TableFileName(dir_.path(), live[0]), std::ios::in | std::ios::out | std::ios::binary);
    f.put('\x03');
  }
  ASSERT_TRUE(LsmDb::Open(dir_.path(), SmallOptions(64 << 20, 100, false), &db_).ok());
  std::string value;
  bool found = true;
  Status s = db_->Get("k", &value, &found);
  EXPECT_EQ(s.code(), Status::kCorruption);
  EXPECT_EQ(s.message(), "sst bad record op");
  std::vector<Entry> out;
  s = db_->Scan("", "", 10, &out);
  EXPECT_EQ(s.message(), "sst bad record op");
}

}  // namespace
}  // namespace kandb::lsm
