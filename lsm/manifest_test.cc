#include "lsm/manifest.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "common/test_util.h"
#include "lsm/fault_injection.h"
#include "lsm/filename.h"

namespace kandb::lsm {
namespace {

using kandb::testing::ReadFileOrEmpty;
using kandb::testing::WriteFileOrDie;

class ManifestTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kandb::testing::MakeTempDir("manifest");
    path_ = ManifestFileName(dir_);
  }
  void TearDown() override { kandb::testing::RemoveTree(dir_); }

  // Reads the manifest into a state that starts with next_file 77 and one
  // table, so that what the read leaves untouched shows.
  ManifestState Read(const std::string& text, bool* exists) {
    WriteFileOrDie(path_, text);
    ManifestState state{77, {1}};
    Status s = ReadManifest(dir_, &state, exists);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return state;
  }

  std::string dir_;
  std::string path_;
};

TEST_F(ManifestTest, WritesOneLinePerRecordAndReadsThemBack) {
  const ManifestState state{42, {9, 3, 1234567}};
  ASSERT_TRUE(WriteManifest(dir_, state).ok());
  EXPECT_EQ(ReadFileOrEmpty(path_), "next_file 42\nsst 9\nsst 3\nsst 1234567\n");
  EXPECT_NE(::access(TempFileName(path_).c_str(), F_OK), 0);

  ManifestState read;
  bool exists = false;
  ASSERT_TRUE(ReadManifest(dir_, &read, &exists).ok());
  EXPECT_TRUE(exists);
  EXPECT_EQ(read.next_file, 42u);
  EXPECT_EQ(read.sst_files, state.sst_files);

  // A longer leftover MANIFEST.tmp is truncated, not overwritten in part.
  WriteFileOrDie(TempFileName(path_), std::string(500, '#'));
  ASSERT_TRUE(WriteManifest(dir_, ManifestState{5, {}}).ok());
  EXPECT_EQ(ReadFileOrEmpty(path_), "next_file 5\n");
}

TEST_F(ManifestTest, MissingAndEmptyManifests) {
  ManifestState state{77, {1}};
  bool exists = true;
  ASSERT_TRUE(ReadManifest(dir_, &state, &exists).ok());
  EXPECT_FALSE(exists);
  EXPECT_EQ(state.next_file, 77u);
  EXPECT_EQ(state.sst_files, std::vector<uint64_t>{1});

  state = Read("", &exists);
  EXPECT_TRUE(exists);
  EXPECT_EQ(state.next_file, 77u);
  EXPECT_TRUE(state.sst_files.empty());
}

TEST_F(ManifestTest, UnknownWordsAreSkippedAndMalformedRecordsEndTheReading) {
  bool exists = false;
  ManifestState state = Read("next_file 9\nsst 4\nfoo 7\nsst 2\n", &exists);
  EXPECT_EQ(state.next_file, 9u);
  EXPECT_EQ(state.sst_files, (std::vector<uint64_t>{4, 2}));

  state = Read("next_file 9\nsst 4\nsst abc\nsst 2\nnext_file 30\n", &exists);
  EXPECT_EQ(state.next_file, 9u);
  EXPECT_EQ(state.sst_files, std::vector<uint64_t>{4});

  // A later next_file wins; the scan does not care about line breaks.
  state = Read("next_file 9 sst 4\nnext_file 12\n", &exists);
  EXPECT_EQ(state.next_file, 12u);
  EXPECT_EQ(state.sst_files, std::vector<uint64_t>{4});

  // A word longer than 31 characters is split by the scan and so derails it.
  state = Read("sst 4\n" + std::string(40, 'w') + " 5\nsst 6\n", &exists);
  EXPECT_EQ(state.sst_files, std::vector<uint64_t>{4});
}

TEST_F(ManifestTest, FailedRenameLeavesTheOldManifestInForce) {
  ASSERT_TRUE(WriteManifest(dir_, ManifestState{3, {2}}).ok());
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);

  io.FailNth(FileOp::kRename, 1, "MANIFEST");
  Status s = WriteManifest(dir_, ManifestState{8, {7, 2}});
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.message(), "manifest rename failed");
  EXPECT_EQ(ReadFileOrEmpty(path_), "next_file 3\nsst 2\n");
  EXPECT_EQ(ReadFileOrEmpty(TempFileName(path_)), "next_file 8\nsst 7\nsst 2\n");
  EXPECT_EQ(io.count(FileOp::kFsync), 1u);

  io.FailNth(FileOp::kOpen, 1, "MANIFEST.tmp");
  s = WriteManifest(dir_, ManifestState{9, {}});
  EXPECT_EQ(s.message(), "manifest create: Input/output error");
  EXPECT_EQ(ReadFileOrEmpty(path_), "next_file 3\nsst 2\n");

  // Not being able to read the directory is not the same as no manifest.
  ManifestState state;
  bool exists = false;
  WriteFileOrDie(dir_ + "/file", "");
  s = ReadManifest(dir_ + "/file", &state, &exists);
  EXPECT_EQ(s.message(), "manifest open: Not a directory");
}

}  // namespace
}  // namespace kandb::lsm
