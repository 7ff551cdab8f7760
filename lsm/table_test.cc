#include "lsm/table.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <gtest/gtest.h>

#include "common/coding.h"
#include "common/test_util.h"
#include "crypto/bloom.h"
#include "crypto/crc32c.h"
#include "lsm/fault_injection.h"
#include "lsm/filename.h"

namespace kandb::lsm {
namespace {

using kandb::testing::ReadFileOrEmpty;
using kandb::testing::WriteFileOrDie;

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

// A footer with a right CRC and magic, built independently of the writer.
std::string Footer(uint64_t index_offset, uint64_t index_size, uint64_t filter_offset,
                   uint64_t filter_size, uint64_t entry_count) {
  std::string s;
  PutFixed64(&s, index_offset);
  PutFixed64(&s, index_size);
  PutFixed64(&s, filter_offset);
  PutFixed64(&s, filter_size);
  PutFixed64(&s, entry_count);
  PutFixed32(&s, crypto::Crc32c(s.data(), 40));
  return s + "\x37\x37\x27\x46\xe6\x16\xb6\x06";
}

// Keys "k" + byte(i) + "x": bytes above 0x7f check that keys compare as
// unsigned. Every seventh entry is a deletion; every fiftieth value is
// larger than the small read buffers used below.
std::vector<Entry> MakeEntries(int n) {
  std::vector<Entry> entries;
  for (int i = 0; i < n; ++i) {
    Entry e;
    e.key = std::string("k") + static_cast<char>(i) + "x";
    if (i % 7 == 3) {
      e.op = kOpDelete;
    } else {
      e.value = i % 50 == 0 ? std::string(10000, static_cast<char>('a' + i % 26)) : "v" + std::to_string(i);
    }
    entries.push_back(e);
  }
  return entries;
}

class TableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = kandb::testing::MakeTempDir("table");
    path_ = TableFileName(dir_, 7);
  }
  void TearDown() override { kandb::testing::RemoveTree(dir_); }

  std::shared_ptr<SstReader> OpenOrDie() {
    std::shared_ptr<SstReader> reader;
    Status s = SstReader::Open(path_, &reader);
    EXPECT_TRUE(s.ok()) << s.ToString();
    return reader;
  }

  Status OpenStatus() {
    std::shared_ptr<SstReader> reader;
    Status s = SstReader::Open(path_, &reader);
    EXPECT_EQ(reader == nullptr, !s.ok());
    return s;
  }

  // Every entry from the first, through an iterator with `buffer` bytes.
  std::vector<Entry> ReadAll(const SstReader& reader, size_t buffer) {
    std::vector<Entry> out;
    auto it = reader.NewIterator(buffer);
    Status s = it->Seek("");
    for (; s.ok() && it->Valid(); s = it->Next()) out.push_back(Entry{it->op(), it->key(), it->value()});
    EXPECT_TRUE(s.ok()) << s.ToString();
    return out;
  }

  // Get's outcome as text: "absent", the op and value, or the error.
  static std::string Lookup(const SstReader& reader, const std::string& key) {
    bool found = false;
    uint8_t op = 0;
    std::string value;
    Status s = reader.Get(key, &found, &op, &value);
    if (!s.ok()) return s.message();
    return found ? std::to_string(op) + ":" + value : "absent";
  }

  static bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

  std::string dir_;
  std::string path_;
};

TEST_F(TableTest, LayoutIsRecordsIndexFilterFooter) {
  const std::vector<Entry> entries = MakeEntries(33);
  ASSERT_TRUE(WriteTable(path_, entries).ok());

  std::string data;
  std::string index;
  crypto::BloomFilter filter(33, 10);
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i == 0 || i == 16 || i == 32) index += IndexEntry(entries[i].key, data.size());
    data += Record(entries[i].op, entries[i].key, entries[i].value);
    filter.Add(entries[i].key);
  }
  const std::string filter_block = filter.Serialize();
  // 330 bits round up to 42 bytes; 10 bits per key give 6 probes.
  ASSERT_EQ(filter_block.substr(0, 5), std::string("\x50\x01\x00\x00\x06", 5));
  ASSERT_EQ(filter_block.size(), 5u + 42u);

  const std::string footer = Footer(data.size(), index.size(), data.size() + index.size(), filter_block.size(), 33);
  const std::string file = ReadFileOrEmpty(path_);
  ASSERT_EQ(file.size(), data.size() + index.size() + filter_block.size() + 52);
  EXPECT_EQ(file.substr(0, data.size()), data);
  EXPECT_EQ(file.substr(data.size(), index.size()), index);
  EXPECT_EQ(file.substr(data.size() + index.size(), filter_block.size()), filter_block);
  EXPECT_EQ(file.substr(file.size() - 52), footer);
  EXPECT_FALSE(Exists(TempFileName(path_)));

  auto reader = OpenOrDie();
  EXPECT_EQ(reader->entry_count(), 33u);
  EXPECT_EQ(reader->index_entries(), 3u);

  // Seventeen entries: records 0 and 16 are indexed.
  ASSERT_TRUE(WriteTable(path_, MakeEntries(17)).ok());
  reader = OpenOrDie();
  EXPECT_EQ(reader->index_entries(), 2u);
  EXPECT_EQ(reader->entry_count(), 17u);
}

TEST_F(TableTest, GetAndSeekFindEveryRecordAcrossIndexIntervals) {
  const std::vector<Entry> entries = MakeEntries(200);
  ASSERT_TRUE(WriteTable(path_, entries).ok());
  auto reader = OpenOrDie();

  for (size_t buffer : {size_t{1}, size_t{64}, size_t{4096}, kCompactionReadBuffer}) {
    EXPECT_EQ(ReadAll(*reader, buffer), entries) << "buffer " << buffer;
  }

  auto it = reader->NewIterator(32);
  for (size_t i = 0; i < entries.size(); ++i) {
    const Entry& e = entries[i];
    // Deletions are handed out too, with op 2.
    EXPECT_EQ(Lookup(*reader, e.key), std::to_string(e.op) + ":" + e.value) << i;
    // Just below the key (a proper prefix of it) and just above it.
    EXPECT_EQ(Lookup(*reader, e.key.substr(0, 2)), "absent");
    ASSERT_TRUE(it->Seek(e.key.substr(0, 2)).ok());
    ASSERT_TRUE(it->Valid());
    EXPECT_EQ(it->key(), e.key);
    ASSERT_TRUE(it->Seek(e.key + '\0').ok());
    EXPECT_EQ(it->Valid(), i + 1 < entries.size());
    if (i + 1 < entries.size()) {
      EXPECT_EQ(it->key(), entries[i + 1].key);
    }
  }

  ASSERT_TRUE(it->Seek("a").ok());  // below the first key
  ASSERT_TRUE(it->Valid());
  EXPECT_EQ(it->key(), entries[0].key);
  ASSERT_TRUE(it->Seek("l").ok());  // above the last key
  EXPECT_FALSE(it->Valid());
  EXPECT_TRUE(it->Next().ok());
  EXPECT_FALSE(it->Valid());
}

TEST_F(TableTest, LookupsReadOneStretchAndTheFilterSparesMostAbsentKeys) {
  const std::vector<Entry> entries = MakeEntries(200);
  ASSERT_TRUE(WriteTable(path_, entries).ok());
  auto reader = OpenOrDie();
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);

  EXPECT_EQ(Lookup(*reader, entries[37].key), "1:v37");
  EXPECT_EQ(io.count(FileOp::kPread), 1u);

  io.ResetCounts();
  for (int i = 0; i < 200; ++i) {
    EXPECT_EQ(Lookup(*reader, "absent" + std::to_string(i)), "absent");
  }
  EXPECT_LT(io.count(FileOp::kPread), 20u);
}

TEST_F(TableTest, EmptyTablesOpenAndHoldNothing) {
  ASSERT_TRUE(WriteTable(path_, {}).ok());
  auto reader = OpenOrDie();
  EXPECT_EQ(reader->entry_count(), 0u);
  EXPECT_TRUE(ReadAll(*reader, 4096).empty());

  // The smallest table: a footer alone, with zero sizes.
  WriteFileOrDie(path_, Footer(0, 0, 0, 0, 0));
  reader = OpenOrDie();
  EXPECT_EQ(reader->entry_count(), 0u);
  EXPECT_EQ(reader->index_entries(), 0u);
  EXPECT_TRUE(ReadAll(*reader, 4096).empty());
  EXPECT_EQ(Lookup(*reader, "k"), "absent");
}

TEST_F(TableTest, DamagedFootersAreRefused) {
  Status s = OpenStatus();
  EXPECT_EQ(s.message(), "sst open " + path_ + ": No such file or directory");

  WriteFileOrDie(path_, std::string(51, '\0'));
  s = OpenStatus();
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.message().rfind("sst too small: " + path_, 0), 0u) << s.message();

  ASSERT_TRUE(WriteTable(path_, MakeEntries(20)).ok());
  const std::string good = ReadFileOrEmpty(path_);
  const size_t footer = good.size() - 52;
  for (size_t byte : {0, 9, 17, 31, 39, 40, 43}) {
    std::string bad = good;
    bad[footer + byte] ^= 0x04;
    WriteFileOrDie(path_, bad);
    EXPECT_EQ(OpenStatus().message(), "sst footer crc mismatch") << byte;
  }
  for (size_t byte : {44, 51}) {
    std::string bad = good;
    bad[footer + byte] ^= 0x01;
    WriteFileOrDie(path_, bad);
    EXPECT_EQ(OpenStatus().message(), "sst bad magic") << byte;
  }
  // A block said to reach past the end of the file.
  WriteFileOrDie(path_, Footer(0, 1ull << 40, 0, 0, 0));
  EXPECT_EQ(OpenStatus().message(), "sst: unexpected EOF");
}

TEST_F(TableTest, TruncatedIndexBlocksAreRefused) {
  const std::string data = Record(kOpPut, "abc", "1");
  const std::string entry = IndexEntry("abc", 0);
  // Fewer than 4 bytes left; then fewer than key_length + 12.
  for (const std::string& index : {entry + "\x01\x00\x00", entry.substr(0, entry.size() - 1)}) {
    WriteFileOrDie(path_, data + index + Footer(data.size(), index.size(), 0, 0, 1));
    EXPECT_EQ(OpenStatus().message(), "sst index truncated");
  }
  const std::string index = entry;
  WriteFileOrDie(path_, data + index + Footer(data.size(), index.size(), 0, 0, 1));
  auto reader = OpenOrDie();
  EXPECT_EQ(ReadAll(*reader, 4096), (std::vector<Entry>{Entry{kOpPut, "abc", "1"}}));
}

TEST_F(TableTest, DamagedRecordsFailTheReadThatMeetsThem) {
  const std::vector<Entry> entries = MakeEntries(3);
  ASSERT_TRUE(WriteTable(path_, entries).ok());
  std::string file = ReadFileOrEmpty(path_);
  const size_t second = Record(entries[0].op, entries[0].key, entries[0].value).size();
  file[second] = 3;
  WriteFileOrDie(path_, file);
  auto reader = OpenOrDie();
  auto it = reader->NewIterator(4096);
  ASSERT_TRUE(it->Seek("").ok());
  EXPECT_EQ(it->key(), entries[0].key);
  Status s = it->Next();
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.message(), "sst bad record op");
  EXPECT_FALSE(it->Valid());
  EXPECT_EQ(Lookup(*reader, entries[1].key), "sst bad record op");

  // The data region ends (at the index) inside the second record's value,
  // inside its key, and inside its header.
  const std::string first = Record(kOpPut, "a", "1");
  const std::string last = Record(kOpPut, "b", "22");
  for (size_t cut : {size_t{1}, size_t{4}, last.size() - 2}) {
    const std::string data = first + last.substr(0, last.size() - cut);
    const std::string index = IndexEntry("a", 0);
    WriteFileOrDie(path_, data + index + Footer(data.size(), index.size(), 0, 0, 2));
    reader = OpenOrDie();
    it = reader->NewIterator(4096);
    ASSERT_TRUE(it->Seek("").ok());
    EXPECT_EQ(it->Next().message(), "sst record truncated") << cut;
    EXPECT_FALSE(it->Valid());
  }
}

TEST_F(TableTest, InjectedFailuresLeaveNoFileBehind) {
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);
  const std::vector<Entry> entries = MakeEntries(40);
  const std::string tmp = TempFileName(path_);

  io.FailNth(FileOp::kOpen, 1, ".tmp");
  Status s = WriteTable(path_, entries);
  EXPECT_TRUE(s.IsCorruption());
  EXPECT_EQ(s.message(), "sst create: " + tmp);

  struct Case {
    FileOp op;
    const char* message;
  } cases[] = {
      {FileOp::kWrite, "sst write: Input/output error"},
      {FileOp::kFsync, "sst fsync failed"},
      {FileOp::kRename, "sst rename failed"},
  };
  for (const Case& c : cases) {
    io.FailNth(c.op, 1);
    s = WriteTable(path_, entries);
    EXPECT_TRUE(s.IsCorruption());
    EXPECT_EQ(s.message(), c.message);
    EXPECT_FALSE(Exists(tmp)) << c.message;
    EXPECT_FALSE(Exists(path_)) << c.message;
  }

  ASSERT_TRUE(WriteTable(path_, entries).ok());
  EXPECT_TRUE(Exists(path_));
  EXPECT_FALSE(Exists(tmp));
  auto reader = OpenOrDie();
  io.FailNth(FileOp::kPread, 1);
  EXPECT_EQ(Lookup(*reader, entries[5].key), "sst pread: Input/output error");
}

// Moves at most a few bytes per call, and interrupts every third call.
class ChoppyFileIo : public FileIo {
 public:
  ssize_t Write(int fd, const void* buf, size_t count) override {
    if (++calls_ % 3 == 0) return Interrupted();
    return FileIo::Write(fd, buf, std::min<size_t>(count, 1000));
  }
  ssize_t Pread(int fd, void* buf, size_t count, off_t offset) override {
    if (++calls_ % 3 == 0) return Interrupted();
    return FileIo::Pread(fd, buf, std::min<size_t>(count, 7), offset);
  }

 private:
  static ssize_t Interrupted() {
    errno = EINTR;
    return -1;
  }
  int calls_ = 0;
};

TEST_F(TableTest, PartialAndInterruptedWritesAndReadsAreContinued) {
  ChoppyFileIo io;
  ScopedFileIo install(&io);
  const std::vector<Entry> entries = MakeEntries(60);
  ASSERT_TRUE(WriteTable(path_, entries).ok());
  auto reader = OpenOrDie();
  EXPECT_EQ(ReadAll(*reader, 4096), entries);
}

}  // namespace
}  // namespace kandb::lsm
