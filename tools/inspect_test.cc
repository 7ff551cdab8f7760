// Runs kandb-meta-inspect on state directories written by the engine
// itself: a healthy one, damaged copies of it (torn log tail, flipped table
// bytes, a missing table, a log that links to itself) and the directory of
// a running server.

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "common/coding.h"
#include "common/test_util.h"
#include "lsm/db.h"
#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/manifest.h"
#include "lsm/table.h"
#include "meta/keys.h"
#include "pdpb/messages.h"

namespace kandb::tools {
namespace {

using ::kandb::testing::ExitCode;
using ::kandb::testing::MakeTempDir;
using ::kandb::testing::ProgramResult;
using ::kandb::testing::ReadFileOrEmpty;
using ::kandb::testing::RemoveTree;
using ::kandb::testing::WriteFileOrDie;

ProgramResult Inspect(const std::string& dir, bool verify) {
  std::vector<std::string> args = {KANDB_META_INSPECT_BINARY, dir};
  if (verify) args.push_back("--verify");
  return kandb::testing::RunProgram(args);
}

lsm::Entry Put(const std::string& key, const std::string& value) { return {lsm::kOpPut, key, value}; }

lsm::Entry RegionRecord(uint64_t id, uint64_t version) {
  const std::string key = "k" + std::to_string(id);
  return Put(meta::RegionKey(id), pdpb::Encode(pdpb::Region{id, key, key + "~", {1, version}, {{id + 1000, 1, 0}}}));
}

lsm::Entry IdMark(uint64_t mark) {
  std::string value;
  PutFixed64(&value, mark);
  return Put(meta::kIdAllocKey, value);
}

// What the server would leave after a while, through the engine itself
// with a tiny write buffer: two flushed table files, then a log of two
// newer records (region 7 rewritten; region 8 deleted and a new mark).
void WriteState(const std::string& dir) {
  lsm::LsmDb::Options options;
  options.write_buffer_size = 2048;
  std::unique_ptr<lsm::LsmDb> db;
  ASSERT_TRUE(lsm::LsmDb::Open(dir, options, &db).ok());
  lsm::WriteBatch first = {Put(meta::kBootstrappedKey, "1"),
                           Put(meta::StoreKey(1), pdpb::Encode(pdpb::Store{1, "127.0.0.1:20160", 0})),
                           IdMark(2025)};
  for (uint64_t id = 1; id <= 20; ++id) first.push_back(RegionRecord(id, 1));
  ASSERT_TRUE(db->Write(first).ok());
  db->WaitForBackgroundIdle();
  lsm::WriteBatch second;
  for (uint64_t id = 21; id <= 40; ++id) second.push_back(RegionRecord(id, 1));
  ASSERT_TRUE(db->Write(second).ok());
  db->WaitForBackgroundIdle();
  ASSERT_TRUE(db->Write({RegionRecord(7, 2)}).ok());
  ASSERT_TRUE(db->Write({{lsm::kOpDelete, meta::RegionKey(8), ""}, IdMark(3026)}).ok());
  ASSERT_EQ(db->TableFileCount(), 2u);
}

// Names, sizes and modification times: what must not change under an inspection.
std::map<std::string, std::string> Fingerprint(const std::string& dir) {
  std::map<std::string, std::string> out;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) {
    struct stat st;
    EXPECT_EQ(::stat(entry.path().c_str(), &st), 0);
    out[entry.path().filename()] = std::to_string(st.st_size) + "@" + std::to_string(st.st_mtim.tv_sec) + "." +
                                   std::to_string(st.st_mtim.tv_nsec);
  }
  return out;
}

class InspectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = MakeTempDir("inspect");
    state_ = root_ + "/pd";
    WriteState(state_);
    bool exists = false;
    ASSERT_TRUE(lsm::ReadManifest(lsm::DefaultFileIo(), state_, &manifest_, &exists).ok());
    ASSERT_EQ(manifest_.sst_files.size(), 2u);
    for (const auto& entry : std::filesystem::directory_iterator(state_)) {
      uint64_t number = 0;
      if (lsm::ParseFileName(entry.path().filename(), &number) == lsm::FileKind::kLog &&
          entry.file_size() > 0) {
        log_ = entry.path();
      }
    }
    ASSERT_FALSE(log_.empty());
  }
  void TearDown() override { RemoveTree(root_); }

  // A copy of the state to damage; returns its path.
  std::string Copy(const std::string& name) {
    const std::string copy = root_ + "/" + name;
    std::filesystem::copy(state_, copy);
    return copy;
  }
  std::string InCopy(const std::string& copy, const std::string& path) {
    return copy + "/" + std::filesystem::path(path).filename().string();
  }
  std::string Table(size_t i) const { return lsm::TableFileName(state_, manifest_.sst_files[i]); }

  std::string root_;
  std::string state_;
  std::string log_;
  lsm::ManifestState manifest_;
};

TEST_F(InspectTest, HealthyStateIsShownMergedAndLeftUntouched) {
  const auto before = Fingerprint(state_);
  ProgramResult r = Inspect(state_, true);
  EXPECT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_EQ(r.err, "");
  const std::string& out = r.out;
  EXPECT_NE(out.find("manifest: next_file " + std::to_string(manifest_.next_file) + ", 2 live tables (newest first): " +
                     std::to_string(manifest_.sst_files[0]) + " " + std::to_string(manifest_.sst_files[1])),
            std::string::npos)
      << out;
  const std::string log_name = std::filesystem::path(log_).filename();
  EXPECT_NE(out.find("  " + log_name + "  2 records, 3 entries; replay stops at offset " +
                     std::to_string(std::filesystem::file_size(log_)) + ": clean end\n"),
            std::string::npos)
      << out;
  for (int i = 0; i < 2; ++i) {
    EXPECT_NE(out.find(std::filesystem::path(Table(i)).filename().string() + "  live, footer at "), std::string::npos);
  }
  // The newest table holds regions 21..40; the keys sort as text.
  EXPECT_NE(out.find("    keys \"pd/region/21\" .. \"pd/region/40\"\n"), std::string::npos) << out;
  // The log's changes win over the tables: region 7 rewritten, 8 deleted, the newer mark.
  EXPECT_NE(out.find("live records (42: 1 stores, 39 regions, 2 other)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("  pd/region/7  region 7 [\"k7\", \"k7~\") conf_version 1 version 2 peers 1\n"
                     "      peer 1007 store 1 role 0\n"),
            std::string::npos);
  EXPECT_EQ(out.find("pd/region/8 "), std::string::npos);
  EXPECT_NE(out.find("  pd/id_alloc  identifier mark 3026"), std::string::npos);
  EXPECT_NE(out.find("  pd/store/1  store 1 address \"127.0.0.1:20160\" state 0\n"), std::string::npos);
  EXPECT_NE(out.find("problems: none\nverify: no damage found\n"), std::string::npos);
  EXPECT_EQ(Fingerprint(state_), before);
}

TEST_F(InspectTest, TornLogTailStopsReplayThereAndVerifyNamesFileAndOffset) {
  const std::string copy = Copy("torn");
  const std::string log = InCopy(copy, log_);
  // Where the second (last) record starts, as the log reader sees it.
  uint64_t last_offset = 0;
  {
    std::unique_ptr<lsm::LogReader> reader;
    ASSERT_TRUE(lsm::LogReader::Open(lsm::DefaultFileIo(), log, &reader).ok());
    lsm::WriteBatch batch;
    while (reader->Next(&batch)) last_offset = reader->record_offset();
  }
  ASSERT_GT(last_offset, 0u);
  ASSERT_EQ(::truncate(log.c_str(), static_cast<off_t>(std::filesystem::file_size(log) - 1)), 0);

  const std::string where = std::filesystem::path(log).filename().string() + " at offset " + std::to_string(last_offset);
  ProgramResult r = Inspect(copy, true);
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_NE(r.err.find("kandb-meta-inspect: damage: " + where + ": short payload ("), std::string::npos) << r.err;
  EXPECT_NE(r.out.find("replay stops at offset " + std::to_string(last_offset) + ": short payload"), std::string::npos);
  // The torn record (delete of region 8, mark 3026) is not applied.
  EXPECT_NE(r.out.find("  pd/region/8  region 8 "), std::string::npos);
  EXPECT_NE(r.out.find("  pd/id_alloc  identifier mark 2025"), std::string::npos);

  // Without --verify the damage is reported and the status stays 0.
  r = Inspect(copy, false);
  EXPECT_EQ(ExitCode(r), 0);
  EXPECT_NE(r.out.find("problems (1)\n  " + where), std::string::npos) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST_F(InspectTest, FlippedTableBytesAreFoundAtTheirOffset) {
  const std::string copy = Copy("flipped");
  const std::string table = InCopy(copy, Table(0));
  const std::string name = std::filesystem::path(table).filename();
  const std::string good = ReadFileOrEmpty(table);
  const size_t footer = good.size() - lsm::kTableFooterSize;
  const size_t key22 = good.find("pd/region/22");  // follows "pd/region/21"
  const size_t value38 = good.find("pd/region/38") + 16;  // a record of the second run
  ASSERT_NE(key22, std::string::npos);
  std::shared_ptr<lsm::SstReader> reader;
  ASSERT_TRUE(lsm::SstReader::Open(lsm::DefaultFileIo(), table, &reader).ok());
  ASSERT_EQ(reader->index_entries(), 2u);
  const std::string run1 = std::to_string(reader->index()[1].second);
  // The same table without its checksum block, as every table written
  // before it existed: still read, and named by --verify, but only what
  // cannot be parsed (an unknown op, a key out of order) is found there.
  const std::string old = good.substr(0, reader->layout().checksum_offset) + good.substr(footer);
  reader.reset();
  struct Case {
    const std::string& file;
    size_t at;
    std::string want;  // empty: no damage
  } cases[] = {
      {good, value38, "at offset " + run1 + ": sst checksum mismatch: " + table + " at offset " + run1 + "\n"},
      {good, footer, "at offset " + std::to_string(footer) + ": sst footer crc mismatch\n"},
      {old, old.size(), ""},
      {old, key22 + 10, "at offset " + std::to_string(key22 - 5) +
                            ": key \"pd/region/02\" is not above the previous key \"pd/region/21\""},
  };
  for (const Case& c : cases) {
    std::string bytes = c.file;
    if (c.at < bytes.size()) bytes[c.at] = static_cast<char>(bytes[c.at] == '2' ? '0' : bytes[c.at] ^ 0x40);
    WriteFileOrDie(table, bytes);
    ProgramResult r = Inspect(copy, true);
    EXPECT_EQ(r.out.find("verify: tables without a checksum block, records unchecked: " + name + "\n") !=
                  std::string::npos,
              &c.file == &old)
        << r.out;
    if (c.want.empty()) {
      EXPECT_EQ(ExitCode(r), 0) << r.err;
      EXPECT_NE(r.out.find("no checksum block: written before tables had one"), std::string::npos) << r.out;
      continue;
    }
    EXPECT_EQ(ExitCode(r), 1);
    EXPECT_NE(r.err.find("kandb-meta-inspect: damage: " + name + " " + c.want), std::string::npos) << r.err;
    // The damaged table is left out of the merge: regions 21..40 are gone.
    EXPECT_NE(r.out.find("live records (22: 1 stores, 19 regions, 2 other)"), std::string::npos) << r.out;
  }
}

TEST_F(InspectTest, MissingTableOrManifestIsDamageAndAnOrphanIsNot) {
  const std::string copy = Copy("missing");
  // An orphan: a table the manifest does not name, deleted at the next open.
  std::filesystem::copy_file(InCopy(copy, Table(0)), copy + "/sst-000999.sst");
  ProgramResult r = Inspect(copy, true);
  EXPECT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_NE(r.out.find("sst-000999.sst  orphan, footer at "), std::string::npos) << r.out;

  const std::string table = InCopy(copy, Table(1));
  ASSERT_EQ(::unlink(table.c_str()), 0);
  r = Inspect(copy, true);
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "kandb-meta-inspect: damage: " + std::filesystem::path(table).filename().string() +
                       " at offset 0: table file named by the manifest is missing\n");

  // A line the manifest reader does not take drops the tables after it.
  const std::string manifest = ReadFileOrEmpty(copy + "/MANIFEST");
  WriteFileOrDie(copy + "/MANIFEST", "next_file 50\nsst x\n" + manifest.substr(manifest.find("sst ")));
  r = Inspect(copy, true);
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_NE(r.err.find("MANIFEST at offset 0: 4 lines but only 1 next_file and sst records were taken"),
            std::string::npos)
      << r.err;

  ASSERT_EQ(::unlink((copy + "/MANIFEST").c_str()), 0);
  r = Inspect(copy, true);
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "kandb-meta-inspect: damage: MANIFEST at offset 0: missing, but 2 table files are present; "
                   "the next open deletes them\n");
}

// An entry that cannot be stat'ed (a link to itself) is listed without a
// size; opening it is what reports the damage, as the server's open does.
TEST_F(InspectTest, AnEntryThatCannotBeStatedIsListedAndItsOpenReported) {
  const std::string copy = Copy("looping");
  ASSERT_EQ(::symlink("wal-000999.log", (copy + "/wal-000999.log").c_str()), 0);
  ProgramResult r = Inspect(copy, true);
  EXPECT_EQ(ExitCode(r), 1) << r.err;
  EXPECT_NE(r.out.find("wal-000999.log          ? bytes  log 999; cannot stat: Too many levels of symbolic links\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.out.find("  wal-000999.log  cannot be read: wal open " + copy +
                       "/wal-000999.log: Too many levels of symbolic links\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.err, "kandb-meta-inspect: damage: wal-000999.log at offset 0: wal open " + copy +
                       "/wal-000999.log: Too many levels of symbolic links\n");
}

TEST(InspectLiveTest, ReadsTheDirectoryOfARunningServer) {
  const ::kandb::testing::ScratchDir root("inspect-live");
  kandb::testing::MetaServer server;
  ASSERT_TRUE(server.Start(root.File("pd")));
  pdpb::BootstrapResponse response;
  ASSERT_TRUE(server.NewClient()
                  ->Call("Pd.Bootstrap", pdpb::BootstrapRequest{{1, "127.0.0.1:20160", 0}, {2, "", "", {}, {}}, {}}, &response)
                  .ok());
  ProgramResult r = Inspect(root.File("pd"), true);
  EXPECT_EQ(ExitCode(r), 0) << r.err;
  EXPECT_NE(r.out.find("  pd/region/2  region 2 [-inf, +inf) conf_version 0 version 0 peers 0\n"), std::string::npos)
      << r.out;
  server.Kill();

  r = Inspect(root.File("absent"), true);
  EXPECT_EQ(ExitCode(r), 2);
  EXPECT_EQ(r.err, "kandb-meta-inspect: " + root.File("absent") + ": No such file or directory\n");
}

}  // namespace
}  // namespace kandb::tools
