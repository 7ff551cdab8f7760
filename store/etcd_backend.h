#ifndef KANDB_STORE_ETCD_BACKEND_H_
#define KANDB_STORE_ETCD_BACKEND_H_

// EtcdBackend: the metadata store's records in an etcd cluster, under a
// per-cluster key prefix ("kandb/" + cluster name + "/"), so that several
// placement servers share them and any of them can take over.
//
// Every write batch is one etcd transaction, so it stays atomic. A batch
// that etcd refuses as too large (too many operations, too many bytes)
// fails with etcd's own reason and is not split. A fenced backend adds to
// each transaction the condition that the leader key still has the
// creation revision that this server's leadership created: once another
// server has taken over, a late write of the old leader changes nothing
// and fails with code 4 "not leader; leadership lost". A write that got no
// answer fails with the client's "etcd unreachable" and may still have
// been applied: the observer hears of it, so that whatever trusts the
// writes' results can look again.
//
// Concurrent writes are grouped: the first writer in line sends its batch
// and those queued behind it as one transaction (each batch stays atomic,
// and they apply in queue order), so that etcd sees one request where it
// would see many. A group that etcd refuses as too large is sent again one
// batch at a time, so that each batch gets its own answer. A group whose
// answer never came is one unknown outcome for all of its batches: each
// gets the same failure, and the observer hears of it once.
//
// Asynchronous writes (WriteAsync) join the same queue and return at once;
// a sender thread of the backend's own, started with the first of them,
// leads every group whose first batch is asynchronous, exactly as a
// waiting writer leads its own, and hands each batch's result to its
// callback. Callbacks run in queue order, on the thread that led the
// group, without the backend's locks, after the apply hook saw the group
// and before the next group is sent; a callback must not write to this
// backend. Should the sender fail to start, the write is answered at once,
// on the caller's thread ("etcd: cannot start the sender thread: ...",
// Unavailable), and the next one tries again. Destroying the backend
// waits for the group in flight and answers every batch still queued
// (unsent: "not written; the store closed"), so no callback is lost.

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "store/etcd_client.h"
#include "store/meta_backend.h"
#include "store/meta_store.h"

namespace kandb::store {

// Writes are allowed only while `key` exists with this creation revision.
// A fenced transaction without puts of its own also puts `value` under
// `lease` to `key` again, so that every fenced write leaves an event in
// the cluster's prefix at its revision (see meta/region_mirror.h).
struct EtcdFence {
  std::string key;
  int64_t create_revision = 0;
  std::string value;
  int64_t lease = 0;
};

// Learns how each fenced transaction of a backend ended. Called on the
// writing thread, without the backend's locks; any member may be empty.
struct EtcdWriteObserver {
  // etcd applied it at `revision`; it was sent at `sent_ns` (steady clock).
  std::function<void(int64_t revision, int64_t sent_ns)> committed;
  // No answer came: it may have been applied, now or later.
  std::function<void()> unknown;
  // Its fence failed: the key is gone or another server holds it.
  std::function<void()> fenced_out;
};

class EtcdBackend final : public MetaBackend {
 public:
  // Scans read in pages of this many records, all at the revision of the
  // first page, so a long scan is still one moment's view.
  static constexpr int64_t kScanPage = 10000;
  // A group takes no more batches once it holds this many operations or
  // bytes, inside etcd's default limits (128 operations, one of which the
  // fence may take; 1.5 MiB), so that grouping alone never makes a
  // transaction too large.
  static constexpr size_t kGroupMaxOps = 127;
  static constexpr size_t kGroupMaxBytes = 1 << 20;

  // `client` is not owned and must outlive the backend. A `fence` with
  // create_revision 0 writes unfenced (tools and tests). `observer` learns
  // how every transaction ended.
  EtcdBackend(EtcdClient* client, std::string prefix, EtcdFence fence, EtcdWriteObserver observer = {});
  // Waits for the group in flight and answers what is still queued (see
  // above); no write may be started meanwhile.
  ~EtcdBackend() override EXCLUDES(queue_mu_);
  EtcdBackend(const EtcdBackend&) = delete;
  EtcdBackend& operator=(const EtcdBackend&) = delete;

  Status Get(const std::string& key, std::string* value, bool* found) override;
  Status Write(const lsm::WriteBatch& batch) override EXCLUDES(queue_mu_);
  // Queues `batch` and returns; `done` gets its result on the thread that
  // led its group (see above). `defer_lead` changes nothing here: the
  // sender thread leads.
  void WriteAsync(lsm::WriteBatch batch, std::function<void(const Status&)> done,
                  bool defer_lead = false) override EXCLUDES(queue_mu_);
  Status ForEach(const std::string& start, const std::string& end, uint32_t limit,
                 const RangeVisitor& visit) override;
  void SetApplyHook(ApplyHook hook) override EXCLUDES(queue_mu_);

  // A point read that also gives the key's mod revision (0 when absent).
  Status GetWithRevision(const std::string& key, std::string* value, bool* found, int64_t* mod_revision);
  // Puts `key` (fenced, outside the write queue) only while its mod
  // revision is still `expected` (0: the key is absent). *written tells
  // whether it did, and *revision is then the write's. A key moved by
  // anyone else, or by a late copy of an earlier write of this server
  // (etcd's client sends a write again to the next member when the first
  // gave no answer, and the first may still land), makes it write nothing,
  // so a value that must never go down cannot be set back by such a copy.
  // Fails, as Write does, when the fence fails or no answer came.
  Status PutIfUnchanged(const std::string& key, const std::string& value, int64_t expected, bool* written,
                        int64_t* revision);

  // For tests that fill the queue behind a transaction in flight: `hook`
  // runs on each group's leader, with the number of batches in the group,
  // before the group is sent (without the queue's lock). Set while no
  // write runs.
  void SetGroupHookForTesting(std::function<void(size_t batches)> hook) { group_hook_ = std::move(hook); }
  // The writers in line, the one leading included.
  size_t QueuedForTesting() EXCLUDES(queue_mu_) {
    MutexLock lock(&queue_mu_);
    return queue_.size();
  }

 private:
  // One write waiting in, or leading, the queue: a Write call's, on the
  // caller's stack, or a WriteAsync call's, on the heap and owned by the
  // queue until its callback has run.
  struct Writer {
    explicit Writer(const lsm::WriteBatch* b) : batch(b) {}
    Writer(lsm::WriteBatch b, std::function<void(const Status&)> cb)
        : owned(std::move(b)), batch(&owned), callback(std::move(cb)) {}
    lsm::WriteBatch owned;  // an asynchronous write's batch
    const lsm::WriteBatch* const batch;
    // Set for an asynchronous write: the sender thread leads a group it
    // heads, and the group's leader calls it.
    const std::function<void(const Status&)> callback;
    Status result;      // set by the group's leader, under queue_mu_
    bool done = false;  // under queue_mu_
    bool async() const { return callback != nullptr; }
  };

  // Sends the group headed by the queue's front writer (the caller leads
  // it), answers its asynchronous writes (without the lock, the group
  // still in line), then removes the group from the queue, hands each
  // Write call its result and wakes who waits.
  void LeadGroup() REQUIRES(queue_mu_);
  // The sender thread: leads each group an asynchronous write heads.
  void SendLoop() EXCLUDES(queue_mu_);
  // One fenced transaction of the given batches, applied in order.
  Status Apply(const std::vector<const lsm::WriteBatch*>& batches);
  // Runs one transaction and tells the observer how it ended (committed,
  // or unknown); a failed compare is left to the caller.
  Status Run(const std::vector<EtcdCompare>& compares, const std::vector<EtcdOp>& ops,
             const std::vector<EtcdOp>& otherwise, EtcdTxnResult* result);

  EtcdClient* const client_;
  const std::string prefix_;
  const EtcdFence fence_;
  const EtcdWriteObserver observer_;

  // The writers in line; the front one leads the next group (the sender
  // thread when it is asynchronous). A group stays in line until it was
  // answered, so one group is in flight at a time.
  Mutex queue_mu_;
  CondVar queue_cv_{&queue_mu_};      // a Write caller's turn or answer
  CondVar sender_cv_{&queue_mu_};     // an asynchronous write at the front, or closing_
  std::deque<Writer*> queue_ GUARDED_BY(queue_mu_);
  bool closing_ GUARDED_BY(queue_mu_) = false;
  bool sender_waiting_ GUARDED_BY(queue_mu_) = false;
  // Started by the first WriteAsync, joined by the destructor.
  std::thread sender_ GUARDED_BY(queue_mu_);
  // Called by a group's leader, for each batch etcd committed, in order;
  // one group commits at a time, so the hook sees the commit order.
  ApplyHook hook_ GUARDED_BY(queue_mu_);
  std::function<void(size_t)> group_hook_;  // tests only; set while no write runs
};

// The etcd key prefix of a cluster's records.
std::string EtcdClusterPrefix(const std::string& cluster);

// A MetaStore over etcd: the second factory beside MetaStore::Open. On
// success replaces *out.
Status OpenEtcdMetaStore(EtcdClient* client, const std::string& prefix, EtcdFence fence,
                         const std::string& passphrase, EtcdWriteObserver observer,
                         std::unique_ptr<MetaStore>* out);

}  // namespace kandb::store

#endif  // KANDB_STORE_ETCD_BACKEND_H_
