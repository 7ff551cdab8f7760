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
  std::unique_ptr<lsm::LsmDb> db;
  Status s = lsm::LsmDb::Open(dir, options, &db);
  if (!s.ok()) return s;
  out->reset(new MetaStore(std::move(db), StoreCryptoFromPassphrase(passphrase)));
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

Status MetaStore::ForEach(
    const std::string& start, const std::string& end, uint32_t limit,
    const std::function<bool(const std::string& key, const std::string& value)>& visit) {
  std::vector<lsm::Entry> entries;
  Status s = db_->Scan(start, end, limit, &entries);
  if (!s.ok()) return s;
  std::string value;
  for (lsm::Entry& e : entries) {
    s = OpenValue(crypto_, std::move(e.value), &value);
    if (!s.ok()) return s;
    if (!visit(e.key, value)) break;
  }
  return Status::OK();
}

}  // namespace kandb::store
