#include "lsm/log.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <gtest/gtest.h>

#include "common/coding.h"
#include "common/test_util.h"
#include "crypto/crc32c.h"
#include "lsm/fault_injection.h"

namespace kandb::lsm {
namespace {

using kandb::testing::ReadFileOrEmpty;
using kandb::testing::WriteFileOrDie;

Entry Put(std::string key, std::string value) { return Entry{kOpPut, std::move(key), std::move(value)}; }
Entry Del(std::string key) { return Entry{kOpDelete, std::move(key), ""}; }

std::string Bytes(std::initializer_list<int> bytes) {
  std::string s;
  for (int b : bytes) s.push_back(static_cast<char>(b));
  return s;
}

std::string EncodedBatch(const WriteBatch& batch) {
  std::string s;
  EncodeBatch(batch, &s);
  return s;
}

// A record as the log frames it, built independently of LogFile.
std::string Frame(const std::string& payload, uint32_t crc) {
  std::string s;
  PutFixed32(&s, crc);
  PutFixed32(&s, static_cast<uint32_t>(payload.size()));
  return s + payload;
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kandb::testing::MakeTempDir("log");
    path_ = dir_ + "/wal-000001.log";
  }
  void TearDown() override { kandb::testing::RemoveTree(dir_); }

  void AppendBatches(const std::vector<WriteBatch>& batches) {
    std::unique_ptr<LogFile> log;
    ASSERT_TRUE(OpenLogForAppend(path_, &log).ok());
    for (const WriteBatch& b : batches) {
      std::string payload = EncodedBatch(b);
      ASSERT_TRUE(log->Append(payload.data(), payload.size()).ok());
    }
  }

  std::vector<WriteBatch> Replay() {
    std::vector<WriteBatch> out;
    Status s = ReplayLog(path_, [&out](WriteBatch&& b) { out.push_back(std::move(b)); });
    EXPECT_TRUE(s.ok()) << s.ToString();
    return out;
  }

  std::string dir_;
  std::string path_;
};

const std::vector<WriteBatch> kThree = {
    {Put("a", "1")},
    {Put("b", "2"), Del("a")},
    {Put("c", std::string(300, 'x'))},
};

TEST(BatchTest, LayoutIsCountThenOpKeyLengthKeyValueLengthValue) {
  EXPECT_EQ(EncodedBatch({Put("k", "vv"), Del("ab")}),
            Bytes({2, 0, 0, 0,                                  // count
                   1, 1, 0, 0, 0, 'k', 2, 0, 0, 0, 'v', 'v',    // put k -> vv
                   2, 2, 0, 0, 0, 'a', 'b', 0, 0, 0, 0}));      // delete ab, value length 0
  EXPECT_EQ(EncodedBatch({}), Bytes({0, 0, 0, 0}));

  WriteBatch batch = {Put("", ""), Put(std::string("\0\xff", 2), std::string(70000, 'z')), Del("k")};
  WriteBatch decoded = {Put("stale", "")};
  std::string enc = EncodedBatch(batch);
  ASSERT_TRUE(DecodeBatch(enc.data(), enc.size(), &decoded).ok());
  EXPECT_EQ(decoded, batch);
}

TEST(BatchTest, DecodeErrorsNameWhatIsMissing) {
  struct Case {
    std::string bytes;
    const char* message;
  } cases[] = {
      {"", "batch: too short"},
      {Bytes({1, 0, 0}), "batch: too short"},
      {Bytes({1, 0, 0, 0}), "batch: truncated entry"},
      {Bytes({1, 0, 0, 0, 1, 0, 0, 0}), "batch: truncated entry"},
      {Bytes({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), "batch: bad op"},
      {Bytes({1, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0}), "batch: bad op"},
      // Key of 3 announced, 2 present.
      {Bytes({1, 0, 0, 0, 1, 3, 0, 0, 0, 'a', 'b'}), "batch: truncated key"},
      // The key is whole but the value length field is missing.
      {Bytes({1, 0, 0, 0, 1, 1, 0, 0, 0, 'a', 0, 0}), "batch: truncated key"},
      {Bytes({1, 0, 0, 0, 1, 1, 0, 0, 0, 'a', 2, 0, 0, 0, 'v'}), "batch: truncated value"},
      // A huge key length must not wrap the bounds check.
      {Bytes({1, 0, 0, 0, 1, 0xff, 0xff, 0xff, 0xff, 'a', 'b', 'c', 'd'}), "batch: truncated key"},
      // Second entry is the damaged one.
      {Bytes({2, 0, 0, 0, 1, 1, 0, 0, 0, 'a', 0, 0, 0, 0, 9}), "batch: truncated entry"},
  };
  for (const Case& c : cases) {
    WriteBatch out = {Put("x", "y")};
    Status s = DecodeBatch(c.bytes.data(), c.bytes.size(), &out);
    EXPECT_TRUE(s.IsCorruption()) << c.message;
    EXPECT_EQ(s.message(), c.message);
  }
}

TEST(BatchTest, CountDecidesHowManyEntriesAreRead) {
  // Count 2 with three entries encoded: the third is ignored.
  std::string enc = EncodedBatch({Put("a", "1"), Put("b", "2"), Put("c", "3")});
  EncodeFixed32(enc.data(), 2);
  WriteBatch out;
  ASSERT_TRUE(DecodeBatch(enc.data(), enc.size(), &out).ok());
  EXPECT_EQ(out, (WriteBatch{Put("a", "1"), Put("b", "2")}));

  // Count 0: empty, whatever follows.
  std::string zero = Bytes({0, 0, 0, 0, 7, 7, 7});
  out = {Put("x", "")};
  ASSERT_TRUE(DecodeBatch(zero.data(), zero.size(), &out).ok());
  EXPECT_TRUE(out.empty());
}

TEST_F(LogTest, RecordIsCrcThenLengthThenPayloadAndReopenAppends) {
  const std::string check = "123456789";  // CRC-32C 0xE3069283
  {
    std::unique_ptr<LogFile> log;
    ASSERT_TRUE(OpenLogForAppend(path_, &log).ok());
    EXPECT_EQ(log->path(), path_);
    ASSERT_TRUE(log->Append(check.data(), check.size()).ok());
  }
  {
    std::unique_ptr<LogFile> log;
    ASSERT_TRUE(OpenLogForAppend(path_, &log).ok());
    ASSERT_TRUE(log->Append("", 0).ok());
  }
  EXPECT_EQ(ReadFileOrEmpty(path_),
            Bytes({0x83, 0x92, 0x06, 0xe3, 9, 0, 0, 0}) + check + Bytes({0, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(LogTest, AppendIsOneWritePerRecordAndNeverSyncs) {
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);
  AppendBatches(kThree);
  EXPECT_EQ(io.count(FileOp::kWrite), 3u);
  EXPECT_EQ(io.count(FileOp::kFdatasync), 0u);
  EXPECT_EQ(io.count(FileOp::kFsync), 0u);
  EXPECT_EQ(Replay(), kThree);
}

TEST_F(LogTest, MissingLogReplaysAsEmpty) {
  int calls = 0;
  Status s = ReplayLog(dir_ + "/wal-000099.log", [&calls](WriteBatch&&) { ++calls; });
  EXPECT_TRUE(s.ok());
  EXPECT_EQ(calls, 0);
}

TEST_F(LogTest, OpenFailuresNameThePath) {
  WriteFileOrDie(dir_ + "/plain", "x");
  const std::string bad = dir_ + "/plain/wal-000001.log";
  Status s = ReplayLog(bad, [](WriteBatch&&) {});
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.message(), "wal open " + bad + ": Not a directory");

  std::unique_ptr<LogFile> log;
  s = OpenLogForAppend(bad, &log);
  EXPECT_EQ(s.message(), "wal open " + bad + ": Not a directory");
  EXPECT_EQ(log, nullptr);
}

TEST_F(LogTest, TornTailIsIgnoredAndEarlierRecordsReplay) {
  AppendBatches(kThree);
  std::string bytes = ReadFileOrEmpty(path_);
  ASSERT_EQ(::truncate(path_.c_str(), static_cast<off_t>(bytes.size() - 1)), 0);
  EXPECT_EQ(Replay(), (std::vector<WriteBatch>{kThree[0], kThree[1]}));

  // A tail shorter than a header is torn too.
  WriteFileOrDie(path_, bytes.substr(0, bytes.size() - EncodedBatch(kThree[2]).size() - 3));
  EXPECT_EQ(Replay(), (std::vector<WriteBatch>{kThree[0], kThree[1]}));
}

TEST_F(LogTest, FlippedPayloadBitEndsReplayAtThatRecord) {
  AppendBatches(kThree);
  std::string bytes = ReadFileOrEmpty(path_);
  // Last byte of the second record's payload: the value length of "Del a".
  const size_t second_end = 2 * kLogRecordHeaderSize + EncodedBatch(kThree[0]).size() +
                            EncodedBatch(kThree[1]).size();
  bytes[second_end - 1] ^= 0x10;
  WriteFileOrDie(path_, bytes);
  // The third record is intact but must not be applied after a bad one.
  EXPECT_EQ(Replay(), (std::vector<WriteBatch>{kThree[0]}));
}

TEST_F(LogTest, OversizedLengthAndUndecodablePayloadEndReplay) {
  AppendBatches({kThree[0]});
  const std::string good = ReadFileOrEmpty(path_);
  // Each damaged record sits between two good ones; the one after it must
  // not be applied.
  const std::string bad_op = Bytes({1, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0});
  const std::string damaged[] = {
      // Length one over 64 MiB, followed by enough bytes not to look torn.
      Bytes({0, 0, 0, 0, 0x01, 0x00, 0x00, 0x04}) + std::string(64, 'x'),
      // Zero-length payload: its CRC (0) matches, but it does not decode.
      Frame("", 0),
      // A checksum that matches a payload with a bad op.
      Frame(bad_op, crypto::Crc32c(bad_op.data(), bad_op.size())),
  };
  for (const std::string& record : damaged) {
    WriteFileOrDie(path_, good + record + good);
    EXPECT_EQ(Replay(), (std::vector<WriteBatch>{kThree[0]}));
  }
  WriteBatch out;
  EXPECT_EQ(DecodeBatch("", 0, &out).message(), "batch: too short");
}

TEST_F(LogTest, PayloadOfExactlySixtyFourMebibytesIsAccepted) {
  // All zeros (a sparse file): a batch of count 0 followed by ignored bytes.
  const std::string payload(kMaxLogRecordPayload, '\0');
  std::string header;
  PutFixed32(&header, crypto::Crc32c(payload.data(), payload.size()));
  PutFixed32(&header, kMaxLogRecordPayload);
  WriteFileOrDie(path_, header);
  ASSERT_EQ(::truncate(path_.c_str(), kLogRecordHeaderSize + kMaxLogRecordPayload), 0);
  std::vector<WriteBatch> batches = Replay();
  ASSERT_EQ(batches.size(), 1u);
  EXPECT_TRUE(batches[0].empty());
}

TEST_F(LogTest, InjectedWriteAndSyncFailuresCarryTheSystemError) {
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);
  std::unique_ptr<LogFile> log;
  ASSERT_TRUE(OpenLogForAppend(path_, &log).ok());
  const std::string payload = EncodedBatch(kThree[0]);
  ASSERT_TRUE(log->Append(payload.data(), payload.size()).ok());
  ASSERT_TRUE(log->Sync().ok());
  EXPECT_EQ(io.count(FileOp::kFdatasync), 1u);

  io.FailNth(FileOp::kWrite, 1);
  Status s = log->Append(payload.data(), payload.size());
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.message(), "wal write: Input/output error");

  io.FailNth(FileOp::kFdatasync, 1);
  s = log->Sync();
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.message(), "wal fdatasync: Input/output error");

  // The log stays usable after a failed call.
  ASSERT_TRUE(log->Append(payload.data(), payload.size()).ok());
  log.reset();
  EXPECT_EQ(Replay(), (std::vector<WriteBatch>{kThree[0], kThree[0]}));

  io.FailNth(FileOp::kOpen, 1);
  s = OpenLogForAppend(path_, &log);
  EXPECT_EQ(s.message(), "wal open " + path_ + ": Input/output error");
}

// What a LogReader reports at the end of the log in path: the records
// read, then where and why it stopped.
struct ReaderEnd {
  size_t records = 0;
  LogEnd end = LogEnd::kCleanEnd;
  uint64_t offset = 0;
  std::string detail;
};

ReaderEnd ReadToEnd(const std::string& path) {
  ReaderEnd r;
  std::unique_ptr<LogReader> reader;
  Status s = LogReader::Open(path, &reader);
  EXPECT_TRUE(s.ok()) << s.ToString();
  if (!s.ok()) return r;
  WriteBatch batch;
  uint64_t expected_offset = 0;
  while (reader->Next(&batch)) {
    EXPECT_EQ(reader->record_offset(), expected_offset);
    expected_offset += kLogRecordHeaderSize + reader->record_length();
    ++r.records;
  }
  EXPECT_FALSE(reader->Next(&batch)) << "a reader that ended stays ended";
  r.end = reader->end();
  r.offset = reader->end_offset();
  r.detail = reader->end_detail();
  return r;
}

TEST_F(LogTest, ReaderNamesWhereAndWhyReadingEnds) {
  AppendBatches({kThree[0]});
  const std::string good = ReadFileOrEmpty(path_);
  const uint64_t g = good.size();
  const std::string bad_op = Bytes({1, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0});
  std::string flipped = good;
  flipped[kLogRecordHeaderSize] ^= 0x01;
  struct Case {
    std::string bytes;
    LogEnd end;
    uint64_t offset;
    std::string detail;
    size_t records;
  };
  const Case cases[] = {
      {"", LogEnd::kCleanEnd, 0, "", 0},
      {good + good, LogEnd::kCleanEnd, 2 * g, "", 2},
      {good + good.substr(0, 3), LogEnd::kTornHeader, g, "3 of 8 header bytes", 1},
      {good + good.substr(0, g - 1), LogEnd::kShortPayload, g,
       std::to_string(g - 9) + " of " + std::to_string(g - 8) + " payload bytes", 1},
      {good + Bytes({0, 0, 0, 0, 0x01, 0x00, 0x00, 0x04}) + good, LogEnd::kOversized, g,
       "length 67108865", 1},
      {good + flipped + good, LogEnd::kChecksumMismatch, g, "", 1},
      {good + Frame(bad_op, crypto::Crc32c(bad_op.data(), bad_op.size())) + good, LogEnd::kBadBatch,
       g, "batch: bad op", 1},
      {Frame("", 0), LogEnd::kBadBatch, 0, "batch: too short", 0},
  };
  for (const Case& c : cases) {
    WriteFileOrDie(path_, c.bytes);
    ReaderEnd r = ReadToEnd(path_);
    EXPECT_EQ(r.records, c.records) << LogEndName(c.end);
    EXPECT_EQ(r.end, c.end) << LogEndName(r.end) << " instead of " << LogEndName(c.end);
    EXPECT_EQ(r.offset, c.offset) << LogEndName(c.end);
    if (c.end == LogEnd::kChecksumMismatch) {
      EXPECT_EQ(r.detail.rfind("stored 0x", 0), 0u) << r.detail;
    } else {
      EXPECT_EQ(r.detail, c.detail) << LogEndName(c.end);
    }
  }
  EXPECT_STREQ(LogEndName(LogEnd::kOversized), "length over 64 MiB");
  EXPECT_STREQ(LogEndName(LogEnd::kTornHeader), "torn header");
}

TEST_F(LogTest, ReaderOpenTellsAMissingFileFromAnUnreadableOne) {
  std::unique_ptr<LogReader> reader;
  Status s = LogReader::Open(dir_ + "/wal-000099.log", &reader);
  EXPECT_TRUE(s.IsNotFound());
  EXPECT_EQ(s.message(), "wal open " + dir_ + "/wal-000099.log: No such file or directory");
  WriteFileOrDie(dir_ + "/plain", "x");
  s = LogReader::Open(dir_ + "/plain/wal-000001.log", &reader);
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(reader, nullptr);
}

TEST_F(LogTest, ReaderReportsAFailedReadAsAReadError) {
  AppendBatches(kThree);
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);
  io.FailNth(FileOp::kRead, 2);
  ReaderEnd r = ReadToEnd(path_);
  EXPECT_EQ(r.records, 0u);
  EXPECT_EQ(r.end, LogEnd::kReadError);
  EXPECT_EQ(r.offset, 0u);
  EXPECT_EQ(r.detail, "Input/output error");
}

// Writes at most three bytes per call and interrupts every other call, as a
// slow device or a signal would; reads likewise come back a few bytes at a
// time.
class ChoppyFileIo : public FileIo {
 public:
  ssize_t Write(int fd, const void* buf, size_t count) override {
    if (++calls_ % 2 == 1) {
      errno = EINTR;
      return -1;
    }
    return FileIo::Write(fd, buf, std::min<size_t>(count, 3));
  }
  ssize_t Read(int fd, void* buf, size_t count) override {
    return FileIo::Read(fd, buf, std::min<size_t>(count, 5));
  }

 private:
  int calls_ = 0;
};

TEST_F(LogTest, PartialAndInterruptedWritesAndReadsAreContinued) {
  ChoppyFileIo io;
  ScopedFileIo install(&io);
  AppendBatches(kThree);
  EXPECT_EQ(Replay(), kThree);
}

}  // namespace
}  // namespace kandb::lsm
