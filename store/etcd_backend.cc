#include "store/etcd_backend.h"

#include <algorithm>
#include <map>
#include <utility>

namespace kandb::store {

EtcdBackend::EtcdBackend(EtcdClient* client, std::string prefix, EtcdFence fence,
                         std::function<void()> on_fenced_out)
    : client_(client),
      prefix_(std::move(prefix)),
      fence_(std::move(fence)),
      on_fenced_out_(std::move(on_fenced_out)) {}

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

Status EtcdBackend::Write(const lsm::WriteBatch& batch) {
  // etcd refuses a transaction that names one key twice; the engine applies
  // a batch in order, so only the last operation on each key counts.
  std::map<std::string, size_t> last;
  for (size_t i = 0; i < batch.size(); ++i) last[batch[i].key] = i;
  std::vector<EtcdOp> ops;
  ops.reserve(last.size());
  for (size_t i = 0; i < batch.size(); ++i) {
    const lsm::Entry& e = batch[i];
    if (last[e.key] != i) continue;
    EtcdOp op;
    op.kind = e.op == lsm::kOpPut ? EtcdOp::Kind::kPut : EtcdOp::Kind::kDelete;
    op.key = prefix_ + e.key;
    if (e.op == lsm::kOpPut) op.value = e.value;
    ops.push_back(std::move(op));
  }
  std::vector<EtcdCompare> compares;
  if (fence_.create_revision != 0) {
    compares.push_back(EtcdCompare{fence_.key, EtcdCompare::Target::kCreate, fence_.create_revision});
  }
  EtcdTxnResult result;
  Status s = client_->Txn(compares, ops, {}, &result);
  if (!s.ok()) return s;
  if (!result.succeeded) {
    if (on_fenced_out_) on_fenced_out_();
    return Status::Unavailable("not leader; leadership lost");
  }
  return Status::OK();
}

Status EtcdBackend::Scan(const std::string& start, const std::string& end, uint32_t limit,
                         std::vector<lsm::Entry>* out) {
  std::vector<lsm::Entry> entries;
  std::string from = prefix_ + start;
  const std::string to = end.empty() ? PrefixEnd(prefix_) : prefix_ + end;
  int64_t revision = 0;  // pinned by the first page
  while (entries.size() < limit && from < to) {
    const int64_t want = std::min<int64_t>(kScanPage, limit - entries.size());
    std::vector<EtcdKv> kvs;
    bool more = false;
    int64_t seen = 0;
    Status s = client_->Range(from, to, want, revision, &kvs, &more, &seen);
    if (!s.ok()) return s;
    if (revision == 0) revision = seen;
    for (EtcdKv& kv : kvs) {
      entries.push_back(lsm::Entry{lsm::kOpPut, kv.key.substr(prefix_.size()), std::move(kv.value)});
    }
    if (!more || kvs.empty()) break;
    // The next page starts just after the last key read.
    from = kvs.back().key + '\0';
  }
  *out = std::move(entries);
  return Status::OK();
}

std::unique_ptr<MetaStore> OpenEtcdMetaStore(EtcdClient* client, const std::string& prefix,
                                             EtcdFence fence, const std::string& passphrase,
                                             std::function<void()> on_fenced_out) {
  return MetaStore::OnBackend(
      std::make_unique<EtcdBackend>(client, prefix, std::move(fence), std::move(on_fenced_out)),
      passphrase);
}

}  // namespace kandb::store
