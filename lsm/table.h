#ifndef KANDB_LSM_TABLE_H_
#define KANDB_LSM_TABLE_H_

// Table files: one immutable sorted run of entries.
//
// Layout: data records (op u8, key_length u32, key, value_length u32,
// value), then the sparse index (key_length u32, key, offset u64 for
// records 0, 16, 32, ...), then the serialised Bloom filter, then the
// checksum block and its trailer, then a 52-byte footer: index_offset,
// index_size, filter_offset, filter_size, entry_count (u64 each), crc32c of
// footer bytes 0-39 (u32), magic (u64).
//
// The checksum block holds one crc32c (u32) per run of 16 records, the
// runs the sparse index names, in file order. Its 36-byte trailer: crc32c
// of the index block (u32), of the filter block (u32), the run count
// (u64), the block's size in bytes (u64), crc32c of the block followed by
// trailer bytes 0-23 (u32), and the trailer magic (u64). The footer keeps
// its meaning, so a reader that knows nothing of the block still reads the
// table; a table with nothing between its filter and its footer (every
// table written before the block existed) is read unchecked.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
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
inline constexpr uint64_t kTableChecksumMagic = 0x6B616E6462637263ull;
inline constexpr size_t kTableChecksumTrailerSize = 36;

// Field offsets of the footer and of the checksum trailer.
inline constexpr size_t kFooterIndexOffset = 0;
inline constexpr size_t kFooterIndexSize = 8;
inline constexpr size_t kFooterFilterOffset = 16;
inline constexpr size_t kFooterFilterSize = 24;
inline constexpr size_t kFooterEntryCount = 32;
inline constexpr size_t kFooterCrc = 40;
inline constexpr size_t kFooterMagic = 44;
inline constexpr size_t kTrailerIndexCrc = 0;
inline constexpr size_t kTrailerFilterCrc = 4;
inline constexpr size_t kTrailerRunCount = 8;
inline constexpr size_t kTrailerBlockSize = 16;
inline constexpr size_t kTrailerCrc = 24;
inline constexpr size_t kTrailerMagic = 28;
// op, key_length, value_length
inline constexpr size_t kTableRecordHeaderSize = 9;
// Read buffer of the iterators that compaction merges with.
inline constexpr size_t kCompactionReadBuffer = 262144;
// Read buffer of the iterators of a range scan: scans of the region records
// run over whole tables.
inline constexpr size_t kScanReadBuffer = 65536;

class SstIterator;

// An open table file. Keeps only the index and the filter in memory and
// reads records with pread, so one reader serves any number of threads.
class SstReader : public std::enable_shared_from_this<SstReader> {
 public:
  // Opens and checks the footer, loads the index and the filter, and, when
  // the table has a checksum block, loads the run checksums and checks the
  // index, the filter and the block itself against it.
  // Failures: "sst open " + path + ": " + strerror, "sst too small: " + path,
  // "sst bad magic", "sst footer crc mismatch", "sst index truncated",
  // "sst bad checksum trailer: " + path, "sst checksum block mismatch: " +
  // path, "sst index checksum mismatch: " + path, "sst filter checksum
  // mismatch: " + path, "sst runs do not match the index: " + path,
  // positioned-read failures.
  static Status Open(FileIo* io, const std::string& path, std::shared_ptr<SstReader>* out);
  ~SstReader();
  SstReader(const SstReader&) = delete;
  SstReader& operator=(const SstReader&) = delete;

  // Point lookup. On success *found tells whether the table has a record
  // for `key`; when it has, *op and *value are filled (deletions too). The
  // run read is checked first: "sst checksum mismatch: " + path +
  // " at offset " + the run's offset.
  Status Get(const std::string& key, bool* found, uint8_t* op, std::string* value) const;

  // A new iterator, not yet positioned (call Seek). Each positioned read of
  // the iterator reads ahead `buffer_size` bytes, twice as many on each
  // refill of a sequential walk, up to 64 KiB (or `buffer_size` if larger).
  std::unique_ptr<SstIterator> NewIterator(size_t buffer_size = 4096) const;

  uint64_t entry_count() const { return entry_count_; }
  size_t index_entries() const { return index_.size(); }
  // Whether the table has a checksum block: tables written before it
  // existed are read unchecked.
  bool has_checksums() const { return has_checksums_; }
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
    // The run checksums; both 0 without a checksum block.
    uint64_t checksum_offset = 0;
    uint64_t checksum_size = 0;
  };
  const Layout& layout() const { return layout_; }
  // A copy, made on each call.
  std::vector<std::pair<std::string, uint64_t>> index() const;
  bool FilterMayContain(const std::string& key) const { return filter_.MayContain(key); }

 private:
  friend class SstIterator;
  SstReader(FileIo* io, std::string path, int fd);

  // The number of index entries whose key is not greater than `target`.
  size_t IndexSlot(const std::string& target) const;
  // Offset of the record to start a seek for `target` from.
  uint64_t IndexSearch(const std::string& target) const;
  // Get in a checked table.
  Status GetFromRun(const std::string& key, bool* found, uint8_t* op, std::string* value) const;
  // Reads exactly n bytes at offset: "sst: unexpected EOF", "sst pread: " + strerror.
  Status ReadAt(uint64_t offset, size_t n, char* dst) const;
  // Loads and checks the checksum block and trailer that end at
  // `footer_start`, and hands out the checksums of the index and filter.
  Status LoadChecksums(uint64_t footer_start, uint32_t* index_crc, uint32_t* filter_crc);
  // Parses the index block into index_keys_ and index_.
  Status ParseIndex(const std::string& index);

  // Runs of a checked table: run r holds the records from index_[r] up to
  // the next run or the end of the data region.
  size_t run_count() const { return run_crcs_.size(); }
  uint64_t RunStart(size_t run) const { return index_[run].offset; }
  uint64_t RunEnd(size_t run) const { return run + 1 < index_.size() ? index_[run + 1].offset : data_end_; }
  std::string_view IndexKey(size_t i) const {
    const uint64_t begin = i == 0 ? 0 : index_[i - 1].key_end;
    return std::string_view(index_keys_.data() + begin, index_[i].key_end - begin);
  }
  // The run holding the byte at `offset` (which lies in the data region).
  size_t RunOf(uint64_t offset) const;
  // Checks the bytes of run `run`, held at `data`.
  Status CheckRun(size_t run, const char* data) const;

  FileIo* const io_;
  const std::string path_;
  const int fd_;
  // The sparse index, kept compact since every table's stays in memory: the
  // indexed keys back to back in index_keys_, and for each entry where its
  // key ends there and the file offset of its record.
  struct IndexEntry {
    uint64_t key_end;
    uint64_t offset;
  };
  std::string index_keys_;
  std::vector<IndexEntry> index_;
  crypto::BloomFilterView filter_;
  Layout layout_;
  uint64_t data_end_ = 0;
  uint64_t entry_count_ = 0;
  bool has_checksums_ = false;
  // One crc32c per run, in file order; empty without a checksum block.
  std::vector<uint32_t> run_crcs_;
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
  // ahead up to buffer_size_ but never past the data region. In a checked
  // table it reads whole runs and checks every run that [offset, offset +
  // n) touches before the bytes are used.
  Status Fill(uint64_t offset, size_t n);
  Status FillRuns(uint64_t offset, size_t n);

  std::shared_ptr<const SstReader> reader_;
  // Sequential refills double the read-ahead from buffer_size_ up to this.
  static constexpr size_t kMaxReadAhead = 65536;
  void GrowReadAhead(uint64_t offset);

  const size_t buffer_size_;
  size_t read_ahead_;
  std::string buffer_;
  uint64_t buffer_offset_ = 0;  // file offset of buffer_[0]
  size_t buffered_ = 0;          // bytes of buffer_ that hold file data
  // Checked tables: buffer_ holds whole runs, up to end_run_; those before
  // checked_end_run_ have been checked.
  size_t end_run_ = 0;
  size_t checked_end_run_ = 0;
  uint64_t checked_end_ = 0;  // file offset where the checked runs end
  uint64_t next_offset_ = 0;
  uint64_t record_offset_ = 0;
  bool valid_ = false;
  uint8_t op_ = 0;
  std::string key_;
  std::string value_;
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_TABLE_H_
