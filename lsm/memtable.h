#ifndef KANDB_LSM_MEMTABLE_H_
#define KANDB_LSM_MEMTABLE_H_

// MemTable: the in-memory sorted table that receives every write. It keeps
// the newest operation per key (deletion markers included) and is always
// held through std::shared_ptr, so that the engine, the background flush and
// any number of read views can hold it at once.
//
// One writer at a time (the engine's write leader, or recovery) changes it;
// any number of readers read it at the same moment without taking a lock
// or writing anything shared. It is a skip list whose nodes, keys and
// values live in an arena that is freed only with the memtable: a node is
// linked in, and a key's value replaced, with one release store each, so a
// reader sees either the old or the new state of every key, and the bytes
// it was handed stay valid for as long as it holds the memtable. A batch
// becomes visible key by key, in batch order.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "lsm/entry.h"

namespace kandb::lsm {

class MemTable {
 public:
  MemTable();
  ~MemTable();
  MemTable(const MemTable&) = delete;
  MemTable& operator=(const MemTable&) = delete;

  // Stores every entry of `batch` in order (a later entry for the same key
  // wins) and grows the size estimate by 32 + key + value bytes per entry.
  // Only one thread may apply at a time; readers may run meanwhile.
  void Apply(const WriteBatch& batch);

  // The stored operation for `key`: returns false when the key is absent,
  // otherwise true with *op and *value filled (a deletion marker too).
  bool Lookup(std::string_view key, uint8_t* op, std::string* value) const;

  // Copies the entries of [start, end) in key order, deletion markers
  // included. An empty `start` begins at the smallest key, an empty `end`
  // has no upper bound, and a `limit` of 0 means no limit.
  std::vector<Entry> Dump(const std::string& start, const std::string& end, size_t limit) const;

  // Grow-only size estimate compared with the write buffer size.
  uint64_t ApproximateBytes() const { return approximate_bytes_.load(std::memory_order_relaxed); }
  // Distinct keys stored (deletion markers included). Exact once the
  // memtable is immutable: the flush sizes its table's filter with it.
  uint64_t EntryCount() const { return entry_count_.load(std::memory_order_relaxed); }

  // Records a write-ahead log whose records went into this memtable; the
  // file is deleted once the memtable has been flushed to a table file.
  void AddWalFile(std::string path) EXCLUDES(wal_mu_);
  std::vector<std::string> WalFiles() const EXCLUDES(wal_mu_);

 private:
  struct Node;
  struct Value;

 public:
  // Walks the memtable in key order without copying: key() and value()
  // point into the memtable and stay valid while the memtable lives. Keys
  // inserted behind the position may or may not be seen. Used by one thread.
  class Iterator {
   public:
    explicit Iterator(const MemTable* table) : table_(table) {}
    // Positions at the first key not less than `target`.
    void Seek(std::string_view target);
    void SeekToFirst();
    void Next();
    bool Valid() const { return node_ != nullptr; }
    std::string_view key() const;
    uint8_t op() const { return value_op_; }
    std::string_view value() const { return value_; }

   private:
    void Load();
    const MemTable* table_;
    const Node* node_ = nullptr;
    uint8_t value_op_ = 0;
    std::string_view value_;
  };

 private:
  static constexpr int kMaxHeight = 12;

  // Bump allocation in blocks; only the writer allocates.
  char* Allocate(size_t bytes);
  Node* NewNode(std::string_view key, int height);
  const Value* NewValue(uint8_t op, std::string_view value);
  int RandomHeight();
  // The first node whose key is not less than `key`; with `prev`, also the
  // last node before it on every level.
  Node* FindGreaterOrEqual(std::string_view key, Node** prev) const;

  // Arena blocks; the writer appends, nothing is freed before the destructor.
  std::vector<std::unique_ptr<char[]>> blocks_;
  char* alloc_ptr_ = nullptr;
  size_t alloc_left_ = 0;
  Node* const head_;
  // Height of the tallest node; read by readers without a lock.
  std::atomic<int> max_height_{1};
  uint32_t rng_state_ = 0xdeadbeef;  // the writer's
  // Never decreases: overwrites and deletions add their size too, so a
  // memtable that keeps rewriting one key still fills up and is switched.
  std::atomic<uint64_t> approximate_bytes_{0};
  // Written by the one writer only.
  std::atomic<uint64_t> entry_count_{0};

  // Guards wal_files_ only. Only the holder of the engine's db mutex
  // appends; the background flush reads it after the memtable was retired.
  mutable Mutex wal_mu_;
  std::vector<std::string> wal_files_ GUARDED_BY(wal_mu_);
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_MEMTABLE_H_
