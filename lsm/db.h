#ifndef KANDB_LSM_DB_H_
#define KANDB_LSM_DB_H_

// LsmDb: the log-structured engine under the metadata store. Every change
// goes to the write-ahead log, then to the active memtable; one background
// thread flushes full memtables to table files and merges all tables into
// one when there are too many. Any number of threads may call Write, Get
// and Scan at once.

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "lsm/db_stats.h"
#include "lsm/entry.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

class LogFile;
class MemTable;
class SstReader;
class TableBuilder;
struct ReadView;

class LsmDb {
 public:
  struct Options {
    // The active memtable is switched after a write group that brings its
    // approximate size to this many bytes or more.
    uint64_t write_buffer_size = 64ull << 20;
    // A full compaction runs while more table files than this are open.
    uint64_t max_table_files = 8;
    // fdatasync the log once per write group before the memtable is touched.
    bool sync = true;
    // Every file-system call of the engine goes through this seam; tests
    // pass one that injects faults. Not owned; must outlive the engine.
    FileIo* io = DefaultFileIo();
    // Called by the write leader with every batch it has just made visible,
    // in the order the engine applies them (which is the log's order), so
    // that a cache kept beside the engine changes in exactly that order,
    // also when two writers change the same key at once. It runs while
    // writes wait: it must be quick and must not call into the engine.
    std::function<void(const WriteBatch&)> on_apply;
  };

  // Opens (creating the directory if needed) and recovers the engine in
  // `dir`, then starts its background thread. On success replaces *out.
  static Status Open(const std::string& dir, const Options& options, std::unique_ptr<LsmDb>* out);

  // Stops and joins the background thread and closes the log. Flushes
  // nothing: the logs hold what the memtables held.
  ~LsmDb();
  LsmDb(const LsmDb&) = delete;
  LsmDb& operator=(const LsmDb&) = delete;

  // Logs `batch` as one record (synced when Options::sync) and then makes it
  // visible as a whole. Concurrent callers share one log write group.
  Status Write(const std::vector<Entry>& batch);
  // The same write without waiting for it: the batch joins the write queue
  // and `done` is called with what Write would have returned, once the
  // batch is synced and visible (or has failed), on the thread of the
  // group's leader: the engine's commit thread, or a Write caller leading
  // that group. `done` must be quick and must not write to this engine.
  //
  // With `defer_lead` the caller promises to call LeadDeferred once it has
  // queued the rest of what it holds (an event loop, after its pass), and
  // the commit thread is not woken for this batch meanwhile.
  void WriteAsync(WriteBatch batch, std::function<void(const Status&)> done, bool defer_lead = false)
      EXCLUDES(write_queue_mutex_);
  // Writes the queue as one group on the calling thread when no leader
  // runs, every writer of the last group has queued again, the last group
  // took at most kCallerLeadLimit (the caller's thread saves two
  // hand-offs) and no flush or compaction is writing; otherwise leaves the
  // queue to the commit thread, waking it unless it already waits for the
  // rest of those writers. Calls the callbacks of the caller's own batches
  // on the calling thread when it leads.
  void LeadDeferred() EXCLUDES(write_queue_mutex_);
  // The longest a group may have taken for LeadDeferred to lead the next
  // one itself: a slower disk keeps the caller's thread (an event loop
  // serving other connections) out of the sync.
  static constexpr std::chrono::milliseconds kCallerLeadLimit{2};

  // Newest version of `key`. A missing or deleted key succeeds with *found
  // false; *value is set only when *found is true.
  Status Get(const std::string& key, std::string* value, bool* found);

  // Clears *out and fills it with the live entries of [start, end) in key
  // order (an empty end means no upper bound), at most `limit` of them.
  Status Scan(const std::string& start, const std::string& end, uint32_t limit,
              std::vector<Entry>* out);

  // The same range read as Scan, handing each live entry to `visit` in key
  // order instead of copying it out: the views are valid during the call
  // only. `visit` returns false to end the walk early (ForEach then returns
  // OK). A table read failure ends the walk with its status.
  Status ForEach(const std::string& start, const std::string& end, uint32_t limit,
                 const std::function<bool(std::string_view key, std::string_view value)>& visit);

  // Diagnostics: returns once no flush or compaction is pending (polls every 1 ms).
  void WaitForBackgroundIdle();
  uint64_t TableFileCount();
  uint64_t ImmutableMemTableCount();

  // The counters since Open and the current sizes. Takes db_mutex_, so it
  // may wait for a write group's sync to end.
  EngineStats GetStats() EXCLUDES(db_mutex_);

 private:
  friend class LsmDbTestPeer;

  // One Write call waiting in, or leading, the group-commit queue. Lives on
  // the caller's stack for the duration of the call.
  // A thread's way to sleep until a leader wakes it: a semaphore taken
  // from a pool for the thread's life and never freed, so that a leader may
  // post to it even after the writer it woke has returned (a late post only
  // wakes that thread once more, and it looks again).
  class Waiter;

  struct WriterSlot {
    WriterSlot(const WriteBatch* b, Mutex* queue_mutex, Waiter* w) : batch(b), mu(queue_mutex), waiter(w) {}
    // An asynchronous write's slot, on the heap and owning its batch; the
    // leader that writes it calls `callback` and frees it.
    WriterSlot(WriteBatch b, Mutex* queue_mutex, std::function<void(const Status&)> done)
        : batch(&owned), mu(queue_mutex), waiter(nullptr), owned(std::move(b)), callback(std::move(done)) {}
    // The caller's batch; the leader reads it while the caller waits.
    const WriteBatch* const batch;
    // Always the engine's write_queue_mutex_. Holding a pointer to it here
    // lets the analysis check the fields it guards; code that holds the
    // queue lock says so with mu->AssertHeld().
    Mutex* const mu;
    // The calling thread's; posted when the slot is done or has become the
    // head of the queue. Null for an asynchronous write.
    Waiter* const waiter;
    const WriteBatch owned;
    const std::function<void(const Status&)> callback;
    // Set by the leader of the slot's group before done; read by the
    // caller once it has seen done (the store of done publishes it).
    Status result;
    std::atomic<bool> done{false};
  };

  LsmDb(std::string dir, const Options& options);
  static Waiter* ThisThreadWaiter();
  // Before a leader takes the queue as its group: waits, for a fraction of
  // the last group's time, for the writers of that group to queue again.
  void GatherWriters() REQUIRES(write_queue_mutex_);
  // A writer of the last group queued again.
  void NoteReturningWriter() REQUIRES(write_queue_mutex_);
  // Writes the queue as groups, `own` (the caller's slot at the front, or
  // null) in the first, at most `max_groups` of them, then hands the lead
  // to the new front. Returns own's status. Releases the queue lock while
  // each group is written, and holds it again on return.
  Status LeadGroups(WriterSlot* own, int max_groups) REQUIRES(write_queue_mutex_);
  // Wakes the writer that should lead next: the front slot's thread, or the
  // commit thread for an asynchronous one.
  void WakeNextLeader() REQUIRES(write_queue_mutex_);
  // The commit thread: leads whenever an asynchronous write is at the front
  // of the queue and no leader runs.
  void CommitLoop() EXCLUDES(write_queue_mutex_);

  // Open's recovery: manifest, directory listing, orphan tables, live
  // tables, log replay, the fresh log and the manifest rewrite.
  Status Recover() REQUIRES(manifest_mutex_, db_mutex_);
  Status ReplayLogs(const std::vector<uint64_t>& log_numbers) REQUIRES(db_mutex_);

  // Write path: the leader logs, syncs and applies its whole group.
  Status WriteGroup(const std::vector<WriterSlot*>& group) EXCLUDES(db_mutex_, write_queue_mutex_);
  // Queues the active memtable for flush and starts a new memtable and log.
  // When the new log cannot be made, nothing is retired: the active
  // memtable and its log stay, and the next full group tries again.
  Status SwitchMemTable() REQUIRES(db_mutex_);
  // Creates log file number next_file_ and syncs the directory, so that
  // the log's name survives a crash before anything is written to it.
  Status CreateLog(std::unique_ptr<LogFile>* log) REQUIRES(db_mutex_);
  // Drops the current log after a failed append or sync: it is never
  // written again (a failed fdatasync may have lost its dirty pages, and a
  // failed append may have left a torn record that must stay its tail). A
  // log that holds no acknowledged record is deleted at once.
  void AbandonLog() REQUIRES(db_mutex_);

  // The memtables and tables a read consults, newest first. Never waits
  // for a write group's log write or sync.
  std::shared_ptr<const ReadView> CaptureReadView() EXCLUDES(view_mutex_);
  // Publishes mem_, imm_ and table_readers_ as the view of later reads.
  void PublishView() REQUIRES(db_mutex_) EXCLUDES(view_mutex_);

  // Background work. None of it holds db_mutex_ across a file-system
  // call: it takes db_mutex_ only for a moment, to reserve a file number,
  // to copy what a manifest must record and to install a result.
  enum class BackgroundStep { kStop, kFlush, kRewriteManifest, kDeleteReplaced, kCompact };
  void BackgroundLoop() EXCLUDES(manifest_mutex_, db_mutex_);
  // Waits until there is something to do (or stop_) and says what.
  BackgroundStep AwaitBackgroundStep() EXCLUDES(manifest_mutex_, db_mutex_);
  Status FlushOldestMemTable() EXCLUDES(manifest_mutex_, db_mutex_);
  Status CompactAllTables() EXCLUDES(manifest_mutex_, db_mutex_);
  // Ends a table file written to `path`: finishes and closes `builder` when
  // `s` is OK and opens the result for reading; on any failure the file is
  // deleted and the failure returned.
  Status FinishTable(Status s, std::unique_ptr<TableBuilder> builder, const std::string& path,
                     std::shared_ptr<SstReader>* reader);
  // Whether the table files are many enough to merge; never for fewer than
  // two, so that a limit of 0 cannot make the background thread spin.
  bool NeedsCompaction() const REQUIRES(db_mutex_);
  // next_file_ as a manifest about to be written records it. Files made
  // after this (a log of a switch meanwhile) may carry numbers at or past
  // it; open raises the number past every file it lists.
  uint64_t NextFileForManifest() EXCLUDES(db_mutex_);
  // Publishes a manifest naming `tables` and recording `next_file`.
  // *published tells whether it was put in place, even when the directory
  // sync after it failed.
  Status PublishManifest(uint64_t next_file, const std::vector<uint64_t>& tables, bool* published)
      REQUIRES(manifest_mutex_);
  // After a flush or compaction published its manifest: deletes the files
  // it replaced once that manifest is durable, or keeps them, with the
  // manifest marked for rewriting, until one is. Returns the first failure.
  Status RetireFiles(std::vector<std::string> replaced, const Status& manifest_sync) REQUIRES(manifest_mutex_);
  // Deletes obsolete_files_ in order, stopping at the first that cannot be
  // deleted (it and the rest wait for the next try).
  Status DeleteObsoleteFiles() REQUIRES(manifest_mutex_);
  // Rewrites the manifest whose directory sync failed, and then deletes
  // the files that waited for it.
  Status RewriteManifest() REQUIRES(manifest_mutex_) EXCLUDES(db_mutex_);

  // Statistics (db_stats.cc). The log sync of a write group, timed.
  Status SyncLog() REQUIRES(db_mutex_);
  // A group of `batches` whose log append wrote `logged` bytes.
  void NoteWriteGroup(size_t batches, size_t logged) REQUIRES(db_mutex_);
  // Reports a fault on standard error (see fault_log.h) and counts it.
  // The background thread's: db_mutex_ is taken only to count, since
  // standard error may block.
  void ReportStorageFault(const std::string& text) EXCLUDES(db_mutex_);
  // The write leader's, under the db_mutex_ that it holds across its own
  // log write and sync anyway.
  void ReportWriteFault(const std::string& text) REQUIRES(db_mutex_);

  const std::string dir_;
  const Options options_;
  FileIo* const io_;

  // Guards the state that the manifest and the deletion of replaced files
  // are made from, and is held across that file-system work: the writing,
  // syncing and renaming of a manifest, and the unlinks after it. Only the
  // background work (and Open) takes it; a write leader never does, so no
  // thread that writes (an event loop among them) waits for that I/O.
  // From copying what a manifest records to installing what it named, one
  // hold: the tables it names cannot change in between. Taken before
  // db_mutex_, which is held inside it only for a moment.
  Mutex manifest_mutex_ ACQUIRED_BEFORE(db_mutex_);
  // The numbers of the live table files, newest first, in the order of
  // table_readers_: what the manifest records.
  std::vector<uint64_t> live_tables_ GUARDED_BY(manifest_mutex_);
  // A manifest was put in place but the directory sync after it failed:
  // the background thread rewrites it. Until then the files it replaced
  // wait in obsolete_files_, since a crash could bring back the manifest
  // before it, which still names them.
  bool manifest_unsynced_ GUARDED_BY(manifest_mutex_) = false;
  // Files replaced by a flush or compaction and not yet deleted, logs in
  // ascending number. Logs are deleted strictly in that order, so the logs
  // left on disk are always the newest ones: a flushed log that outlived a
  // newer one would be replayed at open over the newer data in the tables.
  std::vector<std::string> obsolete_files_ GUARDED_BY(manifest_mutex_);

  // Guards every engine member below except the writer queue and the
  // published view. Held by the write leader across its log writes and
  // sync (and a switch's log creation); never held by anyone else across a
  // file-system call, never taken by reads. Taken after write_queue_mutex_
  // has been released and after manifest_mutex_, and before view_mutex_.
  Mutex db_mutex_;
  // Wakes the background thread: a memtable was switched, or stop_ was set.
  CondVar background_cv_{&db_mutex_};
  // The active memtable: every write group is applied to it. Replaced (and
  // queued on imm_) by SwitchMemTable.
  std::shared_ptr<MemTable> mem_ GUARDED_BY(db_mutex_);
  // Full memtables waiting for flush, oldest at the front.
  std::deque<std::shared_ptr<MemTable>> imm_ GUARDED_BY(db_mutex_);
  // Every live table file, newest first, as live_tables_ numbers them.
  // Changed only by an install, which holds manifest_mutex_ as well.
  std::vector<std::shared_ptr<SstReader>> table_readers_ GUARDED_BY(db_mutex_);
  // Next number for a log or table file; the two kinds share it.
  uint64_t next_file_ GUARDED_BY(db_mutex_) = 1;
  // The log that write groups append to; closed when replaced or with the
  // engine. Null after a failed append or sync: the next group starts a
  // fresh log before it writes.
  std::unique_ptr<LogFile> wal_ GUARDED_BY(db_mutex_);
  // Whether wal_ holds a record that was acknowledged to its writers.
  bool wal_acknowledged_ GUARDED_BY(db_mutex_) = false;
  // The leader's buffer of its group's framed records, reused across groups.
  std::string record_ GUARDED_BY(db_mutex_);
  // Set by the destructor; the background thread ends when it sees it.
  bool stop_ GUARDED_BY(db_mutex_) = false;
  // The counters of GetStats. They live under the lock that the write
  // leader holds anyway when it counts; the background thread takes it
  // for a moment to count.
  EngineStats stats_ GUARDED_BY(db_mutex_);

  // Guards view_ alone, and is held only to copy or replace the pointer:
  // a read never waits for a write group's sync, only for the moment in
  // which a switch or an installed table changes what reads see.
  Mutex view_mutex_;
  // mem_, imm_ (newest first) and table_readers_ as of the last change.
  std::shared_ptr<const ReadView> view_ GUARDED_BY(view_mutex_);

  // Guards the writer queue and the slots' result fields. Never held while
  // db_mutex_ is taken.
  Mutex write_queue_mutex_;
  // Slots in arrival order; the front one leads. A group leaves the queue
  // only when it is done, so the next leader starts after the previous one.
  std::deque<WriterSlot*> writers_ GUARDED_BY(write_queue_mutex_);
  // A leader is writing groups; the slot at the front, woken for any
  // reason, does not lead while it is set.
  bool leading_ GUARDED_BY(write_queue_mutex_) = false;
  // The writers of the last group, other than the leader that wrote it, as
  // its tag (see Waiter) and their number; how many of them have queued
  // again since; how long that group took to log and sync. A leader about
  // to take the queue waits a little for the rest of them (GatherWriters).
  uint64_t last_group_tag_ GUARDED_BY(write_queue_mutex_) = 0;
  size_t last_group_writers_ GUARDED_BY(write_queue_mutex_) = 0;
  size_t returned_writers_ GUARDED_BY(write_queue_mutex_) = 0;
  // Whether the last group held asynchronous writes (which carry no tag).
  bool last_group_async_ GUARDED_BY(write_queue_mutex_) = false;
  std::chrono::steady_clock::duration last_group_time_ GUARDED_BY(write_queue_mutex_){};
  // False after a wait in which none of them came back: the next group
  // does not wait.
  bool gather_ GUARDED_BY(write_queue_mutex_) = true;
  // Set while a leader waits for returning writers; signalled by the
  // arrival that completes them.
  bool gathering_ GUARDED_BY(write_queue_mutex_) = false;
  CondVar gathered_{&write_queue_mutex_};
  // The most writers for which a leader waits at all: 8 per processor.
  const size_t gather_limit_;
  // Wakes the commit thread: an asynchronous write reached the front of the
  // queue with no leader running, or commit_stop_ was set.
  CondVar commit_cv_{&write_queue_mutex_};
  // Set by the destructor: the commit thread ends once no asynchronous
  // write is queued.
  bool commit_stop_ GUARDED_BY(write_queue_mutex_) = false;
  // After a group of a few asynchronous writers (at most gather_limit_):
  // until when they are expected back. Until then the commit thread waits
  // for them (in a timed wait) rather than leading part of them, and an
  // event loop that queued some does not wake it; zero when none are due.
  std::chrono::steady_clock::time_point returns_due_ GUARDED_BY(write_queue_mutex_);
  // The commit thread sleeps without a deadline: a new returns_due_ must
  // wake it.
  bool commit_idle_untimed_ GUARDED_BY(write_queue_mutex_) = false;
  // Started at the end of Open, joined first by the destructor.
  std::thread commit_thread_;

  // Set while the background thread runs a step (a flush, a merge, a
  // manifest rewrite, deletions): LeadDeferred leaves groups to the commit
  // thread meanwhile, since their syncs then wait for the disk's other
  // work. Written by the background thread alone; read without a lock.
  std::atomic<bool> background_writing_{false};
  // Started at the end of Open, joined by the destructor.
  std::thread background_thread_;
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_DB_H_
