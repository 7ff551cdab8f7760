#include "lsm/table.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/coding.h"
#include "crypto/crc32c.h"
#include "lsm/file_io.h"
#include "lsm/filename.h"

namespace kandb::lsm {

namespace {

// Footer field offsets.
constexpr size_t kFooterIndexOffset = 0;
constexpr size_t kFooterIndexSize = 8;
constexpr size_t kFooterFilterOffset = 16;
constexpr size_t kFooterFilterSize = 24;
constexpr size_t kFooterEntryCount = 32;
constexpr size_t kFooterCrc = 40;
constexpr size_t kFooterMagic = 44;
constexpr size_t kRecordHeaderSize = 9;  // op, key_length, value_length
// A point lookup reads one index interval in one go, but no more than this.
constexpr size_t kMaxLookupRead = kCompactionReadBuffer;

// The whole file as it will be written: records, index, filter, footer.
std::string SerializeTable(const std::vector<Entry>& entries) {
  crypto::BloomFilter filter(entries.size(), kTableBloomBitsPerKey);
  size_t data_size = 0;
  for (const Entry& e : entries) {
    filter.Add(e.key);
    data_size += kRecordHeaderSize + e.key.size() + e.value.size();
  }

  std::string file;
  std::string index;
  file.reserve(data_size);
  for (size_t i = 0; i < entries.size(); ++i) {
    const Entry& e = entries[i];
    if (i % kTableIndexInterval == 0) {
      PutFixed32(&index, static_cast<uint32_t>(e.key.size()));
      index.append(e.key);
      PutFixed64(&index, file.size());
    }
    file.push_back(static_cast<char>(e.op));
    PutFixed32(&file, static_cast<uint32_t>(e.key.size()));
    file.append(e.key);
    PutFixed32(&file, static_cast<uint32_t>(e.value.size()));
    file.append(e.value);
  }

  const uint64_t index_offset = file.size();
  file.append(index);
  const uint64_t filter_offset = file.size();
  file.append(filter.Serialize());
  const uint64_t filter_size = file.size() - filter_offset;

  char footer[kTableFooterSize];
  EncodeFixed64(footer + kFooterIndexOffset, index_offset);
  EncodeFixed64(footer + kFooterIndexSize, index.size());
  EncodeFixed64(footer + kFooterFilterOffset, filter_offset);
  EncodeFixed64(footer + kFooterFilterSize, filter_size);
  EncodeFixed64(footer + kFooterEntryCount, entries.size());
  EncodeFixed32(footer + kFooterCrc, crypto::Crc32c(footer, kFooterCrc));
  EncodeFixed64(footer + kFooterMagic, kTableMagic);
  file.append(footer, sizeof(footer));
  return file;
}

}  // namespace

Status WriteTable(FileIo* io, const std::string& path, const std::vector<Entry>& entries) {
  const std::string file = SerializeTable(entries);
  const std::string tmp = TempFileName(path);

  // The final name is never written in place: until the rename, a crash
  // leaves at worst a stray ".tmp" file beside the tables in force.
  int fd = io->Open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return Status::Corruption("sst create: " + tmp);
  Status s = WriteFully(io, fd, file.data(), file.size(), "sst write: ");
  // Synced before the rename, so that the name never points at a table
  // whose bytes a crash could still lose.
  if (s.ok() && io->Fsync(fd) != 0) s = Status::Corruption("sst fsync failed");
  if (io->Close(fd) != 0 && s.ok()) s = Status::Corruption(std::string("sst close: ") + std::strerror(errno));
  if (s.ok() && io->Rename(tmp.c_str(), path.c_str()) != 0) s = Status::Corruption("sst rename failed");
  if (!s.ok()) {
    io->Unlink(tmp.c_str());
    return s;
  }
  return SyncDirectory(io, path.substr(0, path.rfind('/') == std::string::npos ? 0 : path.rfind('/')));
}

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

  std::string index(index_size, '\0');
  s = reader->ReadAt(index_offset, index.size(), index.data());
  if (!s.ok()) return s;
  size_t pos = 0;
  while (pos < index.size()) {
    const size_t left = index.size() - pos;
    if (left < 4) return Status::Corruption("sst index truncated");
    const uint32_t key_length = DecodeFixed32(index.data() + pos);
    if (left < static_cast<uint64_t>(key_length) + 12) return Status::Corruption("sst index truncated");
    std::string key(index.data() + pos + 4, key_length);
    const uint64_t offset = DecodeFixed64(index.data() + pos + 4 + key_length);
    reader->index_.emplace_back(std::move(key), offset);
    pos += 12 + key_length;
  }

  std::string filter(filter_size, '\0');
  s = reader->ReadAt(filter_offset, filter.size(), filter.data());
  if (!s.ok()) return s;
  reader->filter_ = crypto::BloomFilterView(std::move(filter));

  reader->layout_ = SstReader::Layout{file_size, index_offset, index_size, filter_offset, filter_size};
  reader->data_end_ = index_offset;
  reader->entry_count_ = DecodeFixed64(footer + kFooterEntryCount);
  *out = std::move(reader);
  return Status::OK();
}

uint64_t SstReader::IndexSearch(const std::string& target) const {
  if (target.empty()) return 0;
  // The last indexed key not greater than the target: the record sought
  // lies in the interval that starts there.
  auto it = std::upper_bound(index_.begin(), index_.end(), target,
                             [](const std::string& t, const auto& entry) { return t < entry.first; });
  return it == index_.begin() ? 0 : std::prev(it)->second;
}

std::unique_ptr<SstIterator> SstReader::NewIterator(size_t buffer_size) const {
  return std::make_unique<SstIterator>(shared_from_this(), buffer_size);
}

Status SstReader::Get(const std::string& key, bool* found, uint8_t* op, std::string* value) const {
  *found = false;
  if (!filter_.MayContain(key)) return Status::OK();

  // Size the read to the index interval holding the key, so that a lookup
  // costs one pread in the usual case.
  const uint64_t start = IndexSearch(key);
  uint64_t stop = data_end_;
  auto next = std::upper_bound(index_.begin(), index_.end(), start,
                               [](uint64_t offset, const auto& entry) { return offset < entry.second; });
  if (next != index_.end() && next->second < stop) stop = next->second;
  const size_t stretch = stop > start ? static_cast<size_t>(std::min<uint64_t>(stop - start, kMaxLookupRead))
                                      : kRecordHeaderSize;

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

SstIterator::SstIterator(std::shared_ptr<const SstReader> reader, size_t buffer_size)
    : reader_(std::move(reader)), buffer_size_(buffer_size) {}

Status SstIterator::Fill(uint64_t offset, size_t n) {
  if (offset >= buffer_offset_ && offset + n <= buffer_offset_ + buffered_) return Status::OK();
  const uint64_t data_end = reader_->data_end_;
  if (offset > data_end || n > data_end - offset) return Status::Corruption("sst record truncated");
  // Read ahead up to the buffer size, never past the data region.
  const size_t length = static_cast<size_t>(std::max<uint64_t>(n, std::min<uint64_t>(buffer_size_, data_end - offset)));
  if (buffer_.size() < length) buffer_.resize(length);
  buffered_ = 0;
  Status s = reader_->ReadAt(offset, length, buffer_.data());
  if (!s.ok()) return s;
  buffer_offset_ = offset;
  buffered_ = length;
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

  s = Fill(offset, kRecordHeaderSize + key_length);
  if (!s.ok()) return s;
  p = buffer_.data() + (offset - buffer_offset_);
  const uint32_t value_length = DecodeFixed32(p + 5 + key_length);
  const size_t record_size = kRecordHeaderSize + static_cast<size_t>(key_length) + value_length;

  s = Fill(offset, record_size);
  if (!s.ok()) return s;
  p = buffer_.data() + (offset - buffer_offset_);
  op_ = op;
  key_.assign(p + 5, key_length);
  value_.assign(p + kRecordHeaderSize + key_length, value_length);
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
