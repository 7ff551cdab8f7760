#ifndef KANDB_LSM_MEMTABLE_H_
#define KANDB_LSM_MEMTABLE_H_

// MemTable: the in-memory sorted table that receives every write. It keeps
// the newest operation per key (deletion markers included) and is always
// held through std::shared_ptr, so that the engine, the background flush and
// any number of read views can hold it at once.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "lsm/entry.h"

namespace kandb::lsm {

class MemTable {
 public:
  MemTable() = default;
  MemTable(const MemTable&) = delete;
  MemTable& operator=(const MemTable&) = delete;

  // Stores every entry of `batch` in order (a later entry for the same key
  // wins) and grows the size estimate by 32 + key + value bytes per entry.
  // Takes the lock exclusively; only the write leader (and Open) call it.
  void Apply(const WriteBatch& batch) EXCLUDES(mu_);

  // The stored operation for `key`: returns false when the key is absent,
  // otherwise true with *op and *value filled (a deletion marker too).
  bool Lookup(const std::string& key, uint8_t* op, std::string* value) const EXCLUDES(mu_);

  // Copies the entries of [start, end) in key order, deletion markers
  // included. An empty `start` begins at the smallest key, an empty `end`
  // has no upper bound, and a `limit` of 0 means no limit.
  std::vector<Entry> Dump(const std::string& start, const std::string& end, size_t limit) const
      EXCLUDES(mu_);

  // Calls fn(op, key, value) for every entry in key order, deletion
  // markers included, under the shared lock; stops at the first failure
  // and returns it. Copies nothing: the flush streams an immutable memtable
  // to its table file this way. fn must not call back into this memtable.
  Status ForEach(const std::function<Status(uint8_t op, std::string_view key, std::string_view value)>& fn) const
      EXCLUDES(mu_);
  size_t EntryCount() const EXCLUDES(mu_);

  // Grow-only size estimate compared with the write buffer size.
  uint64_t ApproximateBytes() const EXCLUDES(mu_);

  // Records a write-ahead log whose records went into this memtable; the
  // file is deleted once the memtable has been flushed to a table file.
  void AddWalFile(std::string path) EXCLUDES(mu_);
  std::vector<std::string> WalFiles() const EXCLUDES(mu_);

 private:
  // Innermost lock of the engine: taken with the engine's db mutex held
  // (write leader) or with no engine lock at all (readers, the flush).
  mutable SharedMutex mu_;
  // Paths of the logs to delete after the flush. Only the holder of the
  // engine's db mutex appends; the lock makes the later read by the
  // background thread safe without reasoning about that hand-over.
  std::vector<std::string> wal_files_ GUARDED_BY(mu_);
  // Everything a memtable holds (records and the set's nodes) is carved
  // from blocks mapped for it alone and unmapped with it: a full memtable
  // costs little more than its size estimate, with no per-allocation
  // overhead, and its memory goes back to the system when it is dropped
  // after its flush instead of staying with the allocator. Never frees
  // anything before it is destroyed.
  class Arena {
   public:
    Arena() = default;
    Arena(const Arena&) = delete;
    Arena& operator=(const Arena&) = delete;
    ~Arena();
    // Throws std::bad_alloc when the system has no memory to map.
    char* Allocate(size_t n, size_t align);

   private:
    std::vector<std::pair<char*, size_t>> blocks_;
    char* next_ = nullptr;
    size_t left_ = 0;
  };
  template <typename T>
  struct ArenaAllocator {
    using value_type = T;
    explicit ArenaAllocator(Arena* a) : arena(a) {}
    template <typename U>
    ArenaAllocator(const ArenaAllocator<U>& other) : arena(other.arena) {}  // NOLINT: rebinding
    T* allocate(size_t n) { return reinterpret_cast<T*>(arena->Allocate(n * sizeof(T), alignof(T))); }
    void deallocate(T*, size_t) {}
    template <typename U>
    bool operator==(const ArenaAllocator<U>& other) const { return arena == other.arena; }
    Arena* arena;
  };

  // An entry is one record in the arena, laid out as in a table file: op
  // (u8), key_length (u32), key, value_length (u32), value.
  struct Slot {
    // Replaced in place by a newer version of the same key, which leaves
    // the set's order as it is.
    mutable const char* record;
  };
  // Orders slots by key, bytewise (std::string_view compares as unsigned
  // chars, as the engine requires); lookups go by key without a copy.
  struct SlotLess {
    using is_transparent = void;
    bool operator()(Slot a, Slot b) const { return KeyOf(a.record) < KeyOf(b.record); }
    bool operator()(Slot a, std::string_view b) const { return KeyOf(a.record) < b; }
    bool operator()(std::string_view a, Slot b) const { return a < KeyOf(b.record); }
  };
  static std::string_view KeyOf(const char* record);
  static std::string_view ValueOf(const char* record);
  // Copies `e` into the arena as a record.
  const char* Store(const Entry& e) REQUIRES(mu_);

  // Declared before the set, so that it outlives the set's nodes. An
  // overwritten version stays in it, as its size stays in the estimate.
  Arena arena_ GUARDED_BY(mu_);
  std::set<Slot, SlotLess, ArenaAllocator<Slot>> table_ GUARDED_BY(mu_){ArenaAllocator<Slot>(&arena_)};
  // Never decreases: overwrites and deletions add their size too, so a
  // memtable that keeps rewriting one key still fills up and is switched.
  uint64_t approximate_bytes_ GUARDED_BY(mu_) = 0;
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_MEMTABLE_H_
