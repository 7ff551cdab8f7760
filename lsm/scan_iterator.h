#ifndef KANDB_LSM_SCAN_ITERATOR_H_
#define KANDB_LSM_SCAN_ITERATOR_H_

// The read view of a Get or Scan, and the iterator that merges a view's
// memtables and table files into the live entries of a key range.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"
#include "lsm/entry.h"
#include "lsm/memtable.h"
#include "lsm/table.h"

namespace kandb::lsm {

// What one read consults. The engine publishes a new view whenever a
// memtable is switched or a table file installed, and a read takes the one
// in force; shared references keep every memtable and table file alive, so
// a flush or compaction that replaces the engine's lists (or unlinks a
// file) never disturbs the read.
struct ReadView {
  // The active memtable, then the immutable ones from newest to oldest.
  std::vector<std::shared_ptr<MemTable>> memtables;
  // The table readers, newest first.
  std::vector<std::shared_ptr<SstReader>> tables;
};

// Merges the sources of a view over [start, end) (an empty end has no upper
// bound) and yields the newest version of each key, skipping deletion
// markers. Memtables are walked in place: nothing is copied and no lock is
// taken. Used by one thread.
class ScanIterator {
 public:
  ScanIterator(std::shared_ptr<const ReadView> view, std::string start, std::string end);
  ScanIterator(const ScanIterator&) = delete;
  ScanIterator& operator=(const ScanIterator&) = delete;

  // Positions every source at `start` and moves to the first live entry.
  Status Init();
  // Moves to the next live entry; an error of a table file ends the scan.
  Status Next();

  bool Valid() const { return valid_; }
  // Valid until the next call of Next.
  std::string_view key() const { return key_; }
  std::string_view value() const { return value_; }

 private:
  // A source's current key, or false when it has none left in the range.
  bool Current(size_t source, std::string_view* key) const;
  // Moves every source that holds the current key past it.
  Status Skip();
  // Finds the next live entry, first skipping the current key if asked.
  Status Advance(bool skip_current);
  // Picks the smallest current key (the earliest source on a tie: it holds
  // the newest version) and makes it current; false when none is left.
  bool Pick(uint8_t* op);

  const std::shared_ptr<const ReadView> view_;
  const std::string start_;
  const std::string end_;
  // Precedence order, as in the view: memtables, then tables.
  std::vector<MemTable::Iterator> mems_;
  std::vector<std::unique_ptr<SstIterator>> tables_;

  bool valid_ = false;
  size_t winner_ = 0;  // the source of the current entry
  std::string_view key_;
  std::string_view value_;
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_SCAN_ITERATOR_H_
