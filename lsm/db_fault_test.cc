// Every file-system call of a fixed workload is failed in turn, through the
// engine's I/O seam: for every k, the k-th call fails (with ENOSPC and with
// EIO, once and from then on), the workload goes on writing, and then the
// power is cut (what was never synced is dropped) and the state reopened.
// Every acknowledged batch must be there, whole; every failed one whole or
// absent; and the engine must open. KANDB_FAULT_SWEEP=full also runs the
// points CI skips.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <set>

#include "lsm/db.h"
#include "lsm/db_test_util.h"

namespace kandb::lsm {
namespace {

constexpr int kSetupBatches = 24;
constexpr int kBatches = 48;

// Small buffers, so that the workload switches, flushes and compacts.
LsmDb::Options SweepOptions(FileIo* io) { return SmallOptions(600, 2, /*sync=*/true, io); }

std::string Own(int i) { return "own/" + std::to_string(i); }

// Batch i: its own key, a pair that always agrees, and now and then the
// deletion of an earlier own key.
WriteBatch Batch(int i) {
  const std::string v = std::to_string(i);
  WriteBatch b = {Put(Own(i), v + std::string(40, 'v')), Put("pair/a", v), Put("pair/b", v)};
  if (i % 5 == 4) b.push_back(Del(Own(i - 2)));
  return b;
}

// Which batches were acknowledged and which failed.
struct Outcome {
  std::set<int> acked;
  std::set<int> failed;
  bool opened = false;
  bool wrote_at_end = false;  // a last write, after the workload, succeeded
};

// Opens the state and writes batches [first, last); never stops early.
// After each write it lets the background thread finish its flush or
// compaction, so that the calls come in the same order in every run until
// the fault fires; after that it waits no more, since the fault may keep
// the background thread retrying.
Outcome RunWorkload(const std::string& dir, FaultInjectingFileIo* io, int first, int last) {
  Outcome out;
  std::unique_ptr<LsmDb> db;
  if (!LsmDb::Open(dir, SweepOptions(io), &db).ok()) {
    for (int i = first; i < last; ++i) out.failed.insert(i);
    return out;
  }
  out.opened = true;
  for (int i = first; i < last; ++i) {
    (db->Write(Batch(i)).ok() ? out.acked : out.failed).insert(i);
    while (io->total_injected() == 0 &&
           (db->ImmutableMemTableCount() > 0 || db->TableFileCount() > SweepOptions(io).max_table_files)) {
      std::this_thread::sleep_for(std::chrono::microseconds(10));
    }
  }
  // Two tries: the fault may land on the first.
  out.wrote_at_end = db->Write({Put("probe", "1")}).ok() || db->Write({Put("probe", "2")}).ok();
  return out;
}

// Checks `db` against the batches: the acknowledged ones exactly, the
// failed ones whole or absent (`failed_may_apply`), or absent.
void Check(LsmDb* db, const std::set<int>& acked, const std::set<int>& failed, bool failed_may_apply,
           const std::string& where) {
  SCOPED_TRACE(where);
  const std::string a = GetOrAbsent(db, "pair/a");
  ASSERT_EQ(GetOrAbsent(db, "pair/b"), a);  // batches apply whole
  const int last_acked = acked.empty() ? -1 : *acked.rbegin();
  const int pair = a == "<absent>" ? -1 : std::stoi(a);
  if (pair != last_acked) {
    ASSERT_TRUE(failed_may_apply && pair > last_acked && failed.count(pair)) << "pair at " << a;
  }
  for (int i = 0; i < kBatches; ++i) {
    const std::string got = GetOrAbsent(db, Own(i));
    const std::string want = std::to_string(i) + std::string(40, 'v');
    // Deleted by batch i + 2 when that one is a deleter.
    const int deleter = (i + 2) % 5 == 4 ? i + 2 : -1;
    const bool deleted_acked = deleter >= 0 && acked.count(deleter);
    const bool deleted_maybe = deleter >= 0 && failed.count(deleter) && failed_may_apply;
    if (acked.count(i)) {
      if (deleted_acked) {
        ASSERT_EQ(got, "<absent>") << Own(i);
      } else if (!deleted_maybe) {
        ASSERT_EQ(got, want) << Own(i);
      } else {
        ASSERT_TRUE(got == want || got == "<absent>") << Own(i) << ": " << got;
      }
    } else if (failed.count(i) && failed_may_apply) {
      ASSERT_TRUE(got == want || got == "<absent>") << Own(i) << ": " << got;
    } else {
      ASSERT_EQ(got, "<absent>") << Own(i);
    }
  }
}

class FaultSweep : public ::testing::Test {
 protected:
  void SetUp() override {
    // The state every run starts from: batches written, flushed into
    // tables and compacted, by an engine that was closed cleanly.
    FaultInjectingFileIo io;
    const Outcome setup = RunWorkload(base_.path(), &io, 0, kSetupBatches);
    ASSERT_EQ(setup.acked.size(), static_cast<size_t>(kSetupBatches));
    for (int i = 0; i < kSetupBatches; ++i) setup_acked_.insert(i);
  }

  // One run from a copy of the base state: the workload with `io` (armed
  // by the caller), the power cut, the reopen and the checks.
  void RunOnce(FaultInjectingFileIo* io, const std::string& what, bool sticky = false) {
    ScratchDir dir("kandb-sweep");
    std::filesystem::copy(base_.path(), dir.path(), std::filesystem::copy_options::recursive |
                                                         std::filesystem::copy_options::overwrite_existing);
    const Outcome out = RunWorkload(dir.path(), io, kSetupBatches, kBatches);
    const std::string where = what + (io->first_injected().empty() ? "" : " (" + io->first_injected() + ")");
    // A fault that passes leaves the engine writing again by itself,
    // without a restart.
    if (out.opened && !sticky) {
      ASSERT_TRUE(out.wrote_at_end) << where;
    }
    io->ClearAll();
    io->PowerCut();
    std::set<int> acked = setup_acked_;
    acked.insert(out.acked.begin(), out.acked.end());
    FaultInjectingFileIo plain;  // no faults, and no wait for real syncs
    plain.set_skip_real_syncs(true);
    std::unique_ptr<LsmDb> db;
    Status s = LsmDb::Open(dir.path(), SweepOptions(&plain), &db);
    ASSERT_TRUE(s.ok()) << where << ": " << s.ToString();
    Check(db.get(), acked, out.failed, /*failed_may_apply=*/true, where + ", reopened");
    // The engine writes again once the fault is gone.
    ASSERT_TRUE(db->Write({Put("after", "1")}).ok()) << where;
    acked_checked_ += acked.size();
  }

  ScratchDir base_{"kandb-sweep-base"};
  std::set<int> setup_acked_;
  uint64_t acked_checked_ = 0;
};

TEST_F(FaultSweep, EveryCallFailedInTurnLosesNothingAcknowledged) {
  // The fault-free run counts the calls and checks the running engine.
  uint64_t calls = 0;
  {
    FaultInjectingFileIo io;
    io.set_skip_real_syncs(true);
    RunOnce(&io, "no fault");
    calls = io.total_count();
  }
  ASSERT_GT(calls, 100u);
  const bool full = std::getenv("KANDB_FAULT_SWEEP") != nullptr;
  const struct {
    int error;
    bool sticky;
  } modes[] = {{ENOSPC, true}, {EIO, false}, {ENOSPC, false}, {EIO, true}};
  uint64_t runs = 0;
  uint64_t injected = 0;
  for (const auto& mode : modes) {
    // CI runs every point of the two modes that matter most (a disk that
    // stays full, a single I/O error) and every third point of the others.
    const uint64_t step = full || &mode < modes + 2 ? 1 : 3;
    for (uint64_t k = 1; k <= calls + 5; k += step) {
      FaultInjectingFileIo io;
      io.set_skip_real_syncs(true);
      io.FailCall(k, mode.error, mode.sticky);
      RunOnce(&io,
              std::string(mode.error == ENOSPC ? "ENOSPC" : "EIO") + (mode.sticky ? " from" : " at") + " call " +
                  std::to_string(k),
              mode.sticky);
      if (HasFatalFailure()) return;
      injected += io.total_injected();
      ++runs;
    }
  }
  FaultInjectingFileIo io;
  io.set_short_writes(true);
  RunOnce(&io, "short writes");
  std::printf("%llu calls, %llu runs, %llu faults injected, %llu acknowledged batches checked\n",
              static_cast<unsigned long long>(calls), static_cast<unsigned long long>(runs),
              static_cast<unsigned long long>(injected), static_cast<unsigned long long>(acked_checked_));
}

}  // namespace
}  // namespace kandb::lsm
