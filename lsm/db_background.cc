// Background work: flushing immutable memtables to table files and merging
// every table file into one. Both do their file work without db_mutex_ and
// take it only to reserve a file number and to install the result.
//
// Crash-safety order of both: the new table file is synced and renamed into
// place (and the directory synced), then a manifest naming it is published,
// and only once that manifest is durable are the files it replaces (logs,
// older tables) unlinked. A crash before the manifest leaves an orphan
// table, which the next Open deletes, and the old files, which it reads
// again; a crash after it leaves old files whose data is also in the new
// table, which is harmless.
//
// A step that fails changes nothing: what it wrote is deleted, the lists
// and the manifest stay as they were, and the loop tries again after a
// pause that grows while the failures go on (a full disk, say), so that a
// fault neither spins the thread nor floods the log.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "lsm/db.h"
#include "lsm/filename.h"
#include "lsm/manifest.h"
#include "lsm/memtable.h"
#include "lsm/table.h"

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
  db_mutex_.Lock();
  // The state is examined again after every step, so a compaction follows
  // a flush without a notification, and stop_ is seen between steps.
  while (!stop_) {
    Status s;
    const char* step = nullptr;
    const auto began = std::chrono::steady_clock::now();
    if (!imm_.empty()) {
      step = "flush";
      db_mutex_.Unlock();
      s = FlushOldestMemTable();
      db_mutex_.Lock();
      if (s.ok()) {
        ++stats_.flushes;
        stats_.flush_nanos += NanosSince(began);
      }
    } else if (manifest_unsynced_) {
      step = "manifest rewrite";
      s = RewriteManifest();
    } else if (!obsolete_files_.empty()) {
      step = "deletion of replaced files";
      s = DeleteObsoleteFiles();
    } else if (NeedsCompaction()) {
      step = "compaction";
      db_mutex_.Unlock();
      s = CompactAllTables();
      db_mutex_.Lock();
      if (s.ok()) {
        ++stats_.compactions;
        stats_.compaction_nanos += NanosSince(began);
      }
    } else {
      background_cv_.Wait();
      continue;
    }
    if (s.ok()) {
      pause = std::chrono::milliseconds(0);
      continue;
    }
    pause = pause.count() == 0 ? kFirstRetryPause : std::min(pause * 2, kLongestRetryPause);
    ReportStorageFault(std::string(step) + " failed: " + s.ToString() + " (retrying in " +
                       std::to_string(pause.count()) + " ms)");
    // A switch or the destructor wakes the pause early; either way the loop
    // looks at the state again.
    if (!stop_) background_cv_.WaitFor(pause);
  }
  db_mutex_.Unlock();
}

bool LsmDb::NeedsCompaction() const {
  return table_readers_.size() > std::max<uint64_t>(options_.max_table_files, 1);
}

Status LsmDb::PublishManifest(const std::vector<uint64_t>& tables, bool* published) {
  ManifestState state;
  state.next_file = next_file_;
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
  Status s = PublishManifest(live_tables_, &published);
  if (!published) return s;
  return RetireFiles({}, s);
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

  // The memtable is immutable now; the dump keeps deletion markers, which
  // must go on hiding older versions in older tables.
  const std::vector<Entry> entries = mem->Dump(std::string(), std::string(), 0);
  const std::string path = TableFileName(dir_, number);
  Status s = WriteTable(io_, path, entries);
  std::shared_ptr<SstReader> reader;
  if (s.ok()) s = SstReader::Open(io_, path, &reader);
  if (!s.ok()) {
    io_->Unlink(path.c_str());
    return s;
  }

  MutexLock lock(&db_mutex_);
  std::vector<uint64_t> tables = live_tables_;
  tables.insert(tables.begin(), number);
  bool published = false;
  s = PublishManifest(tables, &published);
  if (!published) {
    // Nothing names the new table: it goes, and the memtable stays queued
    // with its logs for the next try.
    reader.reset();
    io_->Unlink(path.c_str());
    return s;
  }
  table_readers_.insert(table_readers_.begin(), std::move(reader));
  live_tables_ = std::move(tables);
  imm_.pop_front();
  PublishView();
  return RetireFiles(mem->WalFiles(), s);
}

namespace {

// Merges the tables, newest first, into the live entries of all of them:
// the newest version of each key, with deletion markers dropped. Dropping
// them is right only because the merge covers every table file and every
// memtable is newer than every table.
Status MergeTables(const std::vector<std::shared_ptr<SstReader>>& tables, std::vector<Entry>* out) {
  std::vector<std::unique_ptr<SstIterator>> iters;
  iters.reserve(tables.size());
  for (const std::shared_ptr<SstReader>& table : tables) {
    std::unique_ptr<SstIterator> it = table->NewIterator(kCompactionReadBuffer);
    Status s = it->Seek(std::string());
    if (!s.ok()) return s;
    iters.push_back(std::move(it));
  }

  std::string key;
  for (;;) {
    // Smallest key first; on a tie the newest table (earliest in the list)
    // wins because the comparison is strict.
    SstIterator* winner = nullptr;
    for (const std::unique_ptr<SstIterator>& it : iters) {
      if (it->Valid() && (winner == nullptr || it->key() < winner->key())) winner = it.get();
    }
    if (winner == nullptr) return Status::OK();
    const uint8_t op = winner->op();
    key = winner->key();
    std::string value = winner->value();
    for (const std::unique_ptr<SstIterator>& it : iters) {
      if (it->Valid() && it->key() == key) {
        Status s = it->Next();
        if (!s.ok()) return s;
      }
    }
    if (op == kOpPut) out->push_back(Entry{kOpPut, key, std::move(value)});
  }
}

}  // namespace

Status LsmDb::CompactAllTables() {
  std::vector<std::shared_ptr<SstReader>> inputs;
  std::vector<uint64_t> input_numbers;
  uint64_t number = 0;
  {
    MutexLock lock(&db_mutex_);
    inputs = table_readers_;
    input_numbers = live_tables_;
    // Consumed even when there turns out to be nothing to merge.
    number = next_file_++;
  }
  if (inputs.size() < 2) return Status::OK();

  std::vector<Entry> merged;
  Status s = MergeTables(inputs, &merged);
  if (!s.ok()) return s;
  // Written even when empty, so that the inputs can be dropped.
  const std::string path = TableFileName(dir_, number);
  s = WriteTable(io_, path, merged);
  merged = std::vector<Entry>();
  std::shared_ptr<SstReader> reader;
  if (s.ok()) s = SstReader::Open(io_, path, &reader);
  if (!s.ok()) {
    io_->Unlink(path.c_str());
    return s;
  }

  MutexLock lock(&db_mutex_);
  // Tables installed after the inputs were copied are newer than all of
  // them: they keep their place in front, and the merged table, holding
  // the oldest data, goes to the back.
  std::vector<std::shared_ptr<SstReader>> readers;
  std::vector<uint64_t> numbers;
  for (size_t i = 0; i < live_tables_.size(); ++i) {
    if (std::find(input_numbers.begin(), input_numbers.end(), live_tables_[i]) != input_numbers.end()) {
      continue;
    }
    readers.push_back(table_readers_[i]);
    numbers.push_back(live_tables_[i]);
  }
  readers.push_back(std::move(reader));
  numbers.push_back(number);
  bool published = false;
  s = PublishManifest(numbers, &published);
  if (!published) {
    // The inputs stay in force, in memory and on disk; the merged table goes.
    readers.back().reset();
    io_->Unlink(path.c_str());
    return s;
  }
  table_readers_ = std::move(readers);
  live_tables_ = std::move(numbers);
  PublishView();
  std::vector<std::string> replaced;
  for (uint64_t input : input_numbers) replaced.push_back(TableFileName(dir_, input));
  return RetireFiles(std::move(replaced), s);
}

}  // namespace kandb::lsm
