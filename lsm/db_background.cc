// Background work: flushing immutable memtables to table files and merging
// every table file into one. Neither holds db_mutex_, which the write
// leader takes, across a file-system call: they take it only for a moment,
// to reserve a file number, to read the next file number a manifest
// records and to install a result. The manifest's write, sync, rename and
// directory sync, and the unlinks of replaced files, run under
// manifest_mutex_ alone, which writers never take.
//
// Crash-safety order of both: the new table file is synced and renamed into
// place (and the directory synced), then a manifest naming it is published,
// and only once that manifest is durable are the files it replaces (logs,
// older tables) unlinked. A crash before the manifest leaves an orphan
// table, which the next Open deletes, and the old files, which it reads
// again; a crash after it leaves old files whose data is also in the new
// table, which is harmless. Installing the result in memory, between the
// manifest and the unlinks, leaves nothing on disk.
//
// The next file number a manifest records is read just before the manifest
// is written, and writers go on taking numbers while it is: a switch may
// make a log numbered at or past what the manifest records. Open raises
// the number past every log and table file it lists, so such a log is
// never numbered again; a number taken for a file that was never made
// (a crash before it existed) leaves a gap and nothing else.
//
// A step that fails changes nothing: what it wrote is deleted, the lists
// and the manifest stay as they were, and the loop tries again after a
// pause that grows while the failures go on (a full disk, say), so that a
// fault neither spins the thread nor floods the log.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "lsm/db.h"
#include "lsm/filename.h"
#include "lsm/manifest.h"
#include "lsm/memtable.h"
#include "lsm/table.h"
#include "lsm/table_builder.h"

namespace kandb::lsm {

namespace {

constexpr std::chrono::milliseconds kFirstRetryPause{50};
constexpr std::chrono::milliseconds kLongestRetryPause{5000};

uint64_t NanosSince(std::chrono::steady_clock::time_point began) {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - began).count());
}

}  // namespace

void LsmDb::BackgroundLoop() {
  std::chrono::milliseconds pause{0};
  for (;;) {
    const BackgroundStep step = AwaitBackgroundStep();
    if (step == BackgroundStep::kStop) return;
    Status s;
    const char* name = nullptr;
    const auto began = std::chrono::steady_clock::now();
    background_writing_.store(true, std::memory_order_relaxed);
    switch (step) {
      case BackgroundStep::kFlush:
        name = "flush";
        s = FlushOldestMemTable();
        if (s.ok()) {
          MutexLock lock(&db_mutex_);
          ++stats_.flushes;
          stats_.flush_nanos += NanosSince(began);
        }
        break;
      case BackgroundStep::kRewriteManifest: {
        name = "manifest rewrite";
        MutexLock lock(&manifest_mutex_);
        s = RewriteManifest();
        break;
      }
      case BackgroundStep::kDeleteReplaced: {
        name = "deletion of replaced files";
        MutexLock lock(&manifest_mutex_);
        s = DeleteObsoleteFiles();
        break;
      }
      case BackgroundStep::kCompact:
        name = "compaction";
        s = CompactAllTables();
        if (s.ok()) {
          MutexLock lock(&db_mutex_);
          ++stats_.compactions;
          stats_.compaction_nanos += NanosSince(began);
        }
        break;
      case BackgroundStep::kStop:
        return;
    }
    background_writing_.store(false, std::memory_order_relaxed);
    if (s.ok()) {
      pause = std::chrono::milliseconds(0);
      continue;
    }
    pause = pause.count() == 0 ? kFirstRetryPause : std::min(pause * 2, kLongestRetryPause);
    ReportStorageFault(std::string(name) + " failed: " + s.ToString() + " (retrying in " +
                       std::to_string(pause.count()) + " ms)");
    // A switch or the destructor wakes the pause early; either way the loop
    // looks at the state again.
    MutexLock lock(&db_mutex_);
    if (!stop_) background_cv_.WaitFor(pause);
  }
}

LsmDb::BackgroundStep LsmDb::AwaitBackgroundStep() {
  // The state is examined again before every step, so a compaction follows
  // a flush without a notification, and stop_ is seen between steps. What
  // the files need changes only through background work, so it is read
  // once; the memtables change under the writers, and are read under the
  // lock that the wait releases, so that no switch goes unseen.
  BackgroundStep files = BackgroundStep::kStop;
  {
    MutexLock lock(&manifest_mutex_);
    if (manifest_unsynced_) {
      files = BackgroundStep::kRewriteManifest;
    } else if (!obsolete_files_.empty()) {
      files = BackgroundStep::kDeleteReplaced;
    }
  }
  MutexLock lock(&db_mutex_);
  for (;;) {
    if (stop_) return BackgroundStep::kStop;
    if (!imm_.empty()) return BackgroundStep::kFlush;
    if (files != BackgroundStep::kStop) return files;
    if (NeedsCompaction()) return BackgroundStep::kCompact;
    background_cv_.Wait();
  }
}

bool LsmDb::NeedsCompaction() const {
  return table_readers_.size() > std::max<uint64_t>(options_.max_table_files, 1);
}

uint64_t LsmDb::NextFileForManifest() {
  MutexLock lock(&db_mutex_);
  return next_file_;
}

Status LsmDb::PublishManifest(uint64_t next_file, const std::vector<uint64_t>& tables, bool* published) {
  ManifestState state;
  state.next_file = next_file;
  state.sst_files = tables;
  return WriteManifest(io_, dir_, state, published);
}

Status LsmDb::RetireFiles(std::vector<std::string> replaced, const Status& manifest_sync) {
  obsolete_files_.insert(obsolete_files_.end(), replaced.begin(), replaced.end());
  manifest_unsynced_ = !manifest_sync.ok();
  if (manifest_unsynced_) return manifest_sync;
  return DeleteObsoleteFiles();
}

Status LsmDb::DeleteObsoleteFiles() {
  // Readers that captured a memtable or table keep their own references
  // (and open descriptors); recovery no longer needs these files.
  size_t deleted = 0;
  Status s;
  for (; deleted < obsolete_files_.size(); ++deleted) {
    const std::string& path = obsolete_files_[deleted];
    if (io_->Unlink(path.c_str()) != 0 && errno != ENOENT) {
      s = Status::Corruption("unlink " + path + ": " + std::strerror(errno));
      break;
    }
  }
  obsolete_files_.erase(obsolete_files_.begin(), obsolete_files_.begin() + static_cast<ptrdiff_t>(deleted));
  return s;
}

Status LsmDb::RewriteManifest() {
  bool published = false;
  Status s = PublishManifest(NextFileForManifest(), live_tables_, &published);
  if (!published) return s;
  return RetireFiles({}, s);
}

Status LsmDb::FinishTable(Status s, std::unique_ptr<TableBuilder> builder, const std::string& path,
                          std::shared_ptr<SstReader>* reader) {
  if (s.ok()) s = builder->Finish();
  builder.reset();
  if (s.ok()) s = SstReader::Open(io_, path, reader);
  if (!s.ok()) io_->Unlink(path.c_str());
  return s;
}

Status LsmDb::FlushOldestMemTable() {
  std::shared_ptr<MemTable> mem;
  uint64_t number = 0;
  {
    MutexLock lock(&db_mutex_);
    if (imm_.empty()) return Status::OK();
    mem = imm_.front();
    number = next_file_++;
  }

  // The memtable is immutable now, so its walk streams straight into the
  // table file; deletion markers go too, to go on hiding older versions in
  // older tables.
  const std::string path = TableFileName(dir_, number);
  std::unique_ptr<TableBuilder> builder;
  Status s = TableBuilder::Open(io_, path, mem->EntryCount(), &builder);
  if (s.ok()) {
    MemTable::Iterator it(mem.get());
    for (it.SeekToFirst(); s.ok() && it.Valid(); it.Next()) s = builder->Add(it.op(), it.key(), it.value());
  }
  std::shared_ptr<SstReader> reader;
  s = FinishTable(s, std::move(builder), path, &reader);
  if (!s.ok()) return s;

  // From here to the install one hold of manifest_mutex_, so that the
  // tables the manifest names are the tables installed; db_mutex_ only for
  // the moments that read or change what writers and readers share.
  MutexLock manifest_lock(&manifest_mutex_);
  std::vector<uint64_t> tables = live_tables_;
  tables.insert(tables.begin(), number);
  bool published = false;
  s = PublishManifest(NextFileForManifest(), tables, &published);
  if (!published) {
    // Nothing names the new table: it goes, and the memtable stays queued
    // with its logs for the next try.
    reader.reset();
    io_->Unlink(path.c_str());
    return s;
  }
  live_tables_ = std::move(tables);
  {
    MutexLock lock(&db_mutex_);
    table_readers_.insert(table_readers_.begin(), std::move(reader));
    // Only a flush removes memtables, and it removes the one it flushed.
    imm_.pop_front();
    PublishView();
  }
  // `mem` is released on return, outside every lock: the last reference to
  // a flushed memtable frees its arena.
  return RetireFiles(mem->WalFiles(), s);
}

namespace {

// Merges the tables, newest first, into `out`: the newest version of each
// key, with deletion markers dropped. Dropping them is right only because
// the merge covers every table file and every memtable is newer than every
// table. Every run of a checked table is checked as it is read, so a
// damaged table fails the merge instead of being copied into the output.
// `between_steps` runs after every kMergeStepKeys keys.
constexpr uint64_t kMergeStepKeys = 4096;
Status MergeTables(const std::vector<std::shared_ptr<SstReader>>& tables, TableBuilder* out,
                   const std::function<void()>& between_steps) {
  std::vector<std::unique_ptr<SstIterator>> iters;
  iters.reserve(tables.size());
  for (const std::shared_ptr<SstReader>& table : tables) {
    std::unique_ptr<SstIterator> it = table->NewIterator(kCompactionReadBuffer);
    Status s = it->Seek(std::string());
    if (!s.ok()) return s;
    iters.push_back(std::move(it));
  }

  std::string key;
  for (uint64_t merged = 1;; ++merged) {
    if (merged % kMergeStepKeys == 0) between_steps();
    // Smallest key first; on a tie the newest table (earliest in the list)
    // wins because the comparison is strict.
    SstIterator* winner = nullptr;
    for (const std::unique_ptr<SstIterator>& it : iters) {
      if (it->Valid() && (winner == nullptr || it->key() < winner->key())) winner = it.get();
    }
    if (winner == nullptr) return Status::OK();
    // Written before the iterators move on, while the winner still holds it.
    if (winner->op() == kOpPut) {
      Status s = out->Add(kOpPut, winner->key(), winner->value());
      if (!s.ok()) return s;
    }
    key = winner->key();
    for (const std::unique_ptr<SstIterator>& it : iters) {
      if (it->Valid() && it->key() == key) {
        Status s = it->Next();
        if (!s.ok()) return s;
      }
    }
  }
}

}  // namespace

Status LsmDb::CompactAllTables() {
  std::vector<std::shared_ptr<SstReader>> inputs;
  std::vector<uint64_t> input_numbers;
  uint64_t number = 0;
  {
    MutexLock manifest_lock(&manifest_mutex_);
    MutexLock lock(&db_mutex_);
    inputs = table_readers_;
    input_numbers = live_tables_;
    // Consumed even when there turns out to be nothing to merge.
    number = next_file_++;
  }
  if (inputs.size() < 2) return Status::OK();

  // The merge streams into the table file; written even when empty, so
  // that the inputs can be dropped. Its record count is known only at the
  // end.
  const std::string path = TableFileName(dir_, number);
  std::unique_ptr<TableBuilder> builder;
  Status s = TableBuilder::Open(io_, path, TableBuilder::kUnknownCount, &builder);
  // Writers never wait for the background thread, so every memtable they
  // fill during a long merge would stay in memory until it ends, and a
  // merge takes longer the more data there is. Full memtables are flushed
  // between merge steps instead: such a table is newer than every input and
  // keeps its place in front of the merged one. A failed flush is reported
  // and left to the loop's retry once the merge is done.
  bool flushes_failing = false;
  auto flush_waiting = [this, &flushes_failing] {
    if (flushes_failing) return;
    {
      MutexLock lock(&db_mutex_);
      if (imm_.empty() || stop_) return;
    }
    const auto began = std::chrono::steady_clock::now();
    Status flushed = FlushOldestMemTable();
    if (flushed.ok()) {
      MutexLock lock(&db_mutex_);
      ++stats_.flushes;
      stats_.flush_nanos += NanosSince(began);
    } else {
      flushes_failing = true;
      ReportStorageFault("flush during compaction failed: " + flushed.ToString());
    }
  };
  if (s.ok()) {
    builder->set_between_steps(flush_waiting);
    s = MergeTables(inputs, builder.get(), flush_waiting);
  }
  std::shared_ptr<SstReader> reader;
  s = FinishTable(s, std::move(builder), path, &reader);
  if (!s.ok()) return s;

  MutexLock manifest_lock(&manifest_mutex_);
  // Tables installed after the inputs were copied are newer than all of
  // them: they keep their place in front, and the merged table, holding
  // the oldest data, goes to the back. Installs hold manifest_mutex_, so
  // the lists copied here are the lists the install replaces.
  std::vector<std::shared_ptr<SstReader>> readers;
  std::vector<uint64_t> numbers;
  {
    MutexLock lock(&db_mutex_);
    for (size_t i = 0; i < live_tables_.size(); ++i) {
      if (std::find(input_numbers.begin(), input_numbers.end(), live_tables_[i]) != input_numbers.end()) {
        continue;
      }
      readers.push_back(table_readers_[i]);
      numbers.push_back(live_tables_[i]);
    }
  }
  readers.push_back(std::move(reader));
  numbers.push_back(number);
  bool published = false;
  s = PublishManifest(NextFileForManifest(), numbers, &published);
  if (!published) {
    // The inputs stay in force, in memory and on disk; the merged table goes.
    readers.back().reset();
    io_->Unlink(path.c_str());
    return s;
  }
  live_tables_ = std::move(numbers);
  {
    MutexLock lock(&db_mutex_);
    table_readers_ = std::move(readers);
    PublishView();
  }
  // `inputs` keeps the replaced readers open until the return, so that
  // their last release (and close) happens outside every lock.
  std::vector<std::string> replaced;
  for (uint64_t input : input_numbers) replaced.push_back(TableFileName(dir_, input));
  return RetireFiles(std::move(replaced), s);
}

}  // namespace kandb::lsm
