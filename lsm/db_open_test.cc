// Open: the directory rules, recovery from the manifest and the logs, and
// the files a reopen leaves.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "lsm/db.h"
#include "lsm/db_test_util.h"
#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/table.h"

namespace kandb::lsm {
namespace {

// Appends `batch` as one record to the log at `path`.
void AppendToLog(const std::string& path, const WriteBatch& batch) {
  std::unique_ptr<LogFile> log;
  ASSERT_TRUE(OpenLogForAppend(path, &log).ok());
  std::string record;
  EncodeBatch(batch, &record);
  ASSERT_TRUE(log->Append(record.data(), record.size()).ok());
}

class OpenTest : public ::testing::Test {
 protected:
  Status OpenDb() { return LsmDb::Open(dir_.path(), SmallOptions(64 << 20, 8, false), &db_); }
  std::string Manifest() { return testing::ReadFileOrEmpty(dir_.File("MANIFEST")); }

  ScratchDir dir_;
  std::unique_ptr<LsmDb> db_;
};

TEST_F(OpenTest, CreatesTheDirectoryOrRefusesWhatIsNotOne) {
  const std::string fresh = dir_.File("fresh");
  const mode_t old_mask = umask(0);
  Status opened = LsmDb::Open(fresh, LsmDb::Options(), &db_);
  umask(old_mask);
  ASSERT_TRUE(opened.ok()) << opened.ToString();
  struct stat st;
  ASSERT_EQ(stat(fresh.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(ListNames(fresh), (std::vector<std::string>{"MANIFEST", "wal-000001.log"}));
  EXPECT_EQ(testing::ReadFileOrEmpty(fresh + "/MANIFEST"), "next_file 2\n");
  db_.reset();

  const std::string file = dir_.File("plain");
  testing::WriteFileOrDie(file, "x");
  db_.reset();
  Status s = LsmDb::Open(file, LsmDb::Options(), &db_);
  EXPECT_EQ(s.code(), Status::kInvalidArgument);
  EXPECT_EQ(s.message(), file + " exists and is not a directory");
  EXPECT_EQ(db_, nullptr);

  // Only one level is created.
  const std::string deep = dir_.File("no/such");
  s = LsmDb::Open(deep, LsmDb::Options(), &db_);
  EXPECT_EQ(s.code(), Status::kCorruption);
  EXPECT_EQ(s.message(), "mkdir " + deep + ": No such file or directory");
}

TEST_F(OpenTest, DirectoryListingRules) {
  // Live table 5 (named by the manifest), orphan table 7, a leftover
  // temporary of table 9, and a log under the non-canonical name wal-1.log.
  ASSERT_TRUE(WriteTable(TableFileName(dir_.path(), 5), {Put("live", "5")}).ok());
  ASSERT_TRUE(WriteTable(TableFileName(dir_.path(), 7), {Put("orphan", "7")}).ok());
  testing::WriteFileOrDie(dir_.File("sst-000009.sst.tmp"), "half written");
  AppendToLog(dir_.File("wal-1.log"), {Put("ghost", "1")});
  testing::WriteFileOrDie(dir_.File("MANIFEST"), "next_file 2\nsst 5\n");

  ASSERT_TRUE(OpenDb().ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "live"), "5");
  EXPECT_EQ(GetOrAbsent(db_.get(), "orphan"), "<absent>");
  // wal-1.log counts as log 1 but is replayed under its six-digit name,
  // which does not exist, and is never deleted.
  EXPECT_EQ(GetOrAbsent(db_.get(), "ghost"), "<absent>");
  // The orphan is deleted by its canonical name, the temporary file is not,
  // and its number (the largest listed) places the new log at 10.
  EXPECT_EQ(ListNames(dir_.path()), (std::vector<std::string>{"MANIFEST", "sst-000005.sst", "sst-000009.sst.tmp",
                                                              "wal-000010.log", "wal-1.log"}));
  EXPECT_EQ(Manifest(), "next_file 11\nsst 5\n");
}

TEST_F(OpenTest, LogsReplayInOrderIntoOneMemTable) {
  AppendToLog(LogFileName(dir_.path(), 1), {Put("k", "1"), Put("only1", "a")});
  AppendToLog(LogFileName(dir_.path(), 2), {Put("k", "2"), Del("only1")});
  testing::WriteFileOrDie(dir_.File("MANIFEST"), "next_file 1\n");

  ASSERT_TRUE(OpenDb().ok());
  EXPECT_EQ(GetOrAbsent(db_.get(), "k"), "2");
  EXPECT_EQ(GetOrAbsent(db_.get(), "only1"), "<absent>");
  EXPECT_EQ(Manifest(), "next_file 4\n");
  // The replayed logs stay until their memtable is flushed.
  EXPECT_EQ(ListNames(dir_.path()),
            (std::vector<std::string>{"MANIFEST", "wal-000001.log", "wal-000002.log", "wal-000003.log"}));
  EXPECT_EQ(db_->ImmutableMemTableCount(), 0u);
  EXPECT_EQ(db_->TableFileCount(), 0u);
}

TEST_F(OpenTest, MissingLiveTableFailsTheOpen) {
  testing::WriteFileOrDie(dir_.File("MANIFEST"), "next_file 3\nsst 2\n");
  Status s = OpenDb();
  EXPECT_EQ(s.code(), Status::kCorruption);
  EXPECT_EQ(s.message(), "sst open " + TableFileName(dir_.path(), 2) + ": No such file or directory");
  EXPECT_EQ(db_, nullptr);
}

}  // namespace
}  // namespace kandb::lsm
