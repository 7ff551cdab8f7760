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
  std::unique_ptr<MetaStore> store(new MetaStore());
  store->crypto_ = StoreCryptoFromPassphrase(passphrase);
  lsm::LsmDb::Options options;
  options.write_buffer_size = kWriteBufferSize;
  options.max_table_files = kMaxTableFiles;
  options.sync = sync != 0;
  options.io = io;
  // The engine outlives nothing of the store: it is its first member to go.
  options.on_apply = [raw = store.get()](const lsm::WriteBatch& batch) { raw->OnApply(batch); };
  Status s = lsm::LsmDb::Open(dir, options, &store->db_);
  if (!s.ok()) return s;
  *out = std::move(store);
  return Status::OK();
}

void MetaStore::SetApplyObserver(std::function<void(const lsm::WriteBatch&)> observer) {
  MutexLock lock(&observer_mu_);
  observer_ = std::move(observer);
}

void MetaStore::OnApply(const lsm::WriteBatch& stored) {
  MutexLock lock(&observer_mu_);
  if (!observer_) return;
  if (!crypto_.encrypted) {
    observer_(stored);
    return;
  }
  // Every value here was sealed by this store a moment ago, so it opens.
  lsm::WriteBatch opened = stored;
  for (lsm::Entry& e : opened) {
    if (e.op == lsm::kOpPut && !OpenValue(crypto_, e.value, &e.value).ok()) e.value.clear();
  }
  observer_(opened);
}

Status MetaStore::OpenStored(std::string_view stored, std::string* value) const {
  return OpenValue(crypto_, std::string(stored), value);
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

Status MetaStore::Put(const std::vector<KeyValue>& pairs) { return Write(pairs, {}); }

Status MetaStore::Delete(const std::vector<std::string>& keys) { return Write({}, keys); }

Status MetaStore::Write(const std::vector<KeyValue>& puts, const std::vector<std::string>& deletes) {
  lsm::WriteBatch batch;
  batch.reserve(puts.size() + deletes.size());
  for (const KeyValue& kv : puts) {
    batch.push_back(lsm::Entry{lsm::kOpPut, kv.first, SealValue(crypto_, kv.second)});
  }
  for (const std::string& key : deletes) {
    batch.push_back(lsm::Entry{lsm::kOpDelete, key, std::string()});
  }
  return db_->Write(batch);
}

Status MetaStore::Scan(const std::string& start, const std::string& end, uint32_t limit,
                       std::vector<KeyValue>* out) {
  std::vector<lsm::Entry> entries;
  Status s = db_->Scan(start, end, limit, &entries);
  if (!s.ok()) return s;
  out->clear();
  out->reserve(entries.size());
  for (lsm::Entry& e : entries) {
    std::string value;
    s = OpenValue(crypto_, std::move(e.value), &value);
    if (!s.ok()) return s;
    out->emplace_back(std::move(e.key), std::move(value));
  }
  return Status::OK();
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

}  // namespace kandb::store
