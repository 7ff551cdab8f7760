#include "store/meta_store.h"

#include <utility>

namespace kandb::store {

Status MetaStore::Open(const std::string& dir, const std::string& passphrase, int sync,
                       std::unique_ptr<MetaStore>* out) {
  return Open(dir, passphrase, sync, lsm::DefaultFileIo(), out);
}

Status MetaStore::Open(const std::string& dir, const std::string& passphrase, int sync, lsm::FileIo* io,
                       std::unique_ptr<MetaStore>* out) {
  if (!passphrase.empty()) {
    Status s = PrepareSealing();
    if (!s.ok()) return s;
  }
  lsm::LsmDb::Options options;
  options.write_buffer_size = kWriteBufferSize;
  options.max_table_files = kMaxTableFiles;
  options.sync = sync != 0;
  options.io = io;
  std::unique_ptr<LsmBackend> backend;
  Status s = LsmBackend::Open(dir, options, &backend);
  if (!s.ok()) return s;
  out->reset(new MetaStore(std::move(backend), StoreCryptoFromPassphrase(passphrase)));
  return Status::OK();
}

Status LsmBackend::Open(const std::string& dir, lsm::LsmDb::Options options, std::unique_ptr<LsmBackend>* out) {
  std::unique_ptr<LsmBackend> backend(new LsmBackend());
  options.on_apply = [raw = backend.get()](const lsm::WriteBatch& batch) { raw->OnApply(batch); };
  Status s = lsm::LsmDb::Open(dir, options, &backend->db_);
  if (!s.ok()) return s;
  *out = std::move(backend);
  return Status::OK();
}

void LsmBackend::SetApplyHook(ApplyHook hook) {
  MutexLock lock(&hook_mu_);
  hook_ = std::move(hook);
}

void LsmBackend::OnApply(const lsm::WriteBatch& batch) {
  MutexLock lock(&hook_mu_);
  if (hook_) hook_(batch);
}

Status MetaStore::OnBackend(std::unique_ptr<MetaBackend> backend, const std::string& passphrase,
                            std::unique_ptr<MetaStore>* out) {
  if (!passphrase.empty()) {
    Status s = PrepareSealing();
    if (!s.ok()) return s;
  }
  out->reset(new MetaStore(std::move(backend), StoreCryptoFromPassphrase(passphrase)));
  return Status::OK();
}

Status MetaStore::Get(const std::string& key, std::string* value, bool* found) {
  std::string stored;
  bool present = false;
  Status s = db_->Get(key, &stored, &present);
  if (!s.ok()) return s;
  if (!present) {
    *found = false;
    return Status::OK();
  }
  s = OpenValue(crypto_, std::move(stored), value);
  if (!s.ok()) return s;
  *found = true;
  return Status::OK();
}

Status MetaStore::Put(std::vector<KeyValue> pairs) { return Write(std::move(pairs), {}); }

Status MetaStore::Delete(std::vector<std::string> keys) { return Write({}, std::move(keys)); }

Status MetaStore::Write(std::vector<KeyValue> puts, std::vector<std::string> deletes) {
  return db_->Write(MakeBatch(std::move(puts), std::move(deletes)));
}

void MetaStore::WriteAsync(std::vector<KeyValue> puts, std::vector<std::string> deletes,
                           std::function<void(const Status&)> done, bool defer_lead) {
  db_->WriteAsync(MakeBatch(std::move(puts), std::move(deletes)), std::move(done), defer_lead);
}

lsm::WriteBatch MetaStore::MakeBatch(std::vector<KeyValue> puts, std::vector<std::string> deletes) const {
  lsm::WriteBatch batch;
  batch.reserve(puts.size() + deletes.size());
  for (KeyValue& kv : puts) {
    batch.push_back(lsm::Entry{lsm::kOpPut, std::move(kv.first),
                               crypto_.encrypted ? SealValue(crypto_, kv.second) : std::move(kv.second)});
  }
  for (std::string& key : deletes) {
    batch.push_back(lsm::Entry{lsm::kOpDelete, std::move(key), std::string()});
  }
  return batch;
}

Status MetaStore::Scan(const std::string& start, const std::string& end, uint32_t limit,
                       std::vector<KeyValue>* out) {
  out->clear();
  return ForEach(start, end, limit, [out](std::string_view key, std::string_view value) {
    out->emplace_back(std::string(key), std::string(value));
    return true;
  });
}

Status MetaStore::ForEach(const std::string& start, const std::string& end, uint32_t limit,
                          const std::function<bool(std::string_view key, std::string_view value)>& visit) {
  if (!crypto_.encrypted) return db_->ForEach(start, end, limit, visit);
  Status failure;
  std::string value;
  Status s = db_->ForEach(start, end, limit, [&](std::string_view key, std::string_view stored) {
    failure = OpenValue(crypto_, std::string(stored), &value);
    return failure.ok() && visit(key, value);
  });
  return s.ok() ? failure : s;
}

Status MetaStore::ForEachStored(const std::string& start, const std::string& end, uint32_t limit,
                                const std::function<bool(std::string_view key, std::string_view stored)>& visit) {
  return db_->ForEach(start, end, limit, visit);
}

Status MetaStore::OpenStored(std::string_view stored, std::string* value) const {
  return OpenValue(crypto_, std::string(stored), value);
}

void MetaStore::SetApplyObserver(std::function<void(const lsm::WriteBatch&)> observer) {
  if (!observer || !crypto_.encrypted) {
    db_->SetApplyHook(std::move(observer));
    return;
  }
  db_->SetApplyHook([this, observer = std::move(observer)](const lsm::WriteBatch& stored) {
    // Every value here was sealed by this store a moment ago, so it opens.
    lsm::WriteBatch opened = stored;
    for (lsm::Entry& e : opened) {
      std::string value;
      if (e.op == lsm::kOpPut && OpenValue(crypto_, e.value, &value).ok()) e.value = std::move(value);
    }
    observer(opened);
  });
}

}  // namespace kandb::store
