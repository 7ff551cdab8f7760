#ifndef KANDB_LSM_SCAN_ITERATOR_H_
#define KANDB_LSM_SCAN_ITERATOR_H_

// The read view of a Get or Scan, and the iterator that merges a view's
// memtables and table files into the live entries of a key range.

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "lsm/entry.h"
#include "lsm/memtable.h"
#include "lsm/table.h"

namespace kandb::lsm {

// What one read consults, captured under the engine's db mutex and used
// without it. Shared references keep every memtable and table file alive,
// so a flush or compaction that replaces the engine's lists (or unlinks a
// file) never disturbs the read.
struct ReadView {
  // The active memtable, then the immutable ones from newest to oldest.
  std::vector<std::shared_ptr<MemTable>> memtables;
  // The table readers, newest first.
  std::vector<std::shared_ptr<SstReader>> tables;
};

// Merges the sources of a view over [start, end) (an empty end has no upper
// bound) and yields the newest version of each key, skipping deletion
// markers. Used by one thread.
class ScanIterator {
 public:
  // Memtables are copied out in chunks of at most this many entries, so a
  // long scan never holds a memtable's lock for more than one chunk.
  static constexpr size_t kMemTableChunk = 4096;

  ScanIterator(ReadView view, std::string start, std::string end);
  ScanIterator(const ScanIterator&) = delete;
  ScanIterator& operator=(const ScanIterator&) = delete;

  // Positions every source at `start` and moves to the first live entry.
  Status Init();
  // Moves to the next live entry; an error of a table file ends the scan.
  Status Next();

  bool Valid() const { return valid_; }
  const std::string& key() const { return key_; }
  const std::string& value() const { return value_; }

 private:
  struct MemSource {
    std::shared_ptr<MemTable> mem;
    std::vector<Entry> chunk;
    size_t pos = 0;
    // The last dump returned fewer entries than a chunk: nothing follows.
    bool exhausted = false;
  };

  // The current entry of a memtable source, refilling its chunk from just
  // after the previous chunk's last key when it is used up; null when the
  // source has nothing left.
  const Entry* MemCurrent(MemSource* source);
  // The current key of a table source, or null when it is past the range.
  const std::string* TableCurrent(const SstIterator& it) const;
  void FillChunk(MemSource* source, const std::string& from);

  const ReadView view_;
  const std::string start_;
  const std::string end_;
  // Precedence order, as in the view: memtables, then tables.
  std::vector<MemSource> mems_;
  std::vector<std::unique_ptr<SstIterator>> tables_;

  bool valid_ = false;
  uint8_t op_ = 0;
  std::string key_;
  std::string value_;
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_SCAN_ITERATOR_H_
