#ifndef KANDB_LSM_TABLE_BUILDER_H_
#define KANDB_LSM_TABLE_BUILDER_H_

// Writes a table file (layout in lsm/table.h) as its records are produced:
// they go to the temporary file through one buffer, and only the sparse
// index, the run checksums and the Bloom filter stay in memory, so a flush
// or a merge of any size needs memory for its index and filter alone.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/status.h"
#include "crypto/bloom.h"
#include "lsm/entry.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

// Bytes gathered before each write to the temporary file.
inline constexpr size_t kTableWriteBuffer = 262144;
// The builder fdatasyncs what it wrote each time this much more is written.
inline constexpr uint64_t kTableSyncInterval = 32ull << 20;

class TableBuilder {
 public:
  // Passed as `expected_entries` when the number of records is not known
  // beforehand.
  static constexpr uint64_t kUnknownCount = UINT64_MAX;

  // Creates path + ".tmp" for a table to be published at `path`. With the
  // exact number of records the builder fills the Bloom filter as they
  // come; otherwise (a merge) it builds the filter at Finish from the keys
  // read back from the temporary file, since the filter's size depends on
  // the count. Failure: "sst create: " + tmp path.
  static Status Open(FileIo* io, const std::string& path, uint64_t expected_entries,
                     std::unique_ptr<TableBuilder>* out);
  // Abandons a table that was not finished.
  ~TableBuilder();
  TableBuilder(const TableBuilder&) = delete;
  TableBuilder& operator=(const TableBuilder&) = delete;

  // Appends one record; keys must come in strictly ascending order (not
  // checked).
  // Failure: "sst write: " + strerror (the builder is then only abandoned).
  Status Add(uint8_t op, std::string_view key, std::string_view value);

  // Writes the index, filter, checksum block, trailer and footer, fsyncs,
  // closes, renames the temporary file to `path` and syncs the directory,
  // so that a manifest written afterwards never names a table a crash could
  // lose. On failure the temporary file is removed; when only the directory
  // sync failed the table stays under its final name. Failures: "sst
  // write: " + strerror, "sst fdatasync: " + strerror (also from Add),
  // "sst read back: " + strerror, "sst fsync failed",
  // "sst close: " + strerror, "sst rename failed", "dir sync ...".
  Status Finish();

  // Closes and removes the temporary file. Idempotent.
  void Abandon();

  // Runs `fn` every so often during the builder's own long steps (reading
  // the keys back, syncing as it goes), for work that must not wait for a
  // large table to be finished: the engine flushes full memtables there.
  void set_between_steps(std::function<void()> fn) { between_steps_ = std::move(fn); }

  uint64_t entries() const { return entries_; }
  // Bytes written to the file so far (all of it after Finish).
  uint64_t file_size() const { return written_ + buffer_.size(); }

 private:
  TableBuilder(FileIo* io, std::string path, std::string tmp, int fd, uint64_t expected_entries);

  // Records between two calls of between_steps_ while reading keys back.
  static constexpr uint64_t kStepRecords = 4096;

  Status FlushBuffer();
  // Builds the filter from the keys of the data region written so far.
  Status FilterFromFile(std::string* serialised);
  // Writes *block and releases its memory.
  Status WriteBlock(std::string* block);
  // fsync, close, rename, directory sync.
  Status Publish();

  FileIo* const io_;
  const std::string path_;
  const std::string tmp_;
  int fd_;
  const uint64_t expected_entries_;
  // Filled as records come when their count was given.
  std::optional<crypto::BloomFilter> filter_;
  std::string buffer_;
  uint64_t written_ = 0;  // bytes already handed to the file
  uint64_t synced_ = 0;   // bytes covered by the last fdatasync
  std::function<void()> between_steps_;
  uint64_t entries_ = 0;
  std::string index_;  // the encoded index block
  std::vector<uint32_t> run_crcs_;
  uint32_t run_crc_ = 0;  // of the current run's records so far
  Status status_;
  bool finished_ = false;
};

// Writes `entries` (sorted, unique keys) as a table file at `path` through
// a TableBuilder.
Status WriteTable(FileIo* io, const std::string& path, const std::vector<Entry>& entries);

}  // namespace kandb::lsm

#endif  // KANDB_LSM_TABLE_BUILDER_H_
