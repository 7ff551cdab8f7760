#include "lsm/memtable.h"

#include <sys/mman.h>

#include <cstring>
#include <new>

#include "common/coding.h"

namespace kandb::lsm {

namespace {

// Fixed per-entry overhead counted by the size estimate.
constexpr uint64_t kEntryOverhead = 32;
// Arena blocks; anything over a quarter of this gets a block of its own,
// so that at most a quarter of a block is left unused when one fills.
constexpr size_t kArenaBlock = 1 << 20;

char* MapBlock(size_t size) {
  void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) throw std::bad_alloc();
  return static_cast<char*>(p);
}
constexpr size_t kRecordHeader = 9;  // op, key_length, value_length

}  // namespace

std::string_view MemTable::KeyOf(const char* record) {
  return std::string_view(record + 5, DecodeFixed32(record + 1));
}

std::string_view MemTable::ValueOf(const char* record) {
  const uint32_t key_length = DecodeFixed32(record + 1);
  return std::string_view(record + kRecordHeader + key_length, DecodeFixed32(record + 5 + key_length));
}

MemTable::Arena::~Arena() {
  for (const auto& [block, size] : blocks_) ::munmap(block, size);
}

char* MemTable::Arena::Allocate(size_t n, size_t align) {
  const size_t pad = (align - reinterpret_cast<uintptr_t>(next_) % align) % align;
  if (n + pad > left_) {
    if (n > kArenaBlock / 4) {
      blocks_.emplace_back(MapBlock(n), n);
      return blocks_.back().first;
    }
    blocks_.emplace_back(MapBlock(kArenaBlock), kArenaBlock);
    next_ = blocks_.back().first;
    left_ = kArenaBlock;
    return Allocate(n, align);
  }
  char* p = next_ + pad;
  next_ += pad + n;
  left_ -= pad + n;
  return p;
}

const char* MemTable::Store(const Entry& e) {
  char* record = arena_.Allocate(kRecordHeader + e.key.size() + e.value.size(), 1);
  record[0] = static_cast<char>(e.op);
  EncodeFixed32(record + 1, static_cast<uint32_t>(e.key.size()));
  std::memcpy(record + 5, e.key.data(), e.key.size());
  EncodeFixed32(record + 5 + e.key.size(), static_cast<uint32_t>(e.value.size()));
  std::memcpy(record + kRecordHeader + e.key.size(), e.value.data(), e.value.size());
  return record;
}

void MemTable::Apply(const WriteBatch& batch) {
  WriterLock lock(&mu_);
  for (const Entry& e : batch) {
    approximate_bytes_ += kEntryOverhead + e.key.size() + e.value.size();
    const char* record = Store(e);
    auto it = table_.lower_bound(std::string_view(e.key));
    if (it != table_.end() && KeyOf(it->record) == e.key) {
      it->record = record;
    } else {
      table_.insert(it, Slot{record});
    }
  }
}

bool MemTable::Lookup(const std::string& key, uint8_t* op, std::string* value) const {
  ReaderLock lock(&mu_);
  auto it = table_.find(std::string_view(key));
  if (it == table_.end()) return false;
  *op = static_cast<uint8_t>(it->record[0]);
  *value = ValueOf(it->record);
  return true;
}

std::vector<Entry> MemTable::Dump(const std::string& start, const std::string& end, size_t limit) const {
  std::vector<Entry> out;
  ReaderLock lock(&mu_);
  auto it = start.empty() ? table_.begin() : table_.lower_bound(std::string_view(start));
  for (; it != table_.end(); ++it) {
    const std::string_view key = KeyOf(it->record);
    if (!end.empty() && key >= end) break;
    if (limit != 0 && out.size() >= limit) break;
    out.push_back(Entry{static_cast<uint8_t>(it->record[0]), std::string(key), std::string(ValueOf(it->record))});
  }
  return out;
}

Status MemTable::ForEach(const std::function<Status(uint8_t op, std::string_view key, std::string_view value)>& fn) const {
  ReaderLock lock(&mu_);
  for (const Slot& slot : table_) {
    Status s = fn(static_cast<uint8_t>(slot.record[0]), KeyOf(slot.record), ValueOf(slot.record));
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
