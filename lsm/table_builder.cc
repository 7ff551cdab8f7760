#include "lsm/table_builder.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "common/coding.h"
#include "crypto/crc32c.h"
#include "lsm/filename.h"
#include "lsm/table.h"

namespace kandb::lsm {

Status TableBuilder::Open(FileIo* io, const std::string& path, uint64_t expected_entries,
                          std::unique_ptr<TableBuilder>* out) {
  std::string tmp = TempFileName(path);
  // The final name is never written in place: until the rename, a crash
  // leaves at worst a stray ".tmp" file beside the tables in force. Opened
  // for reading too, for the filter of a merge (Finish reads the keys back).
  const int fd = io->Open(tmp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return Status::Corruption("sst create: " + tmp);
  out->reset(new TableBuilder(io, path, std::move(tmp), fd, expected_entries));
  return Status::OK();
}

TableBuilder::TableBuilder(FileIo* io, std::string path, std::string tmp, int fd, uint64_t expected_entries)
    : io_(io), path_(std::move(path)), tmp_(std::move(tmp)), fd_(fd), expected_entries_(expected_entries) {
  if (expected_entries != kUnknownCount) filter_.emplace(expected_entries, kTableBloomBitsPerKey);
  buffer_.reserve(kTableWriteBuffer);
}

TableBuilder::~TableBuilder() {
  if (!finished_) Abandon();
}

void TableBuilder::Abandon() {
  if (fd_ >= 0) {
    io_->Close(fd_);
    fd_ = -1;
  }
  if (!finished_) io_->Unlink(tmp_.c_str());
  finished_ = true;
  if (status_.ok()) status_ = Status::Corruption("sst abandoned");
}

Status TableBuilder::FlushBuffer() {
  Status s = WriteFully(io_, fd_, buffer_.data(), buffer_.size(), "sst write: ");
  if (!s.ok()) return s;
  written_ += buffer_.size();
  buffer_.clear();
  if (written_ - synced_ >= kTableSyncInterval) {
    // Syncing as it goes keeps the dirty pages of a large table from piling
    // up for the final fsync, which would hold the caller for as long as
    // the disk needs to write them all.
    if (io_->Fdatasync(fd_) != 0) return Status::Corruption(std::string("sst fdatasync: ") + std::strerror(errno));
    synced_ = written_;
    if (between_steps_) between_steps_();
  }
  return Status::OK();
}

Status TableBuilder::Add(uint8_t op, std::string_view key, std::string_view value) {
  if (!status_.ok()) return status_;
  const uint64_t offset = file_size();
  if (entries_ % kTableIndexInterval == 0) {
    // A new run starts with this record: the previous one is complete.
    if (entries_ > 0) run_crcs_.push_back(run_crc_);
    run_crc_ = 0;
    PutFixed32(&index_, static_cast<uint32_t>(key.size()));
    index_.append(key);
    PutFixed64(&index_, offset);
  }
  const size_t at = buffer_.size();
  buffer_.push_back(static_cast<char>(op));
  PutFixed32(&buffer_, static_cast<uint32_t>(key.size()));
  buffer_.append(key);
  PutFixed32(&buffer_, static_cast<uint32_t>(value.size()));
  buffer_.append(value);
  run_crc_ = crypto::Crc32cExtend(run_crc_, buffer_.data() + at, buffer_.size() - at);
  if (filter_) filter_->Add(key.data(), key.size());
  ++entries_;
  if (buffer_.size() >= kTableWriteBuffer) status_ = FlushBuffer();
  return status_;
}

Status TableBuilder::FilterFromFile(std::string* serialised) {
  crypto::BloomFilter filter(entries_, kTableBloomBitsPerKey);
  // Records are parsed from a window that slides over the data region; a
  // record longer than the window grows it.
  const uint64_t data_end = written_;
  std::string window;
  size_t pos = 0;
  uint64_t window_offset = 0;
  auto ensure = [&](size_t n) -> Status {
    if (window.size() - pos >= n) return Status::OK();
    window.erase(0, pos);
    window_offset += pos;
    pos = 0;
    const uint64_t from = window_offset + window.size();
    const size_t want = static_cast<size_t>(std::min<uint64_t>(std::max(n - window.size(), kTableWriteBuffer),
                                                                data_end - from));
    const size_t had = window.size();
    window.resize(had + want);
    size_t got = 0;
    while (got < want) {
      const ssize_t r = io_->Pread(fd_, window.data() + had + got, want - got, static_cast<off_t>(from + got));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) {
        return Status::Corruption(std::string("sst read back: ") + std::strerror(r == 0 ? EIO : errno));
      }
      got += static_cast<size_t>(r);
    }
    if (window.size() < n) return Status::Corruption("sst read back: record past the data written");
    return Status::OK();
  };
  for (uint64_t i = 0; i < entries_; ++i) {
    if (between_steps_ && i % kStepRecords == kStepRecords - 1) between_steps_();
    Status s = ensure(5);
    if (!s.ok()) return s;
    const size_t key_length = DecodeFixed32(window.data() + pos + 1);
    s = ensure(kTableRecordHeaderSize + key_length);
    if (!s.ok()) return s;
    filter.Add(window.data() + pos + 5, key_length);
    const size_t value_length = DecodeFixed32(window.data() + pos + 5 + key_length);
    s = ensure(kTableRecordHeaderSize + key_length + value_length);
    if (!s.ok()) return s;
    pos += kTableRecordHeaderSize + key_length + value_length;
  }
  *serialised = filter.Serialize();
  return Status::OK();
}

Status TableBuilder::WriteBlock(std::string* block) {
  Status s = WriteFully(io_, fd_, block->data(), block->size(), "sst write: ");
  if (s.ok()) written_ += block->size();
  std::string().swap(*block);  // written: its memory goes at once
  return s;
}

Status TableBuilder::Finish() {
  if (!status_.ok()) return status_;
  if (entries_ > 0) run_crcs_.push_back(run_crc_);
  Status s = FlushBuffer();
  std::string filter;
  if (s.ok()) {
    if (filter_ && entries_ == expected_entries_) {
      filter = filter_->Serialize();
    } else {
      s = FilterFromFile(&filter);
    }
  }
  filter_.reset();

  // The tail goes out block by block, each released once written, so that
  // the index and the filter are never held twice.
  const uint64_t index_offset = written_;
  const uint64_t index_size = index_.size();
  const uint64_t filter_size = filter.size();
  char trailer[kTableChecksumTrailerSize];
  EncodeFixed32(trailer + kTrailerIndexCrc, crypto::Crc32c(index_.data(), index_.size()));
  EncodeFixed32(trailer + kTrailerFilterCrc, crypto::Crc32c(filter.data(), filter.size()));
  EncodeFixed64(trailer + kTrailerRunCount, run_crcs_.size());
  EncodeFixed64(trailer + kTrailerBlockSize, 4 * run_crcs_.size());
  if (s.ok()) s = WriteBlock(&index_);
  if (s.ok()) s = WriteBlock(&filter);
  std::string block;
  block.reserve(4 * run_crcs_.size() + sizeof(trailer) + kTableFooterSize);
  for (uint32_t crc : run_crcs_) PutFixed32(&block, crc);
  std::vector<uint32_t>().swap(run_crcs_);
  EncodeFixed32(trailer + kTrailerCrc,
                crypto::Crc32cExtend(crypto::Crc32c(block.data(), block.size()), trailer, kTrailerCrc));
  EncodeFixed64(trailer + kTrailerMagic, kTableChecksumMagic);
  block.append(trailer, sizeof(trailer));

  char footer[kTableFooterSize];
  EncodeFixed64(footer + kFooterIndexOffset, index_offset);
  EncodeFixed64(footer + kFooterIndexSize, index_size);
  EncodeFixed64(footer + kFooterFilterOffset, index_offset + index_size);
  EncodeFixed64(footer + kFooterFilterSize, filter_size);
  EncodeFixed64(footer + kFooterEntryCount, entries_);
  EncodeFixed32(footer + kFooterCrc, crypto::Crc32c(footer, kFooterCrc));
  EncodeFixed64(footer + kFooterMagic, kTableMagic);
  block.append(footer, sizeof(footer));
  if (s.ok()) s = WriteBlock(&block);
  if (!s.ok()) {
    status_ = s;
    Abandon();
    return s;
  }
  return Publish();
}

Status TableBuilder::Publish() {
  Status s;
  // Synced before the rename, so that the name never points at a table
  // whose bytes a crash could still lose.
  if (io_->Fsync(fd_) != 0) s = Status::Corruption("sst fsync failed");
  const int fd = fd_;
  fd_ = -1;
  if (io_->Close(fd) != 0 && s.ok()) s = Status::Corruption(std::string("sst close: ") + std::strerror(errno));
  if (s.ok() && io_->Rename(tmp_.c_str(), path_.c_str()) != 0) s = Status::Corruption("sst rename failed");
  if (!s.ok()) {
    status_ = s;
    Abandon();
    return s;
  }
  finished_ = true;
  const size_t slash = path_.rfind('/');
  return SyncDirectory(io_, path_.substr(0, slash == std::string::npos ? 0 : slash));
}

Status WriteTable(FileIo* io, const std::string& path, const std::vector<Entry>& entries) {
  std::unique_ptr<TableBuilder> builder;
  Status s = TableBuilder::Open(io, path, entries.size(), &builder);
  for (size_t i = 0; s.ok() && i < entries.size(); ++i) s = builder->Add(entries[i].op, entries[i].key, entries[i].value);
  if (s.ok()) s = builder->Finish();
  return s;
}

}  // namespace kandb::lsm
