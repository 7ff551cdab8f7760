// Opening, recovering and closing the engine, and its diagnostics.

#include "lsm/db.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "lsm/file_io.h"
#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/manifest.h"
#include "lsm/memtable.h"
#include "lsm/table.h"

namespace kandb::lsm {

namespace {

// Creates `dir` (one level, mode 0755) unless a directory is already there.
Status PrepareDirectory(const std::string& dir) {
  struct stat st;
  if (::stat(dir.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode)) return Status::InvalidArgument(dir + " exists and is not a directory");
    return Status::OK();
  }
  if (::mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
    return Status::Corruption("mkdir " + dir + ": " + std::strerror(errno));
  }
  return Status::OK();
}

// The numbers of the log and table files in `dir`, ascending. A name counts
// by its prefix and digits alone (see ParseFileName), so leftover temporary
// files raise the file counter too. An unreadable directory lists empty.
void ListDirectory(const std::string& dir, std::vector<uint64_t>* logs, std::vector<uint64_t>* tables) {
  if (DIR* d = ::opendir(dir.c_str())) {
    while (const struct dirent* entry = ::readdir(d)) {
      uint64_t number = 0;
      switch (ParseFileName(entry->d_name, &number)) {
        case FileKind::kLog:
          logs->push_back(number);
          break;
        case FileKind::kTable:
          tables->push_back(number);
          break;
        case FileKind::kOther:
          break;
      }
    }
    ::closedir(d);
  }
  // Two names can carry one number (wal-1.log beside wal-000001.log); the
  // number names one file, which is replayed once.
  for (std::vector<uint64_t>* list : {logs, tables}) {
    std::sort(list->begin(), list->end());
    list->erase(std::unique(list->begin(), list->end()), list->end());
  }
}

}  // namespace

LsmDb::LsmDb(std::string dir, const Options& options) : dir_(std::move(dir)), options_(options) {}

Status LsmDb::Open(const std::string& dir, const Options& options, std::unique_ptr<LsmDb>* out) {
  Status s = PrepareDirectory(dir);
  if (!s.ok()) return s;
  std::unique_ptr<LsmDb> db(new LsmDb(dir, options));
  {
    // No other thread can see the engine yet; the lock is taken so that
    // recovery is checked like every other user of the guarded members.
    MutexLock lock(&db->db_mutex_);
    s = db->Recover();
  }
  // On failure the half-built engine is destroyed before its thread exists.
  if (!s.ok()) return s;
  db->background_thread_ = std::thread([raw = db.get()] { raw->BackgroundLoop(); });
  *out = std::move(db);
  return Status::OK();
}

Status LsmDb::Recover() {
  ManifestState manifest;
  manifest.next_file = next_file_;
  bool exists = false;
  Status s = ReadManifest(dir_, &manifest, &exists);
  if (!s.ok()) return s;
  next_file_ = manifest.next_file;
  live_tables_ = manifest.sst_files;

  std::vector<uint64_t> logs;
  std::vector<uint64_t> tables;
  ListDirectory(dir_, &logs, &tables);

  // A table the manifest does not name was written by a flush or compaction
  // that did not reach its manifest rewrite. The canonical name is rebuilt
  // rather than taken from the listing, so a non-canonical file stays.
  for (uint64_t number : tables) {
    if (std::find(live_tables_.begin(), live_tables_.end(), number) == live_tables_.end()) {
      CurrentFileIo()->Unlink(TableFileName(dir_, number).c_str());
    }
  }
  for (uint64_t number : live_tables_) {
    std::shared_ptr<SstReader> reader;
    s = SstReader::Open(TableFileName(dir_, number), &reader);
    if (!s.ok()) return s;
    table_readers_.push_back(std::move(reader));
  }

  // Files created after the last manifest rewrite (logs of later switches,
  // orphan tables) may carry numbers at or past its next_file.
  if (!logs.empty()) next_file_ = std::max(next_file_, logs.back() + 1);
  if (!tables.empty()) next_file_ = std::max(next_file_, tables.back() + 1);

  mem_ = std::make_shared<MemTable>();
  s = ReplayLogs(logs);
  if (!s.ok()) return s;

  // The replayed logs are deleted when this memtable is flushed, never
  // here: until then they are the only durable copy of its data.
  const std::string path = LogFileName(dir_, next_file_++);
  s = OpenLogForAppend(path, &wal_);
  if (!s.ok()) return s;
  mem_->AddWalFile(path);
  return WriteManifestLocked();
}

Status LsmDb::ReplayLogs(const std::vector<uint64_t>& log_numbers) {
  // Every log goes into the one memtable, whatever its size: recovery
  // neither switches nor flushes. The first write group after Open switches
  // it when it is over the write buffer size.
  MemTable* const mem = mem_.get();
  for (uint64_t number : log_numbers) {
    const std::string path = LogFileName(dir_, number);
    Status s = ReplayLog(path, [mem](WriteBatch&& batch) { mem->Apply(batch); });
    if (!s.ok()) return s;
    mem->AddWalFile(path);
  }
  return Status::OK();
}

LsmDb::~LsmDb() {
  {
    MutexLock lock(&db_mutex_);
    stop_ = true;
  }
  background_cv_.SignalAll();
  // A flush or compaction in progress finishes first: the thread tests the
  // flag only between steps.
  if (background_thread_.joinable()) background_thread_.join();
  // The members close the log and release memtables and readers. Nothing is
  // flushed or synced: the logs hold what the memtables held.
}

void LsmDb::WaitForBackgroundIdle() {
  for (;;) {
    {
      MutexLock lock(&db_mutex_);
      if (imm_.empty() && table_readers_.size() <= options_.max_table_files) return;
    }
    background_cv_.Signal();
    struct timespec request = {0, 1000000};
    struct timespec remaining;
    while (::nanosleep(&request, &remaining) != 0 && errno == EINTR) request = remaining;
  }
}

uint64_t LsmDb::TableFileCount() {
  MutexLock lock(&db_mutex_);
  return table_readers_.size();
}

uint64_t LsmDb::ImmutableMemTableCount() {
  MutexLock lock(&db_mutex_);
  return imm_.size();
}

}  // namespace kandb::lsm
