#ifndef KANDB_LSM_LOG_H_
#define KANDB_LSM_LOG_H_

// Write batches and the write-ahead log.
//
// Batch: count (u32), then per entry op (u8), key_length (u32), key,
// value_length (u32), value. Log record: crc32c of the payload (u32),
// payload length (u32), payload. Records follow each other with no padding.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "lsm/entry.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

// Largest payload a log record may carry; longer lengths end a replay.
inline constexpr uint32_t kMaxLogRecordPayload = 0x4000000;
inline constexpr size_t kLogRecordHeaderSize = 8;

// Appends the encoding of `batch` to *out.
void EncodeBatch(const WriteBatch& batch, std::string* out);
// Appends `batch` to *out as one whole log record (crc, length, encoded
// batch), encoded in place, ready for LogFile::AppendFramed.
void AppendRecord(const WriteBatch& batch, std::string* out);
// Clears *out and decodes; messages "batch: too short", "batch: truncated
// entry", "batch: bad op", "batch: truncated key", "batch: truncated value".
Status DecodeBatch(const char* data, size_t size, WriteBatch* out);

// An open write-ahead log file, appended to by one writer at a time.
// Closes its descriptor on destruction.
class LogFile {
 public:
  LogFile(FileIo* io, int fd, std::string path) : io_(io), fd_(fd), path_(std::move(path)) {}
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  const std::string& path() const { return path_; }

  // Frames `payload` as one record and writes it whole (never syncs).
  // Failure: "wal write: " + strerror.
  Status Append(const char* payload, size_t size);
  // Writes records already framed by AppendRecord, all in one write call
  // in the usual case (never syncs). Failure: "wal write: " + strerror.
  Status AppendFramed(const char* records, size_t size);
  // One fdatasync. Failure: "wal fdatasync: " + strerror.
  Status Sync();

 private:
  FileIo* const io_;
  const int fd_;
  const std::string path_;
  std::string record_;  // reused framing buffer
};

// Opens (creating, appending, mode 0644) the log at `path`.
// Failure: "wal open " + path + ": " + strerror.
Status OpenLogForAppend(FileIo* io, const std::string& path, std::unique_ptr<LogFile>* out);

// Why reading a log came to an end. Only kCleanEnd means the file ended
// exactly after its last record; every other reason is a torn tail or
// damage, and the records after that point are never read.
enum class LogEnd {
  kCleanEnd,          // end of file at a record boundary
  kTornHeader,        // fewer than 8 header bytes before end of file
  kOversized,         // header length above kMaxLogRecordPayload
  kShortPayload,      // the file ends inside the payload
  kChecksumMismatch,  // the payload's crc32c differs from the header's
  kBadBatch,          // the payload passed its checksum but does not decode
  kReadError,         // a read failed with a system error
};

// "clean end", "torn header", "length over 64 MiB", "short payload",
// "checksum mismatch", "undecodable batch", "read error".
const char* LogEndName(LogEnd end);

// Reads a log record by record from the start, and says where and why the
// reading ended. This is the one reader of log files: replay at open and
// the operator's inspection both go through it. Never writes to the file.
class LogReader {
 public:
  // Opens `path` read-only. A missing file fails with code 3 (NotFound),
  // any other failure with code 2; both "wal open " + path + ": " + strerror.
  static Status Open(FileIo* io, const std::string& path, std::unique_ptr<LogReader>* out);
  ~LogReader();
  LogReader(const LogReader&) = delete;
  LogReader& operator=(const LogReader&) = delete;

  // Decodes the next record into *batch and returns true, or returns false
  // once reading has ended (and on every later call); end() then tells why.
  bool Next(WriteBatch* batch);

  // File offset and payload length of the record Next last returned.
  uint64_t record_offset() const { return record_offset_; }
  uint32_t record_length() const { return record_length_; }

  // Valid once Next has returned false. end_offset() is where the record
  // that ended the reading starts, which is also the number of bytes of
  // good records before it; end_detail() adds what was found there, e.g.
  // "3 of 8 header bytes" or the batch decoder's message.
  LogEnd end() const { return end_; }
  uint64_t end_offset() const { return end_offset_; }
  const std::string& end_detail() const { return end_detail_; }

 private:
  LogReader(FileIo* io, int fd) : io_(io), fd_(fd) {}
  // Records why reading ended at `offset_`; later Next calls return false.
  bool Stop(LogEnd end, std::string detail);

  FileIo* const io_;
  const int fd_;
  uint64_t offset_ = 0;  // start of the next record
  uint64_t record_offset_ = 0;
  uint32_t record_length_ = 0;
  bool ended_ = false;
  LogEnd end_ = LogEnd::kCleanEnd;
  uint64_t end_offset_ = 0;
  std::string end_detail_;
  std::string payload_;  // reused across records
};

// Replays the log at `path` from the start with a LogReader, handing each
// decoded batch to `apply`. A missing file is an empty log. The first short,
// oversized, checksum-failing or undecodable record ends the replay
// silently: it is the torn tail of a crash. Fails when the file exists and
// cannot be opened ("wal open ..."), and when a read fails ("wal read " +
// path + ": " + strerror): what could not be read may hold acknowledged
// batches, so it must not pass for the end of the log.
Status ReplayLog(FileIo* io, const std::string& path, const std::function<void(WriteBatch&&)>& apply);

}  // namespace kandb::lsm

#endif  // KANDB_LSM_LOG_H_
