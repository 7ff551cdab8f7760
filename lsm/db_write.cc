// The write path: group commit, the log append and sync, the memtable
// apply, and the switch to a new memtable and log.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <limits>
#include <utility>
#include <vector>

#include "lsm/db.h"
#include "lsm/file_io.h"
#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/memtable.h"

namespace kandb::lsm {

// A counting semaphore on a plain mutex and condition variable: a waiter
// sleeps in the kernel at once instead of spinning first, which on a few
// processors shared by many writer threads costs the leader its time.
class LsmDb::Waiter {
 public:
  void Wait() {
    MutexLock lock(&mu_);
    while (posts_ == 0) cv_.Wait();
    posts_--;
  }
  void Post() {
    {
      MutexLock lock(&mu_);
      posts_++;
    }
    cv_.Signal();
  }

  // The tag of the last group this thread's write was in (when it was not
  // that group's leader); tags are unique across engines. Atomic because a
  // thread may write to several engines, each under its own queue lock.
  std::atomic<uint64_t> group_tag{0};

 private:
  Mutex mu_;
  CondVar cv_{&mu_};
  uint64_t posts_ GUARDED_BY(mu_) = 0;
};

namespace {

// How many groups one leader writes in a row before it hands the lead on
// and returns to its own caller.
constexpr int kMaxGroupsPerLeader = 8;

// The longest a leader waits for the writers of the last group to queue
// again, whatever that group took.
constexpr auto kMaxGather = std::chrono::microseconds(500);
// The longest asynchronous writers of the last group are waited for.
constexpr auto kMaxReturnWait = std::chrono::milliseconds(1);

std::atomic<uint64_t> next_group_tag{1};

}  // namespace

LsmDb::Waiter* LsmDb::ThisThreadWaiter() {
  // Waiters go back to the pool when their thread ends and are never
  // freed: a leader may still post to one after its writer has returned.
  struct Pool {
    Mutex mu;
    std::vector<Waiter*> free GUARDED_BY(mu);
  };
  static Pool* const pool = new Pool;
  struct Lease {
    Lease() {
      MutexLock lock(&pool->mu);
      if (pool->free.empty()) {
        waiter = new Waiter;
      } else {
        waiter = pool->free.back();
        pool->free.pop_back();
      }
    }
    ~Lease() {
      MutexLock lock(&pool->mu);
      pool->free.push_back(waiter);
    }
    Waiter* waiter;
  };
  thread_local Lease lease;
  return lease.waiter;
}

Status LsmDb::Write(const WriteBatch& batch) {
  WriterSlot slot(&batch, &write_queue_mutex_, ThisThreadWaiter());
  write_queue_mutex_.Lock();
  writers_.push_back(&slot);
  if (slot.waiter->group_tag.load(std::memory_order_relaxed) == last_group_tag_) NoteReturningWriter();
  // A follower never runs a step itself: it sleeps until a leader has
  // written its group, or until it is woken as the new head while no
  // leader runs. It sleeps without the queue lock and, once done, returns
  // without taking it again.
  for (;;) {
    if (writers_.front() == &slot && !leading_) break;
    write_queue_mutex_.Unlock();
    slot.waiter->Wait();
    if (slot.done.load(std::memory_order_acquire)) return slot.result;
    write_queue_mutex_.Lock();
  }
  const Status own = LeadGroups(&slot, kMaxGroupsPerLeader);
  write_queue_mutex_.Unlock();
  return own;
}

void LsmDb::WriteAsync(WriteBatch batch, std::function<void(const Status&)> done, bool defer_lead) {
  auto* slot = new WriterSlot(std::move(batch), &write_queue_mutex_, std::move(done));
  MutexLock lock(&write_queue_mutex_);
  writers_.push_back(slot);
  // Asynchronous writers carry no tag: any of them counts as one of the
  // last group's coming back, which is what a client waiting for its
  // answer before it writes again does.
  if (last_group_async_) NoteReturningWriter();
  if (writers_.front() == slot && !leading_ && !defer_lead) commit_cv_.Signal();
}

void LsmDb::LeadDeferred() {
  MutexLock lock(&write_queue_mutex_);
  if (leading_ || writers_.empty()) return;
  if (writers_.front()->waiter != nullptr) {
    // A writer leading for itself is at the front; it is awake or woken.
    return;
  }
  // Every writer of the last group is back (a lone client always is): the
  // group is complete, nothing of this loop's waits to be read, and leading
  // it here saves waking the commit thread and, for this loop's writers,
  // being woken by it. Not on a slow disk: the loop serves other calls.
  // Nor while the background thread writes: a table streaming tens of MiB,
  // its syncs and the unlinks after it make a log's fdatasync take ten
  // times as long, whatever the last group took. Read without a lock, and
  // so a hint: a step that starts just after it can still slow the one
  // group led here; the groups after it go to the commit thread.
  const bool complete = returned_writers_ >= last_group_writers_;
  if (complete && last_group_time_ <= kCallerLeadLimit && !background_writing_.load(std::memory_order_relaxed)) {
    // No slot of its own: every result went to its writer or callback.
    (void)LeadGroups(nullptr, 1);
    return;
  }
  // The rest of them are due: the commit thread waits for them until then,
  // and leads what has queued at the latest when the time is up. A
  // complete group is the commit thread's at once.
  if (!complete && std::chrono::steady_clock::now() < returns_due_) return;
  commit_cv_.Signal();
}

void LsmDb::NoteReturningWriter() {
  if (++returned_writers_ == last_group_writers_ && gathering_) gathered_.Signal();
}

void LsmDb::CommitLoop() {
  MutexLock lock(&write_queue_mutex_);
  for (;;) {
    const auto now = std::chrono::steady_clock::now();
    const bool ours = !leading_ && !writers_.empty() && writers_.front()->waiter == nullptr;
    const bool awaiting = !commit_stop_ && now < returns_due_ && returned_writers_ < last_group_writers_;
    if (ours && !awaiting) {
      // No slot of its own: every result went to its writer or callback.
      (void)LeadGroups(nullptr, std::numeric_limits<int>::max());
      continue;
    }
    if (commit_stop_ && !ours) return;
    if (now < returns_due_) {
      commit_cv_.WaitUntil(returns_due_);
    } else {
      commit_idle_untimed_ = true;
      commit_cv_.Wait();
      commit_idle_untimed_ = false;
    }
  }
}

void LsmDb::WakeNextLeader() {
  if (writers_.empty()) return;
  WriterSlot* next = writers_.front();
  if (next->waiter != nullptr) {
    next->waiter->Post();
  } else {
    commit_cv_.Signal();
  }
}

Status LsmDb::LeadGroups(WriterSlot* own, int max_groups) {
  leading_ = true;
  // Each group is the whole queue as it stands, with no size limit. The
  // leader goes on with the group that queued behind its own while it ran:
  // handing the lead to a sleeping thread would leave the disk idle until
  // that thread got a processor, which at many connections takes longer
  // than a sync. A writer leading for itself hands on after a few groups,
  // so that its own caller is not kept waiting long.
  std::vector<WriterSlot*> group;
  std::vector<Waiter*> to_wake;
  std::vector<WriterSlot*> to_call;
  Status own_status;
  for (int led = 0; led < max_groups && !writers_.empty(); ++led) {
    GatherWriters();
    group.assign(writers_.begin(), writers_.end());
    const uint64_t tag = next_group_tag.fetch_add(1, std::memory_order_relaxed);
    last_group_tag_ = tag;
    last_group_writers_ = 0;
    last_group_async_ = false;
    returned_writers_ = 0;
    for (WriterSlot* member : group) {
      if (member == own) continue;
      if (member->waiter != nullptr) {
        member->waiter->group_tag.store(tag, std::memory_order_relaxed);
      } else {
        last_group_async_ = true;
      }
      ++last_group_writers_;
    }
    // The queue lock is released before db_mutex_ is taken: writers keep
    // queueing behind this group while it is logged and synced.
    write_queue_mutex_.Unlock();
    const auto began = std::chrono::steady_clock::now();
    const Status status = WriteGroup(group);
    const auto took = std::chrono::steady_clock::now() - began;
    write_queue_mutex_.Lock();
    last_group_time_ = took;
    // Asynchronous writers that were just answered (clients with one
    // request at a time) are expected back within about a group's time.
    const bool expect_returns = options_.sync && last_group_async_ && last_group_writers_ > 1 &&
                                last_group_writers_ <= gather_limit_;
    returns_due_ = expect_returns ? std::chrono::steady_clock::now() +
                                        std::min<std::chrono::steady_clock::duration>(took, kMaxReturnWait)
                                  : std::chrono::steady_clock::time_point();
    to_wake.clear();
    to_call.clear();
    for (WriterSlot* member : group) {
      writers_.pop_front();
      if (member == own) {
        own_status = status;
      } else if (member->waiter == nullptr) {
        to_call.push_back(member);
      } else {
        // The result first, then done, which publishes it; after that the
        // slot may be gone, so its waiter was read before.
        to_wake.push_back(member->waiter);
        member->result = status;
        member->done.store(true, std::memory_order_release);
      }
    }
    // Woken and answered outside the queue lock, so that they need not wait
    // for it and may queue again at once.
    write_queue_mutex_.Unlock();
    for (Waiter* waiter : to_wake) waiter->Post();
    for (WriterSlot* member : to_call) {
      member->callback(status);
      delete member;
    }
    write_queue_mutex_.Lock();
  }
  leading_ = false;
  // The next leader is woken only now that every group led here has left
  // the queue, so two leaders never run at once.
  WakeNextLeader();
  // A commit thread asleep without a deadline must learn the new one.
  if (returns_due_ != std::chrono::steady_clock::time_point() && commit_idle_untimed_) commit_cv_.Signal();
  return own_status;
}

void LsmDb::GatherWriters() {
  // Writers that were just answered tend to write again at once (a client
  // with one request at a time). Without this wait, those that queued
  // during the last sync form the next group alone, the answered ones the
  // group after it, and every writer waits for two syncs. A lone writer,
  // or a group that came back whole, does not wait; nor does the group
  // after a wait in which none came back. Threads that write for
  // themselves are waited for at most a quarter of the last group's time;
  // asynchronous writers until they are due (returns_due_), at most a
  // group's time after it ended.
  if (!options_.sync || last_group_writers_ == 0 || returned_writers_ >= last_group_writers_) return;
  // Many more writers than processors: their turnaround is bound by the
  // processors, and syncing what has queued while they run beats waiting.
  if (writers_.size() + (last_group_writers_ - returned_writers_) > gather_limit_) return;
  if (!gather_) {
    gather_ = true;
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  const auto deadline =
      last_group_async_ ? returns_due_
                        : now + std::min<std::chrono::steady_clock::duration>(last_group_time_ / 4, kMaxGather);
  if (deadline <= now) return;
  gathering_ = true;
  while (returned_writers_ < last_group_writers_ && std::chrono::steady_clock::now() < deadline) {
    gathered_.WaitUntil(deadline);
  }
  gathering_ = false;
  gather_ = returned_writers_ > 0;
}

Status LsmDb::WriteGroup(const std::vector<WriterSlot*>& group) {
  MutexLock lock(&db_mutex_);
  // A group never writes to a log that failed before: it starts a fresh
  // one, and fails (writing nothing) while none can be made.
  if (wal_ == nullptr) {
    Status s = CreateLog(&wal_);
    if (!s.ok()) {
      ReportWriteFault("write failed: " + s.ToString());
      return s;
    }
    wal_acknowledged_ = false;
    mem_->AddWalFile(wal_->path());
  }
  // One record per batch, so that replay applies each batch whole or not at
  // all, and the whole group's records in one write: a failed write fails
  // the group, and the memtable is not touched.
  record_.clear();
  for (WriterSlot* member : group) AppendRecord(*member->batch, &record_);
  Status status = wal_->AppendFramed(record_.data(), record_.size());
  NoteWriteGroup(group.size(), status.ok() ? record_.size() : 0);
  // A large group must not pin its size in memory until the next one.
  if (record_.capacity() > (4u << 20)) std::string().swap(record_);
  if (status.ok() && options_.sync) status = SyncLog();
  if (!status.ok()) {
    ReportWriteFault("write failed: " + status.ToString());
    AbandonLog();
    return status;
  }
  wal_acknowledged_ = true;

  // Logged (and synced) before visible: the memtable's application order is
  // the log's record order, because only the leader does either. Whoever
  // watches the applied batches sees them in that same order.
  for (WriterSlot* member : group) {
    mem_->Apply(*member->batch);
    if (options_.on_apply) options_.on_apply(*member->batch);
  }
  if (mem_->ApproximateBytes() >= options_.write_buffer_size) {
    // The group's data is already logged and applied; a failed switch is
    // still reported to all its writers.
    status = SwitchMemTable();
    if (!status.ok()) ReportWriteFault("memtable switch failed: " + status.ToString());
  }
  return status;
}

Status LsmDb::CreateLog(std::unique_ptr<LogFile>* log) {
  const std::string path = LogFileName(dir_, next_file_++);
  std::unique_ptr<LogFile> created;
  Status s = OpenLogForAppend(io_, path, &created);
  if (!s.ok()) return s;
  s = SyncDirectory(io_, dir_);
  if (!s.ok()) {
    created.reset();
    io_->Unlink(path.c_str());
    return s;
  }
  *log = std::move(created);
  return Status::OK();
}

void LsmDb::AbandonLog() {
  // A log without an acknowledged record holds nothing anyone was promised,
  // so it need not wait for a flush; it still names the active memtable,
  // whose flush then finds it gone. Should the unlink fail, the log waits
  // for that flush and is deleted in order with the others.
  if (!wal_acknowledged_) io_->Unlink(wal_->path().c_str());
  wal_.reset();
  wal_acknowledged_ = false;
}

Status LsmDb::SwitchMemTable() {
  // The new log is made first: a switch that cannot make it retires
  // nothing, so no acknowledged group is ever left in a memtable whose log
  // is gone.
  std::unique_ptr<LogFile> log;
  Status s = CreateLog(&log);
  if (!s.ok()) return s;
  imm_.push_back(mem_);
  mem_ = std::make_shared<MemTable>();
  // Replacing the writer closes the old descriptor without a sync: the old
  // file holds only what earlier groups wrote and, under sync, synced.
  wal_ = std::move(log);
  wal_acknowledged_ = false;
  mem_->AddWalFile(wal_->path());
  PublishView();
  background_cv_.Signal();
  return Status::OK();
}

}  // namespace kandb::lsm
