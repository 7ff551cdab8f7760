// The engine's file formats byte for byte, and where reading stops when a
// file is damaged.

#include <unistd.h>

#include <algorithm>

#include <gtest/gtest.h>

#include "common/coding.h"
#include "common/test_util.h"
#include "crypto/bloom.h"
#include "crypto/crc32c.h"
#include "lsm/fault_injection.h"
#include "lsm/filename.h"
#include "lsm/log.h"
#include "lsm/manifest.h"
#include "lsm/table.h"
#include "lsm/table_builder.h"

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
std::string Encoded(const WriteBatch& batch) {
  std::string s;
  EncodeBatch(batch, &s);
  return s;
}
// A log record as the log frames it, built independently of LogFile.
std::string Frame(const std::string& payload) {
  std::string s;
  PutFixed32(&s, crypto::Crc32c(payload.data(), payload.size()));
  PutFixed32(&s, static_cast<uint32_t>(payload.size()));
  return s + payload;
}
std::string Record(uint8_t op, const std::string& key, const std::string& value) {
  std::string s(1, static_cast<char>(op));
  PutFixed32(&s, static_cast<uint32_t>(key.size()));
  s += key;
  PutFixed32(&s, static_cast<uint32_t>(value.size()));
  return s + value;
}
std::string IndexEntry(const std::string& key, uint64_t offset) {
  std::string s;
  PutFixed32(&s, static_cast<uint32_t>(key.size()));
  s += key;
  PutFixed64(&s, offset);
  return s;
}
// A table footer with a right CRC and magic.
std::string Footer(uint64_t index_offset, uint64_t index_size, uint64_t filter_offset, uint64_t filter_size,
                   uint64_t entry_count) {
  std::string s;
  for (uint64_t v : {index_offset, index_size, filter_offset, filter_size, entry_count}) PutFixed64(&s, v);
  PutFixed32(&s, crypto::Crc32c(s.data(), 40));
  return s + "\x37\x37\x27\x46\xe6\x16\xb6\x06";  // 0x6B616E646273737
}

// A table as the writer lays it out, built independently of it: records,
// index, filter, then (with checksums) one CRC-32C per run of 16 records
// and the trailer, then the footer.
std::string HandBuiltTable(const std::vector<Entry>& entries, bool with_checksums) {
  std::string data, index, block;
  crypto::BloomFilter bloom(entries.size(), 10);
  size_t run_start = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i % 16 == 0) index += IndexEntry(entries[i].key, data.size());
    data += Record(entries[i].op, entries[i].key, entries[i].value);
    bloom.Add(entries[i].key);
    if (i % 16 == 15 || i + 1 == entries.size()) {
      PutFixed32(&block, crypto::Crc32c(data.data() + run_start, data.size() - run_start));
      run_start = data.size();
    }
  }
  const std::string filter = bloom.Serialize();
  std::string checksums;
  if (with_checksums) {
    checksums = block;
    PutFixed32(&checksums, crypto::Crc32c(index.data(), index.size()));
    PutFixed32(&checksums, crypto::Crc32c(filter.data(), filter.size()));
    PutFixed64(&checksums, block.size() / 4);
    PutFixed64(&checksums, block.size());
    PutFixed32(&checksums, crypto::Crc32c(checksums.data(), checksums.size()));
    checksums += "crcbdnak";  // 0x6B616E6462637263
  }
  return data + index + filter + checksums +
         Footer(data.size(), index.size(), data.size() + index.size(), filter.size(), entries.size());
}

// Keys "k" + byte(i) + "x" (bytes above 0x7f sort last); every seventh
// entry a deletion, every fiftieth value larger than small read buffers.
std::vector<Entry> MakeEntries(int n) {
  std::vector<Entry> entries;
  for (int i = 0; i < n; ++i) {
    const std::string key = std::string("k") + static_cast<char>(i) + "x";
    if (i % 7 == 3) {
      entries.push_back(Del(key));
    } else {
      entries.push_back(Put(key, i % 50 == 0 ? std::string(10000, static_cast<char>('a' + i % 26)) : std::string("v").append(std::to_string(i))));
    }
  }
  return entries;
}

class FormatTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kandb::testing::MakeTempDir("format");
    log_ = LogFileName(dir_, 1);
    sst_ = TableFileName(dir_, 7);
  }
  void TearDown() override { kandb::testing::RemoveTree(dir_); }

  void AppendBatches(const std::vector<WriteBatch>& batches) {
    std::unique_ptr<LogFile> log;
    ASSERT_TRUE(OpenLogForAppend(&io_, log_, &log).ok());
    for (const WriteBatch& b : batches) {
      const std::string payload = Encoded(b);
      ASSERT_TRUE(log->Append(payload.data(), payload.size()).ok());
    }
  }
  std::vector<WriteBatch> Replay() {
    std::vector<WriteBatch> out;
    Status s = ReplayLog(&io_, log_, [&out](WriteBatch&& b) { out.push_back(std::move(b)); });
    EXPECT_TRUE(s.ok()) << s.ToString();
    return out;
  }
  Status OpenTable(std::shared_ptr<SstReader>* reader) {
    Status s = SstReader::Open(&io_, sst_, reader);
    EXPECT_EQ(*reader == nullptr, !s.ok());
    return s;
  }
  std::shared_ptr<SstReader> OpenTableOrDie() {
    std::shared_ptr<SstReader> reader;
    Status s = OpenTable(&reader);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return reader;
  }
  // Every entry from the first, or the error that stopped the iteration.
  static std::vector<Entry> ReadAll(const SstReader& reader, size_t buffer, std::string* error = nullptr) {
    std::vector<Entry> out;
    auto it = reader.NewIterator(buffer);
    Status s = it->Seek("");
    for (; s.ok() && it->Valid(); s = it->Next()) out.push_back(Entry{it->op(), it->key(), it->value()});
    if (error != nullptr) *error = s.message();
    EXPECT_TRUE(s.ok() || error != nullptr) << s.ToString();
    EXPECT_TRUE(s.ok() || !it->Valid());
    return out;
  }
  // Get's outcome as text: "absent", "op:value", or the error.
  static std::string Lookup(const SstReader& reader, const std::string& key) {
    bool found = false;
    uint8_t op = 0;
    std::string value;
    Status s = reader.Get(key, &found, &op, &value);
    if (!s.ok()) return s.message();
    return found ? std::to_string(op) + ":" + value : "absent";
  }

  std::string dir_, log_, sst_;
  FaultInjectingFileIo io_;
};

TEST(FileNameTest, NamesAndPrefixOnlyParsing) {
  EXPECT_EQ(TableFileName("/d", 5), "/d/sst-000005.sst");
  EXPECT_EQ(TableFileName("/d", 1234567), "/d/sst-1234567.sst");
  EXPECT_EQ(LogFileName("/d", 42), "/d/wal-000042.log");
  EXPECT_EQ(TempFileName(ManifestFileName("/d")), "/d/MANIFEST.tmp");
  const struct {
    const char* name;
    FileKind kind;
    uint64_t number;
  } cases[] = {
      {"wal-000003.log", FileKind::kLog, 3}, {"sst-1234567.sst", FileKind::kTable, 1234567},
      // Whatever follows the digits is not compared.
      {"wal-7.tmp", FileKind::kLog, 7},      {"sst-000009.sst.tmp", FileKind::kTable, 9},
      {"MANIFEST", FileKind::kOther, 99},    {"wal-.log", FileKind::kOther, 99},
      {"sst-x.sst", FileKind::kOther, 99},   {"xwal-1.log", FileKind::kOther, 99},
  };
  for (const auto& c : cases) {
    uint64_t n = 99;
    EXPECT_EQ(ParseFileName(c.name, &n), c.kind) << c.name;
    EXPECT_EQ(n, c.number) << c.name;
  }
}

TEST(BatchTest, LayoutAndDecodeErrors) {
  EXPECT_EQ(Encoded({Put("k", "vv"), Del("ab")}),
            Bytes({2, 0, 0, 0,                                // count
                   1, 1, 0, 0, 0, 'k', 2, 0, 0, 0, 'v', 'v',  // put k -> vv
                   2, 2, 0, 0, 0, 'a', 'b', 0, 0, 0, 0}));    // delete ab, value length 0
  const WriteBatch batch = {Put("", ""), Put(std::string("\0\xff", 2), std::string(70000, 'z')), Del("k")};
  const std::string enc = Encoded(batch);
  WriteBatch out = {Put("stale", "")};
  ASSERT_TRUE(DecodeBatch(enc.data(), enc.size(), &out).ok());
  EXPECT_EQ(out, batch);

  // Count 2 with three entries encoded: the third is ignored.
  std::string three = Encoded({Put("a", "1"), Put("b", "2"), Put("c", "3")});
  EncodeFixed32(three.data(), 2);
  ASSERT_TRUE(DecodeBatch(three.data(), three.size(), &out).ok());
  EXPECT_EQ(out, (WriteBatch{Put("a", "1"), Put("b", "2")}));

  const struct {
    std::string bytes;
    const char* message;
  } cases[] = {
      {Bytes({1, 0, 0}), "batch: too short"},
      {Bytes({1, 0, 0, 0, 1, 0, 0, 0}), "batch: truncated entry"},
      {Bytes({1, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0}), "batch: bad op"},
      {Bytes({1, 0, 0, 0, 1, 3, 0, 0, 0, 'a', 'b'}), "batch: truncated key"},
      {Bytes({1, 0, 0, 0, 1, 1, 0, 0, 0, 'a', 0, 0}), "batch: truncated key"},  // value length cut
      {Bytes({1, 0, 0, 0, 1, 0xff, 0xff, 0xff, 0xff, 'a', 'b', 'c', 'd'}), "batch: truncated key"},  // no wrap
      {Bytes({1, 0, 0, 0, 1, 1, 0, 0, 0, 'a', 2, 0, 0, 0, 'v'}), "batch: truncated value"},
      {Bytes({2, 0, 0, 0, 1, 1, 0, 0, 0, 'a', 0, 0, 0, 0, 9}), "batch: truncated entry"},
  };
  for (const auto& c : cases) {
    Status s = DecodeBatch(c.bytes.data(), c.bytes.size(), &out);
    EXPECT_TRUE(s.IsCorruption()) << c.message;
    EXPECT_EQ(s.message(), c.message);
  }
}

TEST_F(FormatTest, LogRecordIsCrcLengthPayloadAndReopenAppends) {
  const std::string check = "123456789";  // CRC-32C 0xE3069283
  for (const std::string& payload : {check, std::string()}) {
    std::unique_ptr<LogFile> log;
    ASSERT_TRUE(OpenLogForAppend(&io_, log_, &log).ok());
    ASSERT_TRUE(log->Append(payload.data(), payload.size()).ok());
  }
  EXPECT_EQ(ReadFileOrEmpty(log_), Bytes({0x83, 0x92, 0x06, 0xe3, 9, 0, 0, 0}) + check + std::string(8, '\0'));
}

// Each damaged record sits between good ones: reading stops at it, and
// nothing after it is applied. ReplayLog and the inspector's LogReader agree.
TEST_F(FormatTest, LogReadingStopsAtTheFirstDamagedRecord) {
  AppendBatches({{Put("a", "1")}});
  const std::string good = ReadFileOrEmpty(log_);
  const uint64_t g = good.size();
  std::string flipped = good;
  flipped[g - 1] ^= 0x10;
  const struct {
    std::string bytes;
    size_t records;
    LogEnd end;
    uint64_t offset;
    std::string detail;
  } cases[] = {
      {"", 0, LogEnd::kCleanEnd, 0, ""},
      {good + good, 2, LogEnd::kCleanEnd, 2 * g, ""},
      {good + good.substr(0, 3), 1, LogEnd::kTornHeader, g, "3 of 8 header bytes"},
      {good + good.substr(0, g - 1), 1, LogEnd::kShortPayload, g,
       std::to_string(g - 9) + " of " + std::to_string(g - 8) + " payload bytes"},
      {good + flipped + good, 1, LogEnd::kChecksumMismatch, g, "stored 0x"},
      // One over 64 MiB, followed by enough bytes not to look torn.
      {good + Bytes({0, 0, 0, 0, 0x01, 0x00, 0x00, 0x04}) + std::string(64, 'x') + good, 1, LogEnd::kOversized, g,
       "length 67108865"},
      {good + Frame("") + good, 1, LogEnd::kBadBatch, g, "batch: too short"},
      {good + Frame(Bytes({1, 0, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0})) + good, 1, LogEnd::kBadBatch, g,
       "batch: bad op"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(LogEndName(c.end));
    WriteFileOrDie(log_, c.bytes);
    EXPECT_EQ(Replay(), std::vector<WriteBatch>(c.records, WriteBatch{Put("a", "1")}));
    std::unique_ptr<LogReader> reader;
    ASSERT_TRUE(LogReader::Open(&io_, log_, &reader).ok());
    WriteBatch batch;
    for (size_t i = 0; i < c.records; ++i) {
      ASSERT_TRUE(reader->Next(&batch));
      EXPECT_EQ(reader->record_offset(), i * g);
      EXPECT_EQ(reader->record_length(), g - kLogRecordHeaderSize);
    }
    EXPECT_FALSE(reader->Next(&batch));
    EXPECT_FALSE(reader->Next(&batch)) << "a reader that ended stays ended";
    EXPECT_EQ(reader->end(), c.end) << LogEndName(reader->end());
    EXPECT_EQ(reader->end_offset(), c.offset);
    const bool prefix = c.end == LogEnd::kChecksumMismatch;
    EXPECT_EQ(prefix ? reader->end_detail().substr(0, c.detail.size()) : reader->end_detail(), c.detail);
  }
  EXPECT_STREQ(LogEndName(LogEnd::kOversized), "length over 64 MiB");

  // Exactly 64 MiB is accepted: zeros (a sparse file) decode as count 0.
  const std::string zeros(kMaxLogRecordPayload, '\0');
  std::string header;
  PutFixed32(&header, crypto::Crc32c(zeros.data(), zeros.size()));
  PutFixed32(&header, kMaxLogRecordPayload);
  WriteFileOrDie(log_, header);
  ASSERT_EQ(::truncate(log_.c_str(), kLogRecordHeaderSize + kMaxLogRecordPayload), 0);
  EXPECT_EQ(Replay(), std::vector<WriteBatch>(1));
}

TEST_F(FormatTest, LogFailuresCarryThePathOrSystemError) {
  int calls = 0;
  EXPECT_TRUE(ReplayLog(&io_, log_, [&calls](WriteBatch&&) { ++calls; }).ok());  // missing: nothing to replay
  EXPECT_EQ(calls, 0);
  std::unique_ptr<LogReader> reader;
  EXPECT_EQ(LogReader::Open(&io_, log_, &reader).message(), "wal open " + log_ + ": No such file or directory");
  WriteFileOrDie(dir_ + "/plain", "x");
  const std::string bad = dir_ + "/plain/wal-000001.log";
  Status s = ReplayLog(&io_, bad, [](WriteBatch&&) {});
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.message(), "wal open " + bad + ": Not a directory");

  std::unique_ptr<LogFile> log;
  ASSERT_TRUE(OpenLogForAppend(&io_, log_, &log).ok());
  const std::string payload = Encoded({Put("a", "1")});
  ASSERT_TRUE(log->Append(payload.data(), payload.size()).ok());
  ASSERT_TRUE(log->Sync().ok());
  EXPECT_EQ(io_.count(FileOp::kWrite), 1u);  // one write per record
  EXPECT_EQ(io_.count(FileOp::kFdatasync), 1u);
  io_.FailNth(FileOp::kWrite, 1);
  EXPECT_EQ(log->Append(payload.data(), payload.size()).message(), "wal write: Input/output error");
  io_.FailNth(FileOp::kFdatasync, 1);
  EXPECT_EQ(log->Sync().message(), "wal fdatasync: Input/output error");
  log.reset();

  // A read that fails is not the end of the log: what it could not read
  // may be acknowledged, so replay fails rather than stopping quietly.
  io_.FailNth(FileOp::kRead, 2);
  ASSERT_TRUE(LogReader::Open(&io_, log_, &reader).ok());
  WriteBatch batch;
  EXPECT_FALSE(reader->Next(&batch));
  EXPECT_EQ(reader->end(), LogEnd::kReadError);
  EXPECT_EQ(reader->end_detail(), "Input/output error");
  io_.FailNth(FileOp::kRead, 3);
  EXPECT_EQ(ReplayLog(&io_, log_, [](WriteBatch&&) {}).ToString(),
            "Corruption: wal read " + log_ + ": Input/output error");
  EXPECT_EQ(Replay().size(), 1u);
}

// The writer's bytes, built here independently of it, and what a reader
// makes of them, with the checksum block and, as every table written
// before the block existed, without it.
TEST_F(FormatTest, TableLayoutWithAndWithoutChecksums) {
  std::vector<Entry> big;  // crosses the write buffer several times
  for (int i = 0; i < 600; ++i) big.push_back(Put("key" + std::to_string(100000 + i), std::string(1500, 'a' + i % 26)));
  for (const std::vector<Entry>& entries : {std::vector<Entry>(), MakeEntries(17), big}) {
    SCOPED_TRACE(std::to_string(entries.size()) + " entries");
    const std::string checked = HandBuiltTable(entries, true);
    ASSERT_TRUE(WriteTable(&io_, sst_, entries).ok());
    EXPECT_TRUE(ReadFileOrEmpty(sst_) == checked);
    EXPECT_NE(::access(TempFileName(sst_).c_str(), F_OK), 0);
    // A merge's output, whose count is known only at the end, and written
    // through short writes: the same bytes.
    io_.set_short_writes(true);
    std::unique_ptr<TableBuilder> builder;
    ASSERT_TRUE(TableBuilder::Open(&io_, sst_, TableBuilder::kUnknownCount, &builder).ok());
    for (const Entry& e : entries) ASSERT_TRUE(builder->Add(e.op, e.key, e.value).ok());
    ASSERT_TRUE(builder->Finish().ok());
    io_.set_short_writes(false);
    EXPECT_TRUE(ReadFileOrEmpty(sst_) == checked);

    for (bool with_checksums : {true, false}) {
      WriteFileOrDie(sst_, HandBuiltTable(entries, with_checksums));
      auto reader = OpenTableOrDie();
      EXPECT_EQ(reader->has_checksums(), with_checksums);
      EXPECT_EQ(reader->entry_count(), entries.size());
      EXPECT_EQ(reader->index_entries(), (entries.size() + 15) / 16);
      EXPECT_EQ(ReadAll(*reader, 4096), entries);
      for (const Entry& e : entries) EXPECT_EQ(Lookup(*reader, e.key), std::to_string(e.op) + ":" + e.value);
    }
  }
  // The smallest table: a 52-byte footer alone.
  WriteFileOrDie(sst_, Footer(0, 0, 0, 0, 0));
  auto reader = OpenTableOrDie();
  EXPECT_EQ(reader->entry_count(), 0u);
  EXPECT_TRUE(ReadAll(*reader, 4096).empty());
  EXPECT_EQ(Lookup(*reader, "k"), "absent");
}

TEST_F(FormatTest, TableGetAndSeekAcrossIndexIntervals) {
  const std::vector<Entry> entries = MakeEntries(200);
  for (bool with_checksums : {true, false}) {
    WriteFileOrDie(sst_, HandBuiltTable(entries, with_checksums));
    auto reader = OpenTableOrDie();
    for (size_t buffer : {size_t{1}, size_t{64}, kCompactionReadBuffer}) {
      EXPECT_EQ(ReadAll(*reader, buffer), entries) << "buffer " << buffer;
    }
    auto it = reader->NewIterator(32);
    for (size_t i = 0; i < entries.size(); ++i) {
      const Entry& e = entries[i];
      EXPECT_EQ(Lookup(*reader, e.key), std::to_string(e.op) + ":" + e.value) << i;  // deletions too
      EXPECT_EQ(Lookup(*reader, e.key.substr(0, 2)), "absent");
      ASSERT_TRUE(it->Seek(e.key.substr(0, 2)).ok());  // just below
      ASSERT_TRUE(it->Valid());
      EXPECT_EQ(it->key(), e.key);
      ASSERT_TRUE(it->Seek(e.key + '\0').ok());  // just above
      ASSERT_EQ(it->Valid(), i + 1 < entries.size());
      if (it->Valid()) {
        EXPECT_EQ(it->key(), entries[i + 1].key);
      }
    }
    ASSERT_TRUE(it->Seek("a").ok());  // below the first key
    EXPECT_EQ(it->key(), entries[0].key);
    ASSERT_TRUE(it->Seek("l").ok());  // above the last key
    EXPECT_FALSE(it->Valid());
  }
}

// One flipped bit at every byte of a checked table: opening names the
// damaged block, and damage in the records fails exactly the reads that
// reach its run, naming the run's offset; every other read returns the
// right bytes. No read ever returns wrong bytes with success.
TEST_F(FormatTest, EveryFlippedBitIsFoundOrHarmless) {
  std::vector<Entry> entries = MakeEntries(40);  // three runs
  entries[0].value = "v0";
  const std::string good = HandBuiltTable(entries, true);
  WriteFileOrDie(sst_, good);
  std::vector<uint64_t> runs;
  SstReader::Layout layout;
  {
    auto reader = OpenTableOrDie();
    layout = reader->layout();
    for (const auto& entry : reader->index()) runs.push_back(entry.second);
  }
  ASSERT_EQ(runs.size(), 3u);
  const uint64_t footer = good.size() - kTableFooterSize;
  const uint64_t trailer = footer - kTableChecksumTrailerSize;
  // What opening says of damage past the records, by where it lies.
  const struct {
    uint64_t end;
    std::string message;
  } regions[] = {
      {layout.filter_offset, "sst index checksum mismatch: " + sst_},
      {layout.checksum_offset, "sst filter checksum mismatch: " + sst_},
      {trailer, "sst checksum block mismatch: " + sst_},
      {trailer + 8, "sst checksum block mismatch: " + sst_},  // the index and filter checksums
      {trailer + 24, "sst bad checksum trailer: " + sst_},     // run count, block size
      {trailer + 28, "sst checksum block mismatch: " + sst_},  // the trailer's own checksum
      {footer, "sst bad checksum trailer: " + sst_},           // its magic
      {footer + 44, "sst footer crc mismatch"},
      {footer + 52, "sst bad magic"},
  };
  for (uint64_t at = 0; at < good.size(); ++at) {
    SCOPED_TRACE("byte " + std::to_string(at));
    std::string bad = good;
    bad[at] ^= static_cast<char>(1 << (at % 8));
    WriteFileOrDie(sst_, bad);
    std::shared_ptr<SstReader> reader;
    Status s = SstReader::Open(&io_, sst_, &reader);
    if (at >= layout.index_offset) {
      size_t r = 0;
      while (at >= regions[r].end) ++r;
      EXPECT_TRUE(s.IsCorruption());
      EXPECT_EQ(s.message(), regions[r].message);
      continue;
    }
    ASSERT_TRUE(s.ok()) << s.ToString();
    const size_t run = std::upper_bound(runs.begin(), runs.end(), at) - runs.begin() - 1;
    const std::string error = "sst checksum mismatch: " + sst_ + " at offset " + std::to_string(runs[run]);
    for (size_t buffer : {size_t{1}, size_t{4096}}) {
      std::string got;
      EXPECT_EQ(ReadAll(*reader, buffer, &got), std::vector<Entry>(entries.begin(), entries.begin() + 16 * run));
      EXPECT_EQ(got, error);
    }
    for (size_t i = 0; i < entries.size(); ++i) {
      EXPECT_EQ(Lookup(*reader, entries[i].key), i / 16 == run ? error : std::to_string(entries[i].op) + ":" +
                                                                           entries[i].value);
    }
  }
}

TEST_F(FormatTest, DamagedTablesAreRefusedWithTheExactReason) {
  std::shared_ptr<SstReader> reader;
  EXPECT_EQ(OpenTable(&reader).message(), "sst open " + sst_ + ": No such file or directory");
  ASSERT_TRUE(WriteTable(&io_, sst_, MakeEntries(20)).ok());
  const std::string good = ReadFileOrEmpty(sst_);
  auto flip = [&good](size_t footer_byte) {
    std::string bad = good;
    bad[good.size() - 52 + footer_byte] ^= 0x04;
    return bad;
  };
  const std::string data = Record(kOpPut, "abc", "1");
  const std::string entry = IndexEntry("abc", 0);
  const struct {
    std::string file;
    std::string message;
  } cases[] = {
      {std::string(51, '\0'), "sst too small: " + sst_},
      {flip(0), "sst footer crc mismatch"},
      {flip(39), "sst footer crc mismatch"},
      {flip(43), "sst footer crc mismatch"},
      {flip(44), "sst bad magic"},
      {flip(51), "sst bad magic"},
      {Footer(0, 1ull << 40, 0, 0, 0), "sst: unexpected EOF"},
      // Fewer than 4 bytes left in the index; then fewer than key + 12.
      {data + entry + "\x01\x00\x00" + Footer(data.size(), entry.size() + 3, 0, 0, 1), "sst index truncated"},
      {data + entry.substr(0, entry.size() - 1) + Footer(data.size(), entry.size() - 1, 0, 0, 1), "sst index truncated"},
  };
  for (const auto& c : cases) {
    WriteFileOrDie(sst_, c.file);
    Status s = OpenTable(&reader);
    EXPECT_TRUE(s.IsCorruption()) << c.message;
    EXPECT_EQ(s.message().substr(0, c.message.size()), c.message);
  }

  // Records of a table without checksums: a bad op fails the read that
  // meets it; a data region that ends inside the second record's header,
  // key or value is truncated.
  const std::vector<Entry> entries = MakeEntries(20);
  std::string file = HandBuiltTable(entries, false);
  file[Record(entries[0].op, entries[0].key, entries[0].value).size()] = 3;
  WriteFileOrDie(sst_, file);
  reader = OpenTableOrDie();
  std::string error;
  EXPECT_EQ(ReadAll(*reader, 4096, &error).size(), 1u);
  EXPECT_EQ(error, "sst bad record op");
  EXPECT_EQ(Lookup(*reader, entries[1].key), "sst bad record op");
  const std::string first = Record(kOpPut, "a", "1");
  const std::string last = Record(kOpPut, "b", "22");
  for (size_t cut : {size_t{1}, size_t{4}, last.size() - 2}) {
    const std::string region = first + last.substr(0, last.size() - cut);
    const std::string index = IndexEntry("a", 0);
    WriteFileOrDie(sst_, region + index + Footer(region.size(), index.size(), 0, 0, 2));
    reader = OpenTableOrDie();
    EXPECT_EQ(ReadAll(*reader, 4096, &error).size(), 1u);
    EXPECT_EQ(error, "sst record truncated") << cut;
  }
}

TEST_F(FormatTest, TableWriteFailuresLeaveNoFileBehind) {
  const std::vector<Entry> entries = MakeEntries(40);
  const std::string tmp = TempFileName(sst_);
  const struct {
    FileOp op;
    std::string message;
  } cases[] = {
      {FileOp::kOpen, "sst create: " + tmp},
      {FileOp::kWrite, "sst write: Input/output error"},
      {FileOp::kFsync, "sst fsync failed"},
      {FileOp::kClose, "sst close: Input/output error"},
      {FileOp::kRename, "sst rename failed"},
  };
  for (const auto& c : cases) {
    io_.FailNth(c.op, 1);
    EXPECT_EQ(WriteTable(&io_, sst_, entries).message(), c.message);
    EXPECT_NE(::access(tmp.c_str(), F_OK), 0) << c.message;
    EXPECT_NE(::access(sst_.c_str(), F_OK), 0) << c.message;
  }
  // The table is in place once renamed; a failed directory sync is still
  // reported, since a crash could lose the name.
  io_.FailNth(FileOp::kFsync, 2);
  EXPECT_EQ(WriteTable(&io_, sst_, entries).message(), "dir sync " + dir_ + ": Input/output error");
  ASSERT_TRUE(WriteTable(&io_, sst_, entries).ok());
  auto reader = OpenTableOrDie();
  io_.FailNth(FileOp::kPread, 1);
  EXPECT_EQ(Lookup(*reader, entries[5].key), "sst pread: Input/output error");

  // A merge's filter is built from the keys read back before the tail.
  ASSERT_EQ(::unlink(sst_.c_str()), 0);
  std::unique_ptr<TableBuilder> builder;
  ASSERT_TRUE(TableBuilder::Open(&io_, sst_, TableBuilder::kUnknownCount, &builder).ok());
  for (const Entry& e : entries) ASSERT_TRUE(builder->Add(e.op, e.key, e.value).ok());
  io_.FailNth(FileOp::kPread, 1);
  EXPECT_EQ(builder->Finish().message(), "sst read back: Input/output error");
  EXPECT_NE(::access(tmp.c_str(), F_OK), 0);
  EXPECT_NE(::access(sst_.c_str(), F_OK), 0);
}

TEST_F(FormatTest, ManifestLinesAndWhereReadingStops) {
  const std::string path = ManifestFileName(dir_);
  WriteFileOrDie(TempFileName(path), std::string(500, '#'));  // a longer leftover is truncated
  ASSERT_TRUE(WriteManifest(&io_, dir_, ManifestState{42, {9, 3, 1234567}}).ok());
  EXPECT_EQ(ReadFileOrEmpty(path), "next_file 42\nsst 9\nsst 3\nsst 1234567\n");

  // Each read starts from next_file 77 and table 1, to show what it keeps.
  const struct {
    const char* text;  // null: no manifest
    uint64_t next_file;
    std::vector<uint64_t> tables;
  } cases[] = {
      {"next_file 42\nsst 9\nsst 3\nsst 1234567\n", 42, {9, 3, 1234567}},
      {nullptr, 77, {1}},
      {"", 77, {}},
      {"next_file 9\nsst 4\nfoo 7\nsst 2\n", 9, {4, 2}},  // unknown words skipped
      {"next_file 9\nsst 4\nsst abc\nsst 2\nnext_file 30\n", 9, {4}},
      {"next_file 9 sst 4\nnext_file 12\n", 12, {4}},  // the last next_file wins
      {"sst 4\nwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwwww 5\nsst 6\n", 77, {4}},  // words over 31 derail
  };
  for (const auto& c : cases) {
    if (c.text == nullptr) {
      ASSERT_EQ(::unlink(path.c_str()), 0);
    } else {
      WriteFileOrDie(path, c.text);
    }
    ManifestState state{77, {1}};
    bool exists = c.text == nullptr;
    ASSERT_TRUE(ReadManifest(&io_, dir_, &state, &exists).ok());
    EXPECT_EQ(exists, c.text != nullptr);
    EXPECT_EQ(state.next_file, c.next_file) << (c.text ? c.text : "missing");
    EXPECT_EQ(state.sst_files, c.tables) << (c.text ? c.text : "missing");
  }

  // Whatever step fails, the manifest in force stays as it was: a manifest
  // that is not whole and on disk is never renamed into place.
  const struct {
    FileOp op;
    uint64_t nth;
    std::string message;
    const char* in_force;
  } failures[] = {
      {FileOp::kOpen, 1, "manifest create: No space left on device", "next_file 3\nsst 2\n"},
      {FileOp::kWrite, 1, "manifest write: No space left on device", "next_file 3\nsst 2\n"},
      {FileOp::kFsync, 1, "manifest fsync: No space left on device", "next_file 3\nsst 2\n"},
      {FileOp::kClose, 1, "manifest close: No space left on device", "next_file 3\nsst 2\n"},
      {FileOp::kRename, 1, "manifest rename failed", "next_file 3\nsst 2\n"},
      // The rename happened; only its durability is in doubt.
      {FileOp::kFsync, 2, "dir sync " + dir_ + ": No space left on device", "next_file 8\nsst 7\nsst 2\n"},
  };
  for (const auto& f : failures) {
    WriteFileOrDie(path, "next_file 3\nsst 2\n");
    io_.FailNth(f.op, f.nth, "", ENOSPC);
    bool published = true;
    EXPECT_EQ(WriteManifest(&io_, dir_, ManifestState{8, {7, 2}}, &published).message(), f.message);
    EXPECT_EQ(published, f.nth == 2);
    EXPECT_EQ(ReadFileOrEmpty(path), f.in_force) << f.message;
    io_.ClearAll();
  }
  io_.ResetCounts();
  ASSERT_TRUE(WriteManifest(&io_, dir_, ManifestState{8, {7, 2}}).ok());
  EXPECT_EQ(io_.count(FileOp::kFsync), 2u);  // the file, then the directory
  io_.FailNth(FileOp::kRead, 1);
  ManifestState unread;
  bool unread_exists = false;
  EXPECT_EQ(ReadManifest(&io_, dir_, &unread, &unread_exists).message(), "manifest read: Input/output error");
  ManifestState state;
  bool exists = false;
  EXPECT_EQ(ReadManifest(&io_, path, &state, &exists).message(), "manifest open: Not a directory");
}

}  // namespace
}  // namespace kandb::lsm
