#ifndef KANDB_META_SORTED_BLOCKS_H_
#define KANDB_META_SORTED_BLOCKS_H_

// SortedBlocks: an ordered set of small values kept in sorted blocks of at
// most a few hundred, with the first value of every block in one more
// array. A search is a binary search over that array and then over one
// block, both contiguous in memory: a handful of cache misses at a million
// values, where a tree node per value costs one for every level. An insert
// or erase moves the tail of one block.

#include <algorithm>
#include <cstddef>
#include <optional>
#include <vector>

namespace kandb::meta {

template <typename T, typename Less>
class SortedBlocks {
 public:
  // The values beside a place in the order, when there are any.
  struct Neighbours {
    std::optional<T> prev;
    std::optional<T> next;
  };

  // Inserts `value`, which must not be present; returns its neighbours.
  Neighbours Insert(const T& value) {
    if (blocks_.empty()) {
      blocks_.emplace_back(1, value);
      firsts_.push_back(value);
      return {};
    }
    const size_t b = BlockFor(value);
    std::vector<T>& block = blocks_[b];
    const size_t pos = static_cast<size_t>(std::upper_bound(block.begin(), block.end(), value, less_) - block.begin());
    block.insert(block.begin() + static_cast<ptrdiff_t>(pos), value);
    if (pos == 0) firsts_[b] = value;
    Neighbours around = Around(b, pos);
    if (block.size() > kMaxBlock) {
      // The upper half becomes a block of its own.
      const auto half = block.begin() + static_cast<ptrdiff_t>(block.size() / 2);
      std::vector<T> upper(half, block.end());
      block.erase(half, block.end());
      firsts_.insert(firsts_.begin() + static_cast<ptrdiff_t>(b + 1), upper.front());
      blocks_.insert(blocks_.begin() + static_cast<ptrdiff_t>(b + 1), std::move(upper));
    }
    return around;
  }

  // Erases `value`, which must be present; returns the neighbours it had.
  Neighbours Erase(const T& value) {
    const size_t b = BlockFor(value);
    std::vector<T>& block = blocks_[b];
    const size_t pos = static_cast<size_t>(std::lower_bound(block.begin(), block.end(), value, less_) - block.begin());
    Neighbours around = Around(b, pos);
    block.erase(block.begin() + static_cast<ptrdiff_t>(pos));
    if (block.empty()) {
      blocks_.erase(blocks_.begin() + static_cast<ptrdiff_t>(b));
      firsts_.erase(firsts_.begin() + static_cast<ptrdiff_t>(b));
    } else if (pos == 0) {
      firsts_[b] = block.front();
    }
    return around;
  }

  // The last value not above `probe`, or null. Valid until the next change.
  const T* Floor(const T& probe) const {
    if (blocks_.empty()) return nullptr;
    const std::vector<T>& block = blocks_[BlockFor(probe)];
    auto it = std::upper_bound(block.begin(), block.end(), probe, less_);
    return it == block.begin() ? nullptr : &*(it - 1);
  }

  // Calls `visit` on the values in order, from the last one not above
  // `probe` (from the first when none is), for as long as it returns true.
  // No change may come during the walk.
  template <typename Visit>
  void VisitFrom(const T& probe, Visit visit) const {
    if (blocks_.empty()) return;
    size_t b = BlockFor(probe);
    const std::vector<T>& first = blocks_[b];
    // Only block 0 can lack a value not above the probe; it then starts
    // the walk from its first value.
    size_t pos = static_cast<size_t>(std::upper_bound(first.begin(), first.end(), probe, less_) - first.begin());
    pos = pos == 0 ? 0 : pos - 1;
    for (; b < blocks_.size(); ++b, pos = 0) {
      for (const std::vector<T>& block = blocks_[b]; pos < block.size(); ++pos) {
        if (!visit(block[pos])) return;
      }
    }
  }

 private:
  static constexpr size_t kMaxBlock = 512;

  // The last block whose first value is not above `probe` (the first block
  // when none is).
  size_t BlockFor(const T& probe) const {
    const auto it = std::upper_bound(firsts_.begin(), firsts_.end(), probe, less_);
    return it == firsts_.begin() ? 0 : static_cast<size_t>(it - firsts_.begin()) - 1;
  }

  // The neighbours of the value at `pos` of block `b`.
  Neighbours Around(size_t b, size_t pos) const {
    Neighbours around;
    const std::vector<T>& block = blocks_[b];
    if (pos > 0) {
      around.prev = block[pos - 1];
    } else if (b > 0) {
      around.prev = blocks_[b - 1].back();
    }
    if (pos + 1 < block.size()) {
      around.next = block[pos + 1];
    } else if (b + 1 < blocks_.size()) {
      around.next = blocks_[b + 1].front();
    }
    return around;
  }

  std::vector<std::vector<T>> blocks_;  // each sorted and non-empty
  std::vector<T> firsts_;               // the first value of each block
  Less less_;
};

}  // namespace kandb::meta

#endif  // KANDB_META_SORTED_BLOCKS_H_
