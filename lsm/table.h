#ifndef KANDB_LSM_TABLE_H_
#define KANDB_LSM_TABLE_H_

// Table files: one immutable sorted run of entries.
//
// Layout: data records (op u8, key_length u32, key, value_length u32,
// value), then the sparse index (key_length u32, key, offset u64 for
// records 0, 16, 32, ...), then the serialised Bloom filter, then a 52-byte
// footer: index_offset, index_size, filter_offset, filter_size,
// entry_count (u64 each), crc32c of footer bytes 0-39 (u32), magic (u64).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/status.h"
#include "crypto/bloom.h"
#include "lsm/entry.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

inline constexpr uint64_t kTableMagic = 0x6B616E646273737ull;
inline constexpr size_t kTableFooterSize = 52;
inline constexpr size_t kTableIndexInterval = 16;
inline constexpr int kTableBloomBitsPerKey = 10;
// Read buffer of the iterators that compaction merges with.
inline constexpr size_t kCompactionReadBuffer = 262144;
// Read buffer of the iterators of a range scan: scans of the region records
// run over whole tables.
inline constexpr size_t kScanReadBuffer = 65536;

// Writes `entries` (sorted, unique keys) as a table file at `path`, through
// path + ".tmp", fsync, rename and a sync of the directory, so that a
// manifest written afterwards never names a table a crash could lose. On
// failure nothing is left behind but, when only the directory sync failed,
// the table under its final name. Failures: "sst create: " + tmp path,
// "sst write: " + strerror, "sst fsync failed", "sst close: " + strerror,
// "sst rename failed", "dir sync ...".
Status WriteTable(FileIo* io, const std::string& path, const std::vector<Entry>& entries);

class SstIterator;

// An open table file. Keeps only the index and the filter in memory and
// reads records with pread, so one reader serves any number of threads.
class SstReader : public std::enable_shared_from_this<SstReader> {
 public:
  // Opens and checks the footer, loads the index and the filter.
  // Failures: "sst open " + path + ": " + strerror, "sst too small: " + path,
  // "sst bad magic", "sst footer crc mismatch", "sst index truncated",
  // positioned-read failures.
  static Status Open(FileIo* io, const std::string& path, std::shared_ptr<SstReader>* out);
  ~SstReader();
  SstReader(const SstReader&) = delete;
  SstReader& operator=(const SstReader&) = delete;

  // Point lookup. On success *found tells whether the table has a record
  // for `key`; when it has, *op and *value are filled (deletions too).
  Status Get(const std::string& key, bool* found, uint8_t* op, std::string* value) const;

  // A new iterator, not yet positioned (call Seek). `buffer_size` bounds
  // each positioned read of the iterator.
  std::unique_ptr<SstIterator> NewIterator(size_t buffer_size = 4096) const;

  uint64_t entry_count() const { return entry_count_; }
  size_t index_entries() const { return index_.size(); }
  const std::string& path() const { return path_; }

  // What Open found, for inspection and verification of a file: its size,
  // the footer's block positions (the data region ends at index_offset),
  // the sparse index as (key, record offset) in file order, and the filter.
  struct Layout {
    uint64_t file_size = 0;
    uint64_t index_offset = 0;
    uint64_t index_size = 0;
    uint64_t filter_offset = 0;
    uint64_t filter_size = 0;
  };
  const Layout& layout() const { return layout_; }
  const std::vector<std::pair<std::string, uint64_t>>& index() const { return index_; }
  bool FilterMayContain(const std::string& key) const { return filter_.MayContain(key); }

 private:
  friend class SstIterator;
  SstReader(FileIo* io, std::string path, int fd);

  // Offset of the record to start a seek for `target` from.
  uint64_t IndexSearch(const std::string& target) const;
  // Reads exactly n bytes at offset: "sst: unexpected EOF", "sst pread: " + strerror.
  Status ReadAt(uint64_t offset, size_t n, char* dst) const;

  FileIo* const io_;
  const std::string path_;
  const int fd_;
  std::vector<std::pair<std::string, uint64_t>> index_;
  crypto::BloomFilterView filter_;
  Layout layout_;
  uint64_t data_end_ = 0;
  uint64_t entry_count_ = 0;
};

// Forward iteration over one table. Used by one thread at a time; keeps
// its reader alive through a shared reference.
class SstIterator {
 public:
  explicit SstIterator(std::shared_ptr<const SstReader> reader, size_t buffer_size);

  // Positions at the first record whose key is not less than `target`
  // (an empty target means the first record). Failures: "sst bad record
  // op", "sst record truncated", read failures.
  Status Seek(const std::string& target);
  Status Next();

  bool Valid() const { return valid_; }
  uint8_t op() const { return op_; }
  const std::string& key() const { return key_; }
  const std::string& value() const { return value_; }
  // File offset of the current record; after a failed Seek or Next, of the
  // record that could not be read.
  uint64_t record_offset() const { return record_offset_; }

 private:
  // Decodes the record at next_offset_ into the current entry.
  Status ReadRecord();
  // Makes file bytes [offset, offset + n) available in buffer_, reading
  // ahead up to buffer_size_ but never past the data region.
  Status Fill(uint64_t offset, size_t n);

  std::shared_ptr<const SstReader> reader_;
  const size_t buffer_size_;
  std::string buffer_;
  uint64_t buffer_offset_ = 0;  // file offset of buffer_[0]
  size_t buffered_ = 0;          // bytes of buffer_ that hold file data
  uint64_t next_offset_ = 0;
  uint64_t record_offset_ = 0;
  bool valid_ = false;
  uint8_t op_ = 0;
  std::string key_;
  std::string value_;
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_TABLE_H_
