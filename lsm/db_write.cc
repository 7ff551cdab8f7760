// The write path: group commit, the log append and sync, the memtable
// apply, and the switch to a new memtable and log.

#include <utility>
#include <vector>

#include "lsm/db.h"
#include "lsm/file_io.h"
#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/memtable.h"

namespace kandb::lsm {

Status LsmDb::Write(const WriteBatch& batch) {
  WriterSlot slot(&batch, &write_queue_mutex_);
  std::vector<WriterSlot*> group;
  {
    MutexLock lock(&write_queue_mutex_);
    slot.mu->AssertHeld();
    writers_.push_back(&slot);
    // A follower never runs a step itself: it sleeps until the leader of its
    // group has finished it, or until it is woken as the new head.
    for (;;) {
      if (slot.done) return slot.result;
      if (writers_.front() == &slot) break;
      slot.cv.Wait();
    }
    // The group is the whole queue as it stands, with no size limit.
    group.assign(writers_.begin(), writers_.end());
  }

  // The queue lock is released before db_mutex_ is taken: writers keep
  // queueing behind this group while it is logged and synced.
  const Status status = WriteGroup(group);

  MutexLock lock(&write_queue_mutex_);
  for (WriterSlot* member : group) {
    writers_.pop_front();
    if (member == &slot) continue;
    member->mu->AssertHeld();
    member->result = status;
    member->done = true;
    // Signalled with the lock held: once it is released the follower may
    // return and its slot, this condition variable included, is gone.
    member->cv.Signal();
  }
  // The next leader is woken only now that this group has left the queue,
  // so two leaders never run at once.
  if (!writers_.empty()) writers_.front()->cv.Signal();
  return status;
}

Status LsmDb::WriteGroup(const std::vector<WriterSlot*>& group) {
  MutexLock lock(&db_mutex_);
  // A group never writes to a log that failed before: it starts a fresh
  // one, and fails (writing nothing) while none can be made.
  if (wal_ == nullptr) {
    Status s = CreateLog(&wal_);
    if (!s.ok()) {
      ReportStorageFault("write failed: " + s.ToString());
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
    ReportStorageFault("write failed: " + status.ToString());
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
    if (!status.ok()) ReportStorageFault("memtable switch failed: " + status.ToString());
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
