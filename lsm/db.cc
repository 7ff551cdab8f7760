// Opening, recovering and closing the engine, and its diagnostics.

#include "lsm/db.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/manifest.h"
#include "lsm/memtable.h"
#include "lsm/state_dir.h"
#include "lsm/table.h"

namespace kandb::lsm {

namespace {

// Creates `dir` (one level, mode 0755) unless a directory is already there.
// A directory made here is synced into its parent, so that the state
// written into it cannot vanish with its name in a crash.
Status PrepareDirectory(FileIo* io, const std::string& dir) {
  struct stat st;
  if (io->Stat(dir.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode)) return Status::InvalidArgument(dir + " exists and is not a directory");
    return Status::OK();
  }
  if (io->Mkdir(dir.c_str(), 0755) != 0) {
    if (errno == EEXIST) return Status::OK();
    return Status::Corruption("mkdir " + dir + ": " + std::strerror(errno));
  }
  const size_t slash = dir.find_last_of('/');
  const std::string parent = slash == std::string::npos ? "." : slash == 0 ? "/" : dir.substr(0, slash);
  return SyncDirectory(io, parent);
}

}  // namespace

LsmDb::LsmDb(std::string dir, const Options& options)
    : dir_(std::move(dir)),
      options_(options),
      io_(options.io != nullptr ? options.io : DefaultFileIo()),
      gather_limit_(8 * std::max(1u, std::thread::hardware_concurrency())) {}

Status LsmDb::Open(const std::string& dir, const Options& options, std::unique_ptr<LsmDb>* out) {
  std::unique_ptr<LsmDb> db(new LsmDb(dir, options));
  Status s = PrepareDirectory(db->io_, dir);
  if (!s.ok()) return s;
  {
    // No other thread can see the engine yet; the lock is taken so that
    // recovery is checked like every other user of the guarded members.
    MutexLock manifest_lock(&db->manifest_mutex_);
    MutexLock lock(&db->db_mutex_);
    s = db->Recover();
  }
  // On failure the half-built engine is destroyed before its thread exists.
  if (!s.ok()) return s;
  db->background_thread_ = std::thread([raw = db.get()] { raw->BackgroundLoop(); });
  db->commit_thread_ = std::thread([raw = db.get()] { raw->CommitLoop(); });
  *out = std::move(db);
  return Status::OK();
}

Status LsmDb::Recover() {
  ManifestState manifest;
  manifest.next_file = next_file_;
  bool exists = false;
  Status s = ReadManifest(io_, dir_, &manifest, &exists);
  if (!s.ok()) return s;
  live_tables_ = manifest.sst_files;

  // A listing that failed part-way would make live logs look absent and
  // their acknowledged batches lost, so it fails the open instead. An entry
  // that could not be stat'ed is listed: the replay or the table open below
  // reports what opening it meets.
  StateDirectory listing;
  s = StateDirectory::List(io_, dir_, &listing);
  if (!s.ok()) return s;

  // The canonical name is rebuilt rather than taken from the listing, so a
  // non-canonical file stays.
  for (uint64_t number : listing.OrphanTables(manifest)) io_->Unlink(TableFileName(dir_, number).c_str());
  for (uint64_t number : live_tables_) {
    std::shared_ptr<SstReader> reader;
    s = SstReader::Open(io_, TableFileName(dir_, number), &reader);
    if (!s.ok()) return s;
    table_readers_.push_back(std::move(reader));
  }
  next_file_ = listing.NextFileAfter(manifest.next_file);

  mem_ = std::make_shared<MemTable>();
  s = ReplayLogs(listing.Numbers(FileKind::kLog));
  if (!s.ok()) return s;

  // The replayed logs are deleted when this memtable is flushed, never
  // here: until then they are the only durable copy of its data.
  s = CreateLog(&wal_);
  if (!s.ok()) return s;
  mem_->AddWalFile(wal_->path());
  bool published = false;
  s = PublishManifest(next_file_, live_tables_, &published);
  if (!s.ok()) return s;
  PublishView();
  return Status::OK();
}

Status LsmDb::ReplayLogs(const std::vector<uint64_t>& log_numbers) {
  // Every log goes into the one memtable, whatever its size: recovery
  // neither switches nor flushes. The first write group after Open switches
  // it when it is over the write buffer size.
  MemTable* const mem = mem_.get();
  for (uint64_t number : log_numbers) {
    const std::string path = LogFileName(dir_, number);
    Status s = ReplayLog(io_, path, [mem](WriteBatch&& batch) { mem->Apply(batch); });
    if (!s.ok()) return s;
    mem->AddWalFile(path);
  }
  return Status::OK();
}

LsmDb::~LsmDb() {
  // Queued asynchronous writes are still written and answered first.
  {
    MutexLock lock(&write_queue_mutex_);
    commit_stop_ = true;
  }
  commit_cv_.SignalAll();
  if (commit_thread_.joinable()) commit_thread_.join();
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
      MutexLock manifest_lock(&manifest_mutex_);
      MutexLock lock(&db_mutex_);
      if (imm_.empty() && !NeedsCompaction() && !manifest_unsynced_ && obsolete_files_.empty()) return;
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
