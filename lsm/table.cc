#include "lsm/table.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "common/coding.h"
#include "crypto/crc32c.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

namespace {

// A point lookup reads one index interval in one go, but no more than this
// (in a checked table it reads the whole run, whatever its size).
constexpr size_t kMaxLookupRead = kCompactionReadBuffer;

}  // namespace

SstReader::SstReader(FileIo* io, std::string path, int fd) : io_(io), path_(std::move(path)), fd_(fd) {}

SstReader::~SstReader() { io_->Close(fd_); }

Status SstReader::ReadAt(uint64_t offset, size_t n, char* dst) const {
  size_t got = 0;
  while (got < n) {
    ssize_t r = io_->Pread(fd_, dst + got, n - got, static_cast<off_t>(offset + got));
    if (r < 0) {
      if (errno == EINTR) continue;
      return Status::Corruption(std::string("sst pread: ") + std::strerror(errno));
    }
    if (r == 0) return Status::Corruption("sst: unexpected EOF");
    got += static_cast<size_t>(r);
  }
  return Status::OK();
}

Status SstReader::Open(FileIo* io, const std::string& path, std::shared_ptr<SstReader>* out) {
  int fd = io->Open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) return Status::Corruption("sst open " + path + ": " + std::strerror(errno));
  // Owns the descriptor from here on, so every failure below closes it.
  std::shared_ptr<SstReader> reader(new SstReader(io, path, fd));

  struct stat st;
  if (io->Fstat(fd, &st) != 0) return Status::Corruption("sst stat " + path + ": " + std::strerror(errno));
  const uint64_t file_size = static_cast<uint64_t>(st.st_size);
  if (file_size < kTableFooterSize) {
    return Status::Corruption("sst too small: " + path + " has " + std::to_string(file_size) + " bytes");
  }

  char footer[kTableFooterSize];
  Status s = reader->ReadAt(file_size - kTableFooterSize, kTableFooterSize, footer);
  if (!s.ok()) return s;
  if (DecodeFixed64(footer + kFooterMagic) != kTableMagic) return Status::Corruption("sst bad magic");
  if (crypto::Crc32c(footer, kFooterCrc) != DecodeFixed32(footer + kFooterCrc)) {
    return Status::Corruption("sst footer crc mismatch");
  }
  const uint64_t index_offset = DecodeFixed64(footer + kFooterIndexOffset);
  const uint64_t index_size = DecodeFixed64(footer + kFooterIndexSize);
  const uint64_t filter_offset = DecodeFixed64(footer + kFooterFilterOffset);
  const uint64_t filter_size = DecodeFixed64(footer + kFooterFilterSize);

  // A block that reaches past the end of the file could never be read in
  // full; refusing it before allocating keeps a garbled size from asking
  // for an absurd buffer.
  auto past_end = [file_size](uint64_t offset, uint64_t size) {
    return offset > file_size || size > file_size - offset;
  };
  if (past_end(index_offset, index_size) || past_end(filter_offset, filter_size)) {
    return Status::Corruption("sst: unexpected EOF");
  }

  reader->data_end_ = index_offset;
  reader->entry_count_ = DecodeFixed64(footer + kFooterEntryCount);
  reader->layout_ = SstReader::Layout{file_size, index_offset, index_size, filter_offset, filter_size, 0, 0};

  // Bytes between the last block and the footer can only be a checksum
  // block. It is loaded first, so that the index and the filter are checked
  // before they are used: a damaged index is reported as damage rather than
  // as whatever it now decodes to.
  const uint64_t footer_start = file_size - kTableFooterSize;
  const uint64_t blocks_end = std::max(index_offset + index_size, filter_offset + filter_size);
  uint32_t index_crc = 0;
  uint32_t filter_crc = 0;
  if (blocks_end < footer_start) {
    s = reader->LoadChecksums(footer_start, &index_crc, &filter_crc);
    if (!s.ok()) return s;
  }

  // Each block is read, checked and parsed in turn, so that no more than
  // one raw block is held beside what stays in memory.
  {
    std::string index(index_size, '\0');
    s = reader->ReadAt(index_offset, index.size(), index.data());
    if (!s.ok()) return s;
    if (reader->has_checksums_ && crypto::Crc32c(index.data(), index.size()) != index_crc) {
      return Status::Corruption("sst index checksum mismatch: " + path);
    }
    s = reader->ParseIndex(index);
    if (!s.ok()) return s;
  }
  std::string filter(filter_size, '\0');
  s = reader->ReadAt(filter_offset, filter.size(), filter.data());
  if (!s.ok()) return s;
  if (reader->has_checksums_ && crypto::Crc32c(filter.data(), filter.size()) != filter_crc) {
    return Status::Corruption("sst filter checksum mismatch: " + path);
  }
  reader->filter_ = crypto::BloomFilterView(std::move(filter));

  if (reader->has_checksums_) {
    // Run boundaries come from the index: they must start at 0 and rise
    // inside the data region, one run per index entry, or the runs checked
    // would not be the records read.
    const auto& idx = reader->index_;
    bool match = reader->run_crcs_.size() == idx.size() && (idx.empty() ? reader->data_end_ == 0
                                                                      : idx[0].offset == 0 &&
                                                                            idx.back().offset < reader->data_end_);
    for (size_t i = 1; match && i < idx.size(); ++i) match = idx[i - 1].offset < idx[i].offset;
    if (!match) return Status::Corruption("sst runs do not match the index: " + path);
  }
  *out = std::move(reader);
  return Status::OK();
}

Status SstReader::ParseIndex(const std::string& index) {
  // Two passes: the first checks the entries and counts them, so that what
  // stays in memory is allocated once at its exact size.
  size_t entries = 0;
  size_t key_bytes = 0;
  for (size_t pos = 0; pos < index.size(); ++entries) {
    const size_t left = index.size() - pos;
    if (left < 4) return Status::Corruption("sst index truncated");
    const uint32_t key_length = DecodeFixed32(index.data() + pos);
    if (left < static_cast<uint64_t>(key_length) + 12) return Status::Corruption("sst index truncated");
    key_bytes += key_length;
    pos += 12 + key_length;
  }
  index_keys_.reserve(key_bytes);
  index_.reserve(entries);
  for (size_t pos = 0; pos < index.size();) {
    const uint32_t key_length = DecodeFixed32(index.data() + pos);
    index_keys_.append(index.data() + pos + 4, key_length);
    index_.push_back(IndexEntry{index_keys_.size(), DecodeFixed64(index.data() + pos + 4 + key_length)});
    pos += 12 + key_length;
  }
  return Status::OK();
}

Status SstReader::LoadChecksums(uint64_t footer_start, uint32_t* index_crc, uint32_t* filter_crc) {
  const uint64_t blocks_end =
      std::max(layout_.index_offset + layout_.index_size, layout_.filter_offset + layout_.filter_size);
  const uint64_t gap = footer_start - blocks_end;
  const Status bad_trailer = Status::Corruption("sst bad checksum trailer: " + path_);
  if (gap < kTableChecksumTrailerSize) return bad_trailer;
  char trailer[kTableChecksumTrailerSize];
  Status s = ReadAt(footer_start - kTableChecksumTrailerSize, sizeof(trailer), trailer);
  if (!s.ok()) return s;
  const uint64_t runs = DecodeFixed64(trailer + kTrailerRunCount);
  const uint64_t block_size = DecodeFixed64(trailer + kTrailerBlockSize);
  if (DecodeFixed64(trailer + kTrailerMagic) != kTableChecksumMagic || block_size != gap - sizeof(trailer) ||
      runs > block_size / 4 || block_size != runs * 4) {
    return bad_trailer;
  }
  std::string block(block_size, '\0');
  s = ReadAt(blocks_end, block.size(), block.data());
  if (!s.ok()) return s;
  const uint32_t block_crc = crypto::Crc32cExtend(crypto::Crc32c(block.data(), block.size()), trailer, kTrailerCrc);
  if (block_crc != DecodeFixed32(trailer + kTrailerCrc)) {
    return Status::Corruption("sst checksum block mismatch: " + path_);
  }
  *index_crc = DecodeFixed32(trailer + kTrailerIndexCrc);
  *filter_crc = DecodeFixed32(trailer + kTrailerFilterCrc);
  run_crcs_.resize(runs);
  for (uint64_t i = 0; i < runs; ++i) run_crcs_[i] = DecodeFixed32(block.data() + 4 * i);
  has_checksums_ = true;
  layout_.checksum_offset = blocks_end;
  layout_.checksum_size = block_size;
  return Status::OK();
}

std::vector<std::pair<std::string, uint64_t>> SstReader::index() const {
  std::vector<std::pair<std::string, uint64_t>> out;
  out.reserve(index_.size());
  for (size_t i = 0; i < index_.size(); ++i) out.emplace_back(std::string(IndexKey(i)), index_[i].offset);
  return out;
}

size_t SstReader::RunOf(uint64_t offset) const {
  auto it = std::upper_bound(index_.begin(), index_.end(), offset,
                             [](uint64_t o, const IndexEntry& entry) { return o < entry.offset; });
  return it == index_.begin() ? 0 : static_cast<size_t>(std::prev(it) - index_.begin());
}

Status SstReader::CheckRun(size_t run, const char* data) const {
  const uint64_t start = RunStart(run);
  if (crypto::Crc32c(data, static_cast<size_t>(RunEnd(run) - start)) != run_crcs_[run]) {
    return Status::Corruption("sst checksum mismatch: " + path_ + " at offset " + std::to_string(start));
  }
  return Status::OK();
}

size_t SstReader::IndexSlot(const std::string& target) const {
  size_t lo = 0;
  size_t hi = index_.size();
  while (lo < hi) {
    const size_t mid = lo + (hi - lo) / 2;
    if (std::string_view(target) < IndexKey(mid)) {
      hi = mid;
    } else {
      lo = mid + 1;
    }
  }
  return lo;
}

uint64_t SstReader::IndexSearch(const std::string& target) const {
  if (target.empty()) return 0;
  // The last indexed key not greater than the target: the record sought
  // lies in the interval that starts there.
  const size_t slot = IndexSlot(target);
  return slot == 0 ? 0 : index_[slot - 1].offset;
}

std::unique_ptr<SstIterator> SstReader::NewIterator(size_t buffer_size) const {
  return std::make_unique<SstIterator>(shared_from_this(), buffer_size);
}

Status SstReader::Get(const std::string& key, bool* found, uint8_t* op, std::string* value) const {
  *found = false;
  if (!filter_.MayContain(key)) return Status::OK();
  if (has_checksums_) return GetFromRun(key, found, op, value);

  // Size the read to the index interval holding the key, so that a lookup
  // costs one pread in the usual case.
  const uint64_t start = IndexSearch(key);
  uint64_t stop = data_end_;
  auto next = std::upper_bound(index_.begin(), index_.end(), start,
                               [](uint64_t offset, const IndexEntry& entry) { return offset < entry.offset; });
  if (next != index_.end() && next->offset < stop) stop = next->offset;
  const size_t stretch = stop > start ? static_cast<size_t>(std::min<uint64_t>(stop - start, kMaxLookupRead))
                                      : kTableRecordHeaderSize;

  SstIterator it(shared_from_this(), stretch);
  Status s = it.Seek(key);
  if (!s.ok()) return s;
  if (it.Valid() && it.key() == key) {
    *found = true;
    *op = it.op();
    *value = it.value();
  }
  return Status::OK();
}

Status SstReader::GetFromRun(const std::string& key, bool* found, uint8_t* op, std::string* value) const {
  // The run the index names for the key is read whole and checked, then
  // searched in place: the records passed over are never copied out.
  const size_t slot = IndexSlot(key);
  if (slot == 0) return Status::OK();  // below the first key
  const size_t run = slot - 1;
  const uint64_t start = RunStart(run);
  const size_t size = static_cast<size_t>(RunEnd(run) - start);
  std::string buffer(size, '\0');
  Status s = ReadAt(start, size, buffer.data());
  if (!s.ok()) return s;
  s = CheckRun(run, buffer.data());
  if (!s.ok()) return s;
  for (size_t pos = 0; pos < size;) {
    const char* p = buffer.data() + pos;
    const size_t left = size - pos;
    if (left < 5) return Status::Corruption("sst record truncated");
    const uint8_t record_op = static_cast<uint8_t>(p[0]);
    if (record_op != kOpPut && record_op != kOpDelete) return Status::Corruption("sst bad record op");
    const uint64_t key_length = DecodeFixed32(p + 1);
    if (left < kTableRecordHeaderSize + key_length) return Status::Corruption("sst record truncated");
    const uint64_t value_length = DecodeFixed32(p + 5 + key_length);
    if (left - kTableRecordHeaderSize - key_length < value_length) return Status::Corruption("sst record truncated");
    const int order = std::string_view(p + 5, key_length).compare(key);
    if (order > 0) return Status::OK();
    if (order == 0) {
      *found = true;
      *op = record_op;
      value->assign(p + kTableRecordHeaderSize + key_length, value_length);
      return Status::OK();
    }
    pos += kTableRecordHeaderSize + key_length + value_length;
  }
  return Status::OK();
}

SstIterator::SstIterator(std::shared_ptr<const SstReader> reader, size_t buffer_size)
    : reader_(std::move(reader)), buffer_size_(buffer_size), read_ahead_(buffer_size) {}

void SstIterator::GrowReadAhead(uint64_t offset) {
  // A read that starts where the buffer ended continues a walk: read twice
  // as far next time, so a long scan makes few large reads while a short
  // one reads no more than it was given.
  if (buffered_ != 0 && offset == buffer_offset_ + buffered_) {
    read_ahead_ = std::min(std::max(read_ahead_ * 2, buffer_size_), std::max(buffer_size_, kMaxReadAhead));
  } else {
    read_ahead_ = buffer_size_;
  }
}

Status SstIterator::Fill(uint64_t offset, size_t n) {
  // In a checked table, bytes below checked_end_ were checked when they
  // were buffered; anything else goes through FillRuns.
  if (offset >= buffer_offset_ && offset + n <= (reader_->has_checksums_ ? checked_end_ : buffer_offset_ + buffered_)) {
    return Status::OK();
  }
  const uint64_t data_end = reader_->data_end_;
  if (offset > data_end || n > data_end - offset) return Status::Corruption("sst record truncated");
  if (reader_->has_checksums_) return FillRuns(offset, n);
  // Read ahead up to the buffer size, never past the data region.
  GrowReadAhead(offset);
  const size_t length = static_cast<size_t>(std::max<uint64_t>(n, std::min<uint64_t>(read_ahead_, data_end - offset)));
  if (buffer_.size() < length) buffer_.resize(length);
  buffered_ = 0;
  Status s = reader_->ReadAt(offset, length, buffer_.data());
  if (!s.ok()) return s;
  buffer_offset_ = offset;
  buffered_ = length;
  return Status::OK();
}

Status SstIterator::FillRuns(uint64_t offset, size_t n) {
  const SstReader& r = *reader_;
  const uint64_t last = offset + n - 1;
  if (offset < buffer_offset_ || offset + n > buffer_offset_ + buffered_) {
    // Whole runs only, so that each can be checked as a whole: the ones the
    // bytes lie in, then as many following ones as the buffer size allows.
    const size_t first = r.RunOf(offset);
    size_t end = r.RunOf(last) + 1;
    GrowReadAhead(r.RunStart(first));
    while (end < r.run_count() && r.RunEnd(end) - r.RunStart(first) <= read_ahead_) ++end;
    const uint64_t start = r.RunStart(first);
    const size_t length = static_cast<size_t>(r.RunEnd(end - 1) - start);
    if (buffer_.size() < length) buffer_.resize(length);
    buffered_ = 0;
    checked_end_ = 0;
    Status s = r.ReadAt(start, length, buffer_.data());
    if (!s.ok()) return s;
    buffer_offset_ = start;
    buffered_ = length;
    end_run_ = end;
    checked_end_run_ = first;
  }
  // A run is checked when its first byte is about to be used, so damage in
  // a run read ahead fails only the reads that reach it.
  while (checked_end_run_ < end_run_ && r.RunStart(checked_end_run_) <= last) {
    Status s = r.CheckRun(checked_end_run_, buffer_.data() + (r.RunStart(checked_end_run_) - buffer_offset_));
    if (!s.ok()) return s;
    checked_end_ = r.RunEnd(checked_end_run_);
    ++checked_end_run_;
  }
  return Status::OK();
}

Status SstIterator::ReadRecord() {
  valid_ = false;
  const uint64_t offset = next_offset_;
  record_offset_ = offset;
  if (offset >= reader_->data_end_) return Status::OK();

  Status s = Fill(offset, 5);
  if (!s.ok()) return s;
  const char* p = buffer_.data() + (offset - buffer_offset_);
  const uint8_t op = static_cast<uint8_t>(p[0]);
  if (op != kOpPut && op != kOpDelete) return Status::Corruption("sst bad record op");
  const uint32_t key_length = DecodeFixed32(p + 1);

  s = Fill(offset, kTableRecordHeaderSize + key_length);
  if (!s.ok()) return s;
  p = buffer_.data() + (offset - buffer_offset_);
  const uint32_t value_length = DecodeFixed32(p + 5 + key_length);
  const size_t record_size = kTableRecordHeaderSize + static_cast<size_t>(key_length) + value_length;

  s = Fill(offset, record_size);
  if (!s.ok()) return s;
  p = buffer_.data() + (offset - buffer_offset_);
  op_ = op;
  key_.assign(p + 5, key_length);
  value_.assign(p + kTableRecordHeaderSize + key_length, value_length);
  next_offset_ = offset + record_size;
  valid_ = true;
  return Status::OK();
}

Status SstIterator::Seek(const std::string& target) {
  next_offset_ = reader_->IndexSearch(target);
  while (true) {
    Status s = ReadRecord();
    if (!s.ok() || !valid_ || key_ >= target) return s;
  }
}

Status SstIterator::Next() {
  if (!valid_) return Status::OK();
  return ReadRecord();
}

}  // namespace kandb::lsm
