// Injected I/O failures while writers, flushes and compactions run: every
// failure reaches the writers of its group, and nothing acknowledged is
// lost, in the running engine or after a reopen.

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>

#include "lsm/db.h"
#include "lsm/db_test_util.h"

namespace kandb::lsm {
namespace {

// Batch `seq` of writer `t`: three keys that must always agree, plus one
// key of its own.
WriteBatch WriterBatch(int t, int seq) {
  const std::string p = "t" + std::to_string(t) + "/";
  const std::string v = std::to_string(seq);
  return {Put(p + "a", v), Put(p + "b", v), Put(p + "c", v), Put(p + "s" + v, v)};
}

struct WriterLog {
  std::set<int> acked;
  std::set<int> failed;
  std::vector<std::string> messages;
};

bool ExpectedFailure(const std::string& message) {
  return message == "wal write: Input/output error" || message == "wal fdatasync: Input/output error";
}

TEST(FaultTest, InjectedFailuresLoseNothingAcknowledged) {
  ScratchDir dir;
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);
  const LsmDb::Options options = SmallOptions(2048, 2, true);
  std::unique_ptr<LsmDb> db;
  ASSERT_TRUE(LsmDb::Open(dir.path(), options, &db).ok());

  constexpr int kWriters = 4;
  constexpr int kBatches = 250;
  std::vector<WriterLog> logs(kWriters);
  std::atomic<int> running{kWriters};
  std::vector<std::thread> writers;
  for (int t = 0; t < kWriters; ++t) {
    writers.emplace_back([&, t] {
      for (int seq = 1; seq <= kBatches; ++seq) {
        Status s = db->Write(WriterBatch(t, seq));
        if (s.ok()) {
          logs[t].acked.insert(seq);
        } else {
          logs[t].failed.insert(seq);
          logs[t].messages.push_back(s.message());
        }
      }
      --running;
    });
  }

  // Arms one failure at a time, each a few calls ahead, on the log, the
  // table files and the manifest, until the writers are done.
  struct Fault {
    FileOp op;
    const char* path;
  };
  const Fault faults[] = {{FileOp::kWrite, "wal-"},  {FileOp::kFdatasync, ""}, {FileOp::kWrite, ".sst"},
                          {FileOp::kFsync, ".sst"},  {FileOp::kRename, ".sst"}, {FileOp::kRename, "MANIFEST"}};
  std::mt19937 rng(20240601);
  while (running > 0) {
    const Fault& f = faults[rng() % std::size(faults)];
    io.FailNth(f.op, 1 + rng() % 4, f.path);
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  for (std::thread& t : writers) t.join();
  io.ClearAll();
  db->WaitForBackgroundIdle();

  EXPECT_GT(io.injected(FileOp::kWrite), 0u);
  EXPECT_GT(io.injected(FileOp::kFdatasync), 0u);
  EXPECT_GT(io.injected(FileOp::kRename), 0u);
  EXPECT_GT(db->TableFileCount(), 0u);
  size_t failures = 0;
  for (const WriterLog& log : logs) {
    failures += log.failed.size();
    for (const std::string& m : log.messages) EXPECT_TRUE(ExpectedFailure(m)) << m;
  }
  EXPECT_GT(failures, 0u);

  // In the running engine a failed group was never applied: the three keys
  // hold the last acknowledged batch, and every acknowledged key is there.
  for (int t = 0; t < kWriters; ++t) {
    const std::string p = "t" + std::to_string(t) + "/";
    const std::string last = logs[t].acked.empty() ? "<absent>" : std::to_string(*logs[t].acked.rbegin());
    EXPECT_EQ(GetOrAbsent(db.get(), p + "a"), last);
    EXPECT_EQ(GetOrAbsent(db.get(), p + "b"), last);
    EXPECT_EQ(GetOrAbsent(db.get(), p + "c"), last);
    for (int seq : logs[t].acked) EXPECT_EQ(GetOrAbsent(db.get(), p + "s" + std::to_string(seq)), std::to_string(seq));
    for (int seq : logs[t].failed) EXPECT_EQ(GetOrAbsent(db.get(), p + "s" + std::to_string(seq)), "<absent>");
  }

  // After a reopen a group whose sync failed may come back from the log,
  // whole; acknowledged batches all do.
  db.reset();
  ASSERT_TRUE(LsmDb::Open(dir.path(), options, &db).ok());
  for (int t = 0; t < kWriters; ++t) {
    const std::string p = "t" + std::to_string(t) + "/";
    const std::string a = GetOrAbsent(db.get(), p + "a");
    EXPECT_EQ(GetOrAbsent(db.get(), p + "b"), a);
    EXPECT_EQ(GetOrAbsent(db.get(), p + "c"), a);
    if (!logs[t].acked.empty()) {
      const int v = std::stoi(a);
      EXPECT_GE(v, *logs[t].acked.rbegin());
      EXPECT_TRUE(logs[t].acked.count(v) + logs[t].failed.count(v) == 1);
      if (logs[t].failed.count(v) != 0) {
        EXPECT_EQ(GetOrAbsent(db.get(), p + "s" + a), a);  // the whole batch came back
      }
    }
    for (int seq : logs[t].acked) EXPECT_EQ(GetOrAbsent(db.get(), p + "s" + std::to_string(seq)), std::to_string(seq));
  }
}

}  // namespace
}  // namespace kandb::lsm
