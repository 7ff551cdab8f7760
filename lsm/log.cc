#include "lsm/log.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/coding.h"
#include "crypto/crc32c.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

namespace {

Status WalError(const char* what) { return Status::Corruption(std::string(what) + std::strerror(errno)); }

// Reads up to n bytes, repeating short reads; returns how many arrived
// before end of file or an error. *error is set to the errno of a failed
// read, and stays 0 at end of file.
size_t ReadFully(FileIo* io, int fd, char* dst, size_t n, int* error) {
  size_t got = 0;
  *error = 0;
  while (got < n) {
    ssize_t r = io->Read(fd, dst + got, n - got);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) *error = errno;
    if (r <= 0) break;
    got += static_cast<size_t>(r);
  }
  return got;
}

std::string OfBytes(size_t got, size_t wanted, const char* what) {
  return std::to_string(got) + " of " + std::to_string(wanted) + " " + what + " bytes";
}

}  // namespace

void EncodeBatch(const WriteBatch& batch, std::string* out) {
  size_t size = 4;
  for (const Entry& e : batch) size += 9 + e.key.size() + e.value.size();
  out->reserve(out->size() + size);
  PutFixed32(out, static_cast<uint32_t>(batch.size()));
  for (const Entry& e : batch) {
    out->push_back(static_cast<char>(e.op));
    PutFixed32(out, static_cast<uint32_t>(e.key.size()));
    out->append(e.key);
    PutFixed32(out, static_cast<uint32_t>(e.value.size()));
    out->append(e.value);
  }
}

void AppendRecord(const WriteBatch& batch, std::string* out) {
  const size_t header_at = out->size();
  out->append(kLogRecordHeaderSize, '\0');
  EncodeBatch(batch, out);
  const size_t length = out->size() - header_at - kLogRecordHeaderSize;
  char* header = out->data() + header_at;
  EncodeFixed32(header, crypto::Crc32c(header + kLogRecordHeaderSize, length));
  EncodeFixed32(header + 4, static_cast<uint32_t>(length));
}

Status DecodeBatch(const char* data, size_t size, WriteBatch* out) {
  out->clear();
  if (size < 4) return Status::Corruption("batch: too short");
  const uint32_t count = DecodeFixed32(data);
  // An entry takes at least 9 bytes, so no more can follow than the bytes
  // allow: a garbled count must not reserve gigabytes before the first
  // entry is found missing.
  out->reserve(std::min<size_t>(count, (size - 4) / 9));
  const char* p = data + 4;
  const char* const end = data + size;
  for (uint32_t i = 0; i < count; ++i) {
    if (static_cast<size_t>(end - p) < 5) return Status::Corruption("batch: truncated entry");
    const uint8_t op = static_cast<uint8_t>(*p);
    if (op != kOpPut && op != kOpDelete) return Status::Corruption("batch: bad op");
    const uint32_t key_length = DecodeFixed32(p + 1);
    p += 5;
    if (static_cast<size_t>(end - p) < static_cast<uint64_t>(key_length) + 4) {
      return Status::Corruption("batch: truncated key");
    }
    Entry entry;
    entry.op = op;
    entry.key.assign(p, key_length);
    p += key_length;
    const uint32_t value_length = DecodeFixed32(p);
    p += 4;
    if (static_cast<size_t>(end - p) < value_length) return Status::Corruption("batch: truncated value");
    entry.value.assign(p, value_length);
    p += value_length;
    out->push_back(std::move(entry));
  }
  return Status::OK();
}

LogFile::~LogFile() {
  if (fd_ >= 0) io_->Close(fd_);
}

Status LogFile::Append(const char* payload, size_t size) {
  // Header and payload go out in one write, so that a crash leaves at worst
  // one torn record at the tail, which replay ignores.
  record_.resize(kLogRecordHeaderSize + size);
  EncodeFixed32(record_.data(), crypto::Crc32c(payload, size));
  EncodeFixed32(record_.data() + 4, static_cast<uint32_t>(size));
  if (size > 0) std::memcpy(record_.data() + kLogRecordHeaderSize, payload, size);

  Status s = WriteFully(io_, fd_, record_.data(), record_.size(), "wal write: ");
  // A large batch must not pin its size in memory for the log's lifetime.
  if (record_.capacity() > (1u << 20)) std::string().swap(record_);
  return s;
}

Status LogFile::AppendFramed(const char* records, size_t size) {
  return WriteFully(io_, fd_, records, size, "wal write: ");
}

Status LogFile::Sync() {
  if (io_->Fdatasync(fd_) != 0) return WalError("wal fdatasync: ");
  return Status::OK();
}

Status OpenLogForAppend(FileIo* io, const std::string& path, std::unique_ptr<LogFile>* out) {
  int fd = io->Open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) return Status::Corruption("wal open " + path + ": " + std::strerror(errno));
  *out = std::make_unique<LogFile>(io, fd, path);
  return Status::OK();
}

const char* LogEndName(LogEnd end) {
  switch (end) {
    case LogEnd::kCleanEnd:
      return "clean end";
    case LogEnd::kTornHeader:
      return "torn header";
    case LogEnd::kOversized:
      return "length over 64 MiB";
    case LogEnd::kShortPayload:
      return "short payload";
    case LogEnd::kChecksumMismatch:
      return "checksum mismatch";
    case LogEnd::kBadBatch:
      return "undecodable batch";
    case LogEnd::kReadError:
      return "read error";
  }
  return "unknown";
}

Status LogReader::Open(FileIo* io, const std::string& path, std::unique_ptr<LogReader>* out) {
  int fd = io->Open(path.c_str(), O_RDONLY | O_CLOEXEC, 0);
  if (fd < 0) {
    const int error = errno;
    std::string message = "wal open " + path + ": " + std::strerror(error);
    if (error == ENOENT) return Status::NotFound(std::move(message));
    return Status::Corruption(std::move(message));
  }
  out->reset(new LogReader(io, fd));
  return Status::OK();
}

LogReader::~LogReader() { io_->Close(fd_); }

bool LogReader::Stop(LogEnd end, std::string detail) {
  ended_ = true;
  end_ = end;
  end_offset_ = offset_;
  end_detail_ = std::move(detail);
  // A payload of up to 64 MiB must not stay pinned after the last record.
  std::string().swap(payload_);
  return false;
}

bool LogReader::Next(WriteBatch* batch) {
  if (ended_) return false;
  // Every damaged record ends the reading the same way: it is the torn tail
  // of a crash, or the log cannot be trusted past it. Nothing is repaired.
  char header[kLogRecordHeaderSize];
  int error = 0;
  const size_t got = ReadFully(io_, fd_, header, sizeof(header), &error);
  if (error != 0) return Stop(LogEnd::kReadError, std::strerror(error));
  if (got == 0) return Stop(LogEnd::kCleanEnd, "");
  if (got < sizeof(header)) return Stop(LogEnd::kTornHeader, OfBytes(got, sizeof(header), "header"));
  const uint32_t crc = DecodeFixed32(header);
  const uint32_t length = DecodeFixed32(header + 4);
  if (length > kMaxLogRecordPayload) return Stop(LogEnd::kOversized, "length " + std::to_string(length));
  // Bounded by the check above, so a garbled length never asks for more.
  payload_.resize(length);
  const size_t payload_got = ReadFully(io_, fd_, payload_.data(), length, &error);
  if (error != 0) return Stop(LogEnd::kReadError, std::strerror(error));
  if (payload_got != length) return Stop(LogEnd::kShortPayload, OfBytes(payload_got, length, "payload"));
  const uint32_t actual = crypto::Crc32c(payload_.data(), length);
  if (actual != crc) {
    char detail[64];
    std::snprintf(detail, sizeof(detail), "stored 0x%08x, computed 0x%08x", crc, actual);
    return Stop(LogEnd::kChecksumMismatch, detail);
  }
  Status s = DecodeBatch(payload_.data(), length, batch);
  if (!s.ok()) return Stop(LogEnd::kBadBatch, s.message());
  record_offset_ = offset_;
  record_length_ = length;
  offset_ += kLogRecordHeaderSize + length;
  return true;
}

Status ReplayLog(FileIo* io, const std::string& path, const std::function<void(WriteBatch&&)>& apply) {
  std::unique_ptr<LogReader> reader;
  Status s = LogReader::Open(io, path, &reader);
  // A missing log has nothing to replay.
  if (s.IsNotFound()) return Status::OK();
  if (!s.ok()) return s;
  WriteBatch batch;
  while (reader->Next(&batch)) {
    apply(std::move(batch));
    batch = WriteBatch();
  }
  if (reader->end() == LogEnd::kReadError) {
    return Status::Corruption("wal read " + path + ": " + reader->end_detail());
  }
  return Status::OK();
}

}  // namespace kandb::lsm
