#include "lsm/memtable.h"

namespace kandb::lsm {

namespace {

// Fixed per-entry overhead counted by the size estimate.
constexpr uint64_t kEntryOverhead = 32;

}  // namespace

void MemTable::Apply(const WriteBatch& batch) {
  WriterLock lock(&mu_);
  for (const Entry& e : batch) {
    approximate_bytes_ += kEntryOverhead + e.key.size() + e.value.size();
    auto it = table_.lower_bound(e.key);
    if (it != table_.end() && it->first == e.key) {
      it->second.first = e.op;
      it->second.second = e.value;
    } else {
      table_.emplace_hint(it, e.key, std::make_pair(e.op, e.value));
    }
  }
}

bool MemTable::Lookup(const std::string& key, uint8_t* op, std::string* value) const {
  ReaderLock lock(&mu_);
  auto it = table_.find(key);
  if (it == table_.end()) return false;
  *op = it->second.first;
  *value = it->second.second;
  return true;
}

std::vector<Entry> MemTable::Dump(const std::string& start, const std::string& end, size_t limit) const {
  std::vector<Entry> out;
  ReaderLock lock(&mu_);
  auto it = start.empty() ? table_.begin() : table_.lower_bound(start);
  for (; it != table_.end(); ++it) {
    if (!end.empty() && it->first >= end) break;
    if (limit != 0 && out.size() >= limit) break;
    out.push_back(Entry{it->second.first, it->first, it->second.second});
  }
  return out;
}

Status MemTable::ForEach(
    const std::function<Status(uint8_t op, const std::string& key, const std::string& value)>& fn) const {
  ReaderLock lock(&mu_);
  for (const auto& [key, stored] : table_) {
    Status s = fn(stored.first, key, stored.second);
    if (!s.ok()) return s;
  }
  return Status::OK();
}

size_t MemTable::EntryCount() const {
  ReaderLock lock(&mu_);
  return table_.size();
}

uint64_t MemTable::ApproximateBytes() const {
  ReaderLock lock(&mu_);
  return approximate_bytes_;
}

void MemTable::AddWalFile(std::string path) {
  WriterLock lock(&mu_);
  wal_files_.push_back(std::move(path));
}

std::vector<std::string> MemTable::WalFiles() const {
  ReaderLock lock(&mu_);
  return wal_files_;
}

}  // namespace kandb::lsm
