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

namespace kandb::lsm {

// Largest payload a log record may carry; longer lengths end a replay.
inline constexpr uint32_t kMaxLogRecordPayload = 0x4000000;
inline constexpr size_t kLogRecordHeaderSize = 8;

// Appends the encoding of `batch` to *out.
void EncodeBatch(const WriteBatch& batch, std::string* out);
// Clears *out and decodes; messages "batch: too short", "batch: truncated
// entry", "batch: bad op", "batch: truncated key", "batch: truncated value".
Status DecodeBatch(const char* data, size_t size, WriteBatch* out);

// An open write-ahead log file, appended to by one writer at a time.
// Closes its descriptor on destruction.
class LogFile {
 public:
  LogFile(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}
  ~LogFile();
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  const std::string& path() const { return path_; }

  // Frames `payload` as one record and writes it whole (never syncs).
  // Failure: "wal write: " + strerror.
  Status Append(const char* payload, size_t size);
  // One fdatasync. Failure: "wal fdatasync: " + strerror.
  Status Sync();

 private:
  const int fd_;
  const std::string path_;
  std::string record_;  // reused framing buffer
};

// Opens (creating, appending, mode 0644) the log at `path`.
// Failure: "wal open " + path + ": " + strerror.
Status OpenLogForAppend(const std::string& path, std::unique_ptr<LogFile>* out);

// Replays the log at `path` from the start, handing each decoded batch to
// `apply`. A missing file is an empty log. The first short, oversized,
// checksum-failing or undecodable record ends the replay silently. Fails
// only when the file exists and cannot be opened ("wal open ...").
Status ReplayLog(const std::string& path, const std::function<void(WriteBatch&&)>& apply);

}  // namespace kandb::lsm

#endif  // KANDB_LSM_LOG_H_
