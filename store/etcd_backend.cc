#include "store/etcd_backend.h"

#include <algorithm>
#include <map>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "common/clock.h"
#include "common/fault_log.h"

namespace kandb::store {

EtcdBackend::EtcdBackend(EtcdClient* client, std::string prefix, EtcdFence fence, EtcdWriteObserver observer)
    : client_(client), prefix_(std::move(prefix)), fence_(std::move(fence)), observer_(std::move(observer)) {}

std::string EtcdClusterPrefix(const std::string& cluster) { return "kandb/" + cluster + "/"; }

Status EtcdBackend::Get(const std::string& key, std::string* value, bool* found) {
  std::vector<EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  Status s = client_->Range(prefix_ + key, "", 0, 0, &kvs, &more, &revision);
  if (!s.ok()) return s;
  if (kvs.empty()) {
    *found = false;
    return Status::OK();
  }
  *value = std::move(kvs.front().value);
  *found = true;
  return Status::OK();
}

EtcdBackend::~EtcdBackend() {
  std::thread sender;
  {
    MutexLock lock(&queue_mu_);
    closing_ = true;
    sender = std::move(sender_);
    sender_cv_.Signal();
  }
  if (sender.joinable()) sender.join();
}

Status EtcdBackend::Write(const lsm::WriteBatch& batch) {
  Writer self(&batch);
  MutexLock lock(&queue_mu_);
  queue_.push_back(&self);
  while (!self.done && queue_.front() != &self) queue_cv_.Wait();
  if (!self.done) LeadGroup();
  return self.result;
}

void EtcdBackend::WriteAsync(lsm::WriteBatch batch, std::function<void(const Status&)> done, bool /*defer_lead*/) {
  if (!done) done = [](const Status&) {};
  auto writer = std::make_unique<Writer>(std::move(batch), std::move(done));
  Status refused;
  {
    MutexLock lock(&queue_mu_);
    if (!sender_.joinable()) {
      // Thread creation reports its failure by exception: the write is
      // refused for want of resources, answered outside the lock as the
      // sender answers.
      try {
        sender_ = std::thread([this] { SendLoop(); });
      } catch (const std::system_error& e) {
        refused = Status::Unavailable(std::string("etcd: cannot start the sender thread: ") + e.what());
        ReportFault("etcd", refused.message());
      }
    }
    if (refused.ok()) {
      queue_.push_back(writer.release());
      // A write that finds the line empty is at the front with no one
      // leading; otherwise whoever leads the group before it wakes the
      // sender.
      if (queue_.size() == 1 && sender_waiting_) sender_cv_.Signal();
      return;
    }
  }
  writer->callback(refused);
}

void EtcdBackend::SendLoop() {
  MutexLock lock(&queue_mu_);
  for (;;) {
    if (closing_) break;
    if (!queue_.empty() && queue_.front()->async()) {
      LeadGroup();
      continue;
    }
    sender_waiting_ = true;
    sender_cv_.Wait();
    sender_waiting_ = false;
  }
  // Closing: no Write call runs any more, so what is left is asynchronous
  // and was never sent; each is answered, so that its caller learns.
  std::vector<std::unique_ptr<Writer>> unsent;
  while (!queue_.empty()) {
    unsent.emplace_back(queue_.front());
    queue_.pop_front();
  }
  queue_mu_.Unlock();
  for (const std::unique_ptr<Writer>& w : unsent) w->callback(Status::Unavailable("not written; the store closed"));
  queue_mu_.Lock();
}

void EtcdBackend::LeadGroup() {
  // The front writer leads: it takes the batches queued behind it, up to
  // the group limits (its own batch always goes, whatever its size).
  std::vector<Writer*> group;
  size_t ops = 0, bytes = 0;
  for (Writer* w : queue_) {
    size_t batch_bytes = 0;
    for (const lsm::Entry& e : *w->batch) batch_bytes += prefix_.size() + e.key.size() + e.value.size();
    if (!group.empty() &&
        (ops + w->batch->size() > kGroupMaxOps || bytes + batch_bytes > kGroupMaxBytes)) {
      break;
    }
    group.push_back(w);
    ops += w->batch->size();
    bytes += batch_bytes;
  }
  std::vector<Status> results(group.size());
  queue_mu_.Unlock();
  std::vector<const lsm::WriteBatch*> batches;
  batches.reserve(group.size());
  for (Writer* w : group) batches.push_back(w->batch);
  if (group_hook_) group_hook_(group.size());
  Status s = Apply(batches);
  if (s.IsInvalidArgument() && group.size() > 1) {
    // Refused as a whole: each batch alone gets its own answer.
    for (size_t i = 0; i < group.size(); ++i) results[i] = Apply({group[i]->batch});
  } else {
    for (Status& r : results) r = s;
  }
  queue_mu_.Lock();
  // Still the only leader: the next group waits for this one to leave the
  // queue, so batches reach the hook in the order etcd committed them.
  for (size_t i = 0; i < group.size(); ++i) {
    if (hook_ && results[i].ok()) hook_(*group[i]->batch);
  }
  // The asynchronous writes are answered while the group still holds the
  // line, so that answers follow the queue's order whoever leads.
  const bool any_async = std::any_of(group.begin(), group.end(), [](const Writer* w) { return w->async(); });
  if (any_async) {
    queue_mu_.Unlock();
    for (size_t i = 0; i < group.size(); ++i) {
      if (group[i]->async()) group[i]->callback(results[i]);
    }
    queue_mu_.Lock();
  }
  for (size_t i = 0; i < group.size(); ++i) {
    queue_.pop_front();
    if (group[i]->async()) {
      delete group[i];
    } else {
      group[i]->result = results[i];
      group[i]->done = true;
    }
  }
  queue_cv_.SignalAll();
  if (!queue_.empty() && queue_.front()->async() && sender_waiting_) sender_cv_.Signal();
}

void EtcdBackend::SetApplyHook(ApplyHook hook) {
  MutexLock lock(&queue_mu_);
  hook_ = std::move(hook);
}

Status EtcdBackend::Apply(const std::vector<const lsm::WriteBatch*>& batches) {
  // etcd refuses a transaction that names one key twice; batches apply in
  // order, so only the last operation on each key counts.
  std::map<std::string, std::pair<size_t, size_t>> last;
  for (size_t b = 0; b < batches.size(); ++b) {
    for (size_t i = 0; i < batches[b]->size(); ++i) last[(*batches[b])[i].key] = {b, i};
  }
  std::vector<EtcdOp> ops;
  ops.reserve(last.size());
  for (size_t b = 0; b < batches.size(); ++b) {
    for (size_t i = 0; i < batches[b]->size(); ++i) {
      const lsm::Entry& e = (*batches[b])[i];
      if (last[e.key] != std::make_pair(b, i)) continue;
      EtcdOp op;
      op.kind = e.op == lsm::kOpPut ? EtcdOp::Kind::kPut : EtcdOp::Kind::kDelete;
      op.key = prefix_ + e.key;
      if (e.op == lsm::kOpPut) op.value = e.value;
      ops.push_back(std::move(op));
    }
  }
  std::vector<EtcdCompare> compares;
  if (fence_.create_revision != 0) {
    compares.push_back(EtcdCompare{fence_.key, EtcdCompare::Target::kCreate, fence_.create_revision});
    // A write must leave an event in the cluster's prefix at its revision,
    // for those who wait for the watch to reach it. Puts always do; a
    // deletion of an absent key does not, so a write without puts (an
    // empty one included: a leader's proof of its term) puts the fence
    // key again, as it stands.
    const bool puts = std::any_of(ops.begin(), ops.end(), [](const EtcdOp& op) { return op.kind == EtcdOp::Kind::kPut; });
    if (!puts) ops.push_back(EtcdOp{EtcdOp::Kind::kPut, fence_.key, fence_.value, fence_.lease});
  }
  EtcdTxnResult result;
  Status s = Run(compares, ops, {}, &result);
  if (!s.ok()) return s;
  if (!result.succeeded) {
    if (observer_.fenced_out) observer_.fenced_out();
    return Status::Unavailable("not leader; leadership lost");
  }
  return Status::OK();
}

Status EtcdBackend::Run(const std::vector<EtcdCompare>& compares, const std::vector<EtcdOp>& ops,
                        const std::vector<EtcdOp>& otherwise, EtcdTxnResult* result) {
  const int64_t sent = SteadyNs();
  Status s = client_->Txn(compares, ops, otherwise, result);
  if (!s.ok()) {
    // Refusals (over etcd's limits, an unknown lease) applied nothing; no
    // answer, or one that does not parse, leaves the outcome open.
    if ((s.IsUnavailable() || s.IsCorruption()) && observer_.unknown) observer_.unknown();
    return s;
  }
  if (result->succeeded && observer_.committed) observer_.committed(result->revision, sent);
  return Status::OK();
}

Status EtcdBackend::GetWithRevision(const std::string& key, std::string* value, bool* found,
                                    int64_t* mod_revision) {
  std::vector<EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  Status s = client_->Range(prefix_ + key, "", 0, 0, &kvs, &more, &revision);
  if (!s.ok()) return s;
  *found = !kvs.empty();
  *mod_revision = kvs.empty() ? 0 : kvs.front().mod_revision;
  if (*found) *value = std::move(kvs.front().value);
  return Status::OK();
}

Status EtcdBackend::PutIfUnchanged(const std::string& key, const std::string& value, int64_t expected,
                                   bool* written, int64_t* revision) {
  std::vector<EtcdCompare> compares;
  std::vector<EtcdOp> otherwise;
  if (fence_.create_revision != 0) {
    compares.push_back(EtcdCompare{fence_.key, EtcdCompare::Target::kCreate, fence_.create_revision});
    otherwise.push_back(EtcdOp{EtcdOp::Kind::kGet, fence_.key, "", 0});
  }
  compares.push_back(EtcdCompare{prefix_ + key, EtcdCompare::Target::kMod, expected});
  EtcdTxnResult result;
  Status s = Run(compares, {EtcdOp{EtcdOp::Kind::kPut, prefix_ + key, value, 0}}, otherwise, &result);
  if (!s.ok()) return s;
  *written = result.succeeded;
  if (result.succeeded) {
    *revision = result.revision;
    return Status::OK();
  }
  // Which compare failed: the fence, or the key itself.
  if (fence_.create_revision != 0 &&
      (result.gets.empty() || result.gets[0].empty() || result.gets[0][0].create_revision != fence_.create_revision)) {
    if (observer_.fenced_out) observer_.fenced_out();
    return Status::Unavailable("not leader; leadership lost");
  }
  return Status::OK();
}

Status EtcdBackend::ForEach(const std::string& start, const std::string& end, uint32_t limit,
                            const RangeVisitor& visit) {
  std::string from = prefix_ + start;
  const std::string to = end.empty() ? PrefixEnd(prefix_) : prefix_ + end;
  int64_t revision = 0;  // pinned by the first page
  uint32_t visited = 0;
  while (visited < limit && from < to) {
    const int64_t want = std::min<int64_t>(kScanPage, limit - visited);
    std::vector<EtcdKv> kvs;
    bool more = false;
    int64_t seen = 0;
    Status s = client_->Range(from, to, want, revision, &kvs, &more, &seen);
    if (!s.ok()) return s;
    if (revision == 0) revision = seen;
    for (const EtcdKv& kv : kvs) {
      ++visited;
      if (!visit(std::string_view(kv.key).substr(prefix_.size()), kv.value)) return Status::OK();
    }
    if (!more || kvs.empty()) break;
    // The next page starts just after the last key read.
    from = kvs.back().key + '\0';
  }
  return Status::OK();
}

Status OpenEtcdMetaStore(EtcdClient* client, const std::string& prefix, EtcdFence fence,
                         const std::string& passphrase, EtcdWriteObserver observer,
                         std::unique_ptr<MetaStore>* out) {
  return MetaStore::OnBackend(
      std::make_unique<EtcdBackend>(client, prefix, std::move(fence), std::move(observer)), passphrase, out);
}

}  // namespace kandb::store
