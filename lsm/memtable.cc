#include "lsm/memtable.h"

#include <cstring>
#include <new>

namespace kandb::lsm {

namespace {

// Fixed per-entry overhead counted by the size estimate.
constexpr uint64_t kEntryOverhead = 32;
constexpr size_t kBlockSize = 256 * 1024;
constexpr size_t kAlign = alignof(std::max_align_t) < 8 ? 8 : alignof(void*);

}  // namespace

struct MemTable::Value {
  uint8_t op;
  uint32_t size;
  char data[1];  // `size` bytes follow the header
};

struct MemTable::Node {
  const char* key;
  uint32_t key_size;
  std::atomic<const Value*> value;
  // next[0] is the list of every key; taller nodes link into the levels
  // above. Allocated with one slot per level of the node.
  std::atomic<Node*> next[1];

  std::string_view Key() const { return {key, key_size}; }
  Node* Next(int level) const { return next[level].load(std::memory_order_acquire); }
};

MemTable::MemTable() : head_(NewNode(std::string_view(), kMaxHeight)) {}

MemTable::~MemTable() = default;

char* MemTable::Allocate(size_t bytes) {
  bytes = (bytes + kAlign - 1) & ~(kAlign - 1);
  if (bytes > alloc_left_) {
    // A large request gets a block of its own, so the tail of the current
    // block is not wasted on it.
    if (bytes > kBlockSize / 4) {
      blocks_.emplace_back(new char[bytes]);
      return blocks_.back().get();
    }
    blocks_.emplace_back(new char[kBlockSize]);
    alloc_ptr_ = blocks_.back().get();
    alloc_left_ = kBlockSize;
  }
  char* result = alloc_ptr_;
  alloc_ptr_ += bytes;
  alloc_left_ -= bytes;
  return result;
}

MemTable::Node* MemTable::NewNode(std::string_view key, int height) {
  const size_t size = sizeof(Node) + sizeof(std::atomic<Node*>) * static_cast<size_t>(height - 1);
  char* memory = Allocate(size + key.size());
  Node* node = new (memory) Node;
  for (int i = 1; i < height; i++) new (&node->next[i]) std::atomic<Node*>(nullptr);
  node->next[0].store(nullptr, std::memory_order_relaxed);
  char* key_copy = memory + size;
  if (!key.empty()) std::memcpy(key_copy, key.data(), key.size());
  node->key = key_copy;
  node->key_size = static_cast<uint32_t>(key.size());
  node->value.store(nullptr, std::memory_order_relaxed);
  return node;
}

const MemTable::Value* MemTable::NewValue(uint8_t op, std::string_view value) {
  char* memory = Allocate(offsetof(Value, data) + value.size());
  Value* v = reinterpret_cast<Value*>(memory);
  v->op = op;
  v->size = static_cast<uint32_t>(value.size());
  if (!value.empty()) std::memcpy(v->data, value.data(), value.size());
  return v;
}

int MemTable::RandomHeight() {
  // Each level holds about a quarter of the nodes of the one below.
  int height = 1;
  while (height < kMaxHeight) {
    rng_state_ ^= rng_state_ << 13;
    rng_state_ ^= rng_state_ >> 17;
    rng_state_ ^= rng_state_ << 5;
    if ((rng_state_ & 3) != 0) break;
    height++;
  }
  return height;
}

MemTable::Node* MemTable::FindGreaterOrEqual(std::string_view key, Node** prev) const {
  Node* x = head_;
  int level = max_height_.load(std::memory_order_relaxed) - 1;
  for (;;) {
    Node* next = x->Next(level);
    if (next != nullptr && next->Key() < key) {
      x = next;
    } else {
      if (prev != nullptr) prev[level] = x;
      if (level == 0) return next;
      level--;
    }
  }
}

void MemTable::Apply(const WriteBatch& batch) {
  for (const Entry& e : batch) {
    approximate_bytes_.store(ApproximateBytes() + kEntryOverhead + e.key.size() + e.value.size(),
                             std::memory_order_relaxed);
    const Value* value = NewValue(e.op, e.value);
    Node* prev[kMaxHeight];
    Node* x = FindGreaterOrEqual(e.key, prev);
    if (x != nullptr && x->Key() == e.key) {
      // The old value stays in the arena for readers that still hold it.
      x->value.store(value, std::memory_order_release);
      continue;
    }
    const int height = RandomHeight();
    const int max_height = max_height_.load(std::memory_order_relaxed);
    if (height > max_height) {
      for (int i = max_height; i < height; i++) prev[i] = head_;
      // A reader that sees the new height before the links finds null at
      // the new levels of the head and simply steps down.
      max_height_.store(height, std::memory_order_relaxed);
    }
    x = NewNode(e.key, height);
    x->value.store(value, std::memory_order_relaxed);
    entry_count_.store(EntryCount() + 1, std::memory_order_relaxed);
    for (int i = 0; i < height; i++) {
      x->next[i].store(prev[i]->next[i].load(std::memory_order_relaxed), std::memory_order_relaxed);
      // Publishes the node, its key and value to readers of this link.
      prev[i]->next[i].store(x, std::memory_order_release);
    }
  }
}

bool MemTable::Lookup(std::string_view key, uint8_t* op, std::string* value) const {
  const Node* x = FindGreaterOrEqual(key, nullptr);
  if (x == nullptr || x->Key() != key) return false;
  const Value* v = x->value.load(std::memory_order_acquire);
  *op = v->op;
  value->assign(v->data, v->size);
  return true;
}

std::vector<Entry> MemTable::Dump(const std::string& start, const std::string& end, size_t limit) const {
  std::vector<Entry> out;
  Iterator it(this);
  it.Seek(start);
  for (; it.Valid(); it.Next()) {
    if (!end.empty() && it.key() >= end) break;
    if (limit != 0 && out.size() >= limit) break;
    out.push_back(Entry{it.op(), std::string(it.key()), std::string(it.value())});
  }
  return out;
}

void MemTable::AddWalFile(std::string path) {
  MutexLock lock(&wal_mu_);
  wal_files_.push_back(std::move(path));
}

std::vector<std::string> MemTable::WalFiles() const {
  MutexLock lock(&wal_mu_);
  return wal_files_;
}

void MemTable::Iterator::Load() {
  if (node_ == nullptr) return;
  const Value* v = node_->value.load(std::memory_order_acquire);
  value_op_ = v->op;
  value_ = std::string_view(v->data, v->size);
}

void MemTable::Iterator::Seek(std::string_view target) {
  node_ = table_->FindGreaterOrEqual(target, nullptr);
  Load();
}

void MemTable::Iterator::SeekToFirst() {
  node_ = table_->head_->Next(0);
  Load();
}

void MemTable::Iterator::Next() {
  node_ = node_->Next(0);
  Load();
}

std::string_view MemTable::Iterator::key() const { return node_->Key(); }

}  // namespace kandb::lsm
