// Fuzz target: write-batch decoding and write-ahead log replay.
//
// The first input byte picks the mode: even decodes the rest as one batch,
// odd replays the rest as the contents of a log file. Every batch that
// decodes must survive a round trip through EncodeBatch.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/coding.h"
#include "common/fuzz_util.h"
#include "crypto/crc32c.h"
#include "lsm/log.h"

namespace {

using kandb::Status;
using kandb::lsm::Entry;
using kandb::lsm::WriteBatch;

void CheckRoundTrip(const WriteBatch& batch) {
  for (const Entry& e : batch) {
    KANDB_FUZZ_CHECK(e.op == kandb::lsm::kOpPut || e.op == kandb::lsm::kOpDelete);
  }
  std::string encoded;
  kandb::lsm::EncodeBatch(batch, &encoded);
  WriteBatch again;
  KANDB_FUZZ_CHECK(kandb::lsm::DecodeBatch(encoded.data(), encoded.size(), &again).ok());
  KANDB_FUZZ_CHECK(again == batch);
}

// The decoder reserves room for the batch's count before reading the first
// entry, trusting it because the record passed its checksum; an absurd count
// is meant to end in memory exhaustion, not in a decode error. A count that
// no payload of this size could hold (every entry takes at least 9 bytes) is
// that case, and lies outside what the decoder promises.
bool CountIsPlausible(const char* payload, size_t size) {
  return size < 4 || kandb::DecodeFixed32(payload) <= size;
}

// Records that claim far more bytes than the file holds end the replay as a
// short payload, the same way whatever the claimed length; but the replay
// sizes its buffer by the claim, so lengths near 64 MiB would make every such
// execution clear 64 MiB and slow the search down a hundredfold. Claims up
// to this much past the end are kept.
constexpr size_t kShortPayloadSlack = 65536;

// Whether an input is within what the replay promises, and quick to run:
// every record whose checksum matches must carry a plausible count, and a
// record's length may overrun the end by kShortPayloadSlack at most. Walks
// the records as the replay does, up to the record where the replay stops.
bool ReplayInputIsInScope(const char* data, size_t size) {
  size_t pos = 0;
  while (size - pos >= kandb::lsm::kLogRecordHeaderSize) {
    const uint32_t crc = kandb::DecodeFixed32(data + pos);
    const uint32_t length = kandb::DecodeFixed32(data + pos + 4);
    const size_t rest = size - pos - kandb::lsm::kLogRecordHeaderSize;
    if (length > rest) {
      return length - rest <= kShortPayloadSlack || length > kandb::lsm::kMaxLogRecordPayload;
    }
    const char* payload = data + pos + kandb::lsm::kLogRecordHeaderSize;
    if (kandb::crypto::Crc32c(payload, length) != crc) return true;
    if (!CountIsPlausible(payload, length)) return false;
    pos += kandb::lsm::kLogRecordHeaderSize + length;
  }
  return true;
}

void FuzzBatch(const char* data, size_t size) {
  if (!CountIsPlausible(data, size)) return;
  WriteBatch batch;
  if (!kandb::lsm::DecodeBatch(data, size, &batch).ok()) return;
  CheckRoundTrip(batch);
}

void FuzzReplay(const char* data, size_t size) {
  if (!ReplayInputIsInScope(data, size)) return;
  const std::string path = kandb::fuzzing::ScratchDir() + "/replayed.log";
  kandb::fuzzing::WriteInputFile(path, reinterpret_cast<const uint8_t*>(data), size);
  size_t applied_bytes = 0;
  Status s = kandb::lsm::ReplayLog(kandb::lsm::DefaultFileIo(), path, [&](WriteBatch&& batch) {
    for (const Entry& e : batch) applied_bytes += 9 + e.key.size() + e.value.size();
    CheckRoundTrip(batch);
  });
  // An existing file always replays: damage only ends the replay early.
  KANDB_FUZZ_CHECK(s.ok());
  // Nothing is made up: the entries applied came out of the file.
  KANDB_FUZZ_CHECK(applied_bytes <= size);
}

std::string Tagged(char mode, const std::string& bytes) { return std::string(1, mode) + bytes; }

std::vector<std::string> MakeSeeds() {
  using kandb::lsm::kOpDelete;
  using kandb::lsm::kOpPut;
  const WriteBatch one = {{kOpPut, "pd/id_alloc", std::string("\xe9\x07\0\0\0\0\0\0", 8)}};
  const WriteBatch mixed = {{kOpPut, "pd/bootstrapped", "1"},
                            {kOpPut, "pd/store/1", "store record"},
                            {kOpDelete, "pd/region/9", ""},
                            {kOpPut, "", std::string(300, 'v')}};
  std::vector<std::string> seeds;
  for (const WriteBatch* batch : {&one, &mixed}) {
    std::string encoded;
    kandb::lsm::EncodeBatch(*batch, &encoded);
    seeds.push_back(Tagged('\0', encoded));
  }
  seeds.push_back(Tagged('\0', std::string(4, '\0')));  // count 0

  // Log files as the engine appends them: one record, several records, and
  // several records with a torn tail.
  const std::string path = kandb::fuzzing::ScratchDir() + "/seed.log";
  std::string previous;
  for (int records = 1; records <= 3; records++) {
    kandb::testing::RemoveTree(path);
    std::unique_ptr<kandb::lsm::LogFile> log;
    if (!kandb::lsm::OpenLogForAppend(kandb::lsm::DefaultFileIo(), path, &log).ok()) std::abort();
    for (int i = 0; i < records; i++) {
      std::string payload;
      kandb::lsm::EncodeBatch(i % 2 == 0 ? one : mixed, &payload);
      if (!log->Append(payload.data(), payload.size()).ok()) std::abort();
    }
    log.reset();
    previous = kandb::testing::ReadFileOrEmpty(path);
    seeds.push_back(Tagged('\1', previous));
  }
  seeds.push_back(Tagged('\1', previous.substr(0, previous.size() - 5)));
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  kandb::fuzzing::MaybeWriteSeeds(*argc, *argv, MakeSeeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const char* rest = reinterpret_cast<const char*>(data) + 1;
  if (data[0] % 2 == 0) {
    FuzzBatch(rest, size - 1);
  } else {
    FuzzReplay(rest, size - 1);
  }
  return 0;
}
