// Background work: flushing immutable memtables to table files and merging
// every table file into one. Both do their file work without db_mutex_ and
// take it only to reserve a file number and to install the result.
//
// Crash-safety order of both: the new table file is synced and renamed into
// place, then the manifest is rewritten to name it, and only then are the
// files it replaces (logs, older tables) unlinked. A crash before the
// manifest rewrite leaves an orphan table, which the next Open deletes, and
// the old files, which it reads again; a crash after it leaves old files
// whose data is also in the new table, which is harmless.

#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "lsm/db.h"
#include "lsm/file_io.h"
#include "lsm/filename.h"
#include "lsm/manifest.h"
#include "lsm/memtable.h"
#include "lsm/table.h"

namespace kandb::lsm {

void LsmDb::BackgroundLoop() {
  db_mutex_.Lock();
  // The state is examined again after every step, so a compaction follows
  // a flush without a notification, and stop_ is seen between steps.
  while (!stop_) {
    if (!imm_.empty()) {
      db_mutex_.Unlock();
      // A failed flush is retried at once and without end: the memtable and
      // its logs stay as they are until a flush of it succeeds.
      FlushOldestMemTable();
      db_mutex_.Lock();
    } else if (table_readers_.size() <= options_.max_table_files) {
      background_cv_.Wait();
    } else {
      db_mutex_.Unlock();
      CompactAllTables();
      db_mutex_.Lock();
    }
  }
  db_mutex_.Unlock();
}

Status LsmDb::WriteManifestLocked() {
  ManifestState state;
  state.next_file = next_file_;
  state.sst_files = live_tables_;
  return WriteManifest(dir_, state);
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
  Status s = WriteTable(path, entries);
  if (!s.ok()) return s;
  std::shared_ptr<SstReader> reader;
  s = SstReader::Open(path, &reader);
  if (!s.ok()) return s;

  {
    MutexLock lock(&db_mutex_);
    table_readers_.insert(table_readers_.begin(), std::move(reader));
    live_tables_.insert(live_tables_.begin(), number);
    s = WriteManifestLocked();
    // On failure the reader stays installed (its data is right, merely
    // duplicated) and the memtable stays queued: the retry flushes it again
    // under a new number, and its logs survive until a manifest names a
    // table that holds their data.
    if (!s.ok()) return s;
    imm_.pop_front();
  }

  // Readers that captured the memtable keep it; its logs are no longer
  // needed by recovery.
  for (const std::string& log : mem->WalFiles()) CurrentFileIo()->Unlink(log.c_str());
  return Status::OK();
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
  s = WriteTable(path, merged);
  if (!s.ok()) return s;
  std::shared_ptr<SstReader> reader;
  s = SstReader::Open(path, &reader);
  if (!s.ok()) return s;

  {
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
    table_readers_ = std::move(readers);
    live_tables_ = std::move(numbers);
    // On failure the inputs are no longer in the lists but the manifest on
    // disk still names them; they stay on disk until an Open deletes them
    // as orphans or reads them again.
    s = WriteManifestLocked();
    if (!s.ok()) return s;
  }

  // Reads in flight keep their readers, and with them open descriptors, to
  // the unlinked files.
  for (uint64_t input : input_numbers) CurrentFileIo()->Unlink(TableFileName(dir_, input).c_str());
  return Status::OK();
}

}  // namespace kandb::lsm
