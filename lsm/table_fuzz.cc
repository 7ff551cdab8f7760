// Fuzz target: SstReader over arbitrary file contents.
//
// The input is a whole table file, with or without its checksum block (the
// seeds have both). When it opens, the target iterates over
// every record from the start, then looks up and seeks to the keys it saw
// and to a few it did not. Damage must show as a failed Status, never as a
// crash, an endless loop or a read outside the file.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/fuzz_util.h"
#include "lsm/table.h"
#include "lsm/table_builder.h"

namespace {

using kandb::Status;
using kandb::lsm::Entry;
using kandb::lsm::SstReader;

// Lookups per input, so that a table of many tiny records stays quick.
constexpr size_t kMaxProbes = 64;

void CheckLookup(const SstReader& reader, const std::string& key) {
  bool found = true;
  uint8_t op = 0;
  std::string value;
  if (!reader.Get(key, &found, &op, &value).ok()) return;
  if (found) KANDB_FUZZ_CHECK(op == kandb::lsm::kOpPut || op == kandb::lsm::kOpDelete);

  auto it = reader.NewIterator();
  if (!it->Seek(key).ok() || !it->Valid()) return;
  KANDB_FUZZ_CHECK(it->key() >= key);
}

std::vector<std::string> MakeSeeds() {
  using kandb::lsm::kOpDelete;
  using kandb::lsm::kOpPut;
  std::vector<std::vector<Entry>> tables(4);
  tables[1] = {{kOpPut, "pd/id_alloc", std::string(8, '\x07')}};
  // 17 records give two index entries; deletion markers and empty values
  // are kept in tables.
  for (int i = 0; i < 17; i++) {
    tables[2].push_back({i % 5 == 4 ? kOpDelete : kOpPut, "pd/region/" + std::to_string(100 + i),
                         i % 5 == 4 ? "" : std::string(static_cast<size_t>(i), 'r')});
  }
  for (int i = 0; i < 40; i++) {
    tables[3].push_back({kOpPut, "k" + std::to_string(1000 + i), std::to_string(i)});
  }

  const std::string path = kandb::fuzzing::ScratchDir() + "/seed.sst";
  std::vector<std::string> seeds;
  for (const auto& entries : tables) {
    if (!kandb::lsm::WriteTable(kandb::lsm::DefaultFileIo(), path, entries).ok()) std::abort();
    seeds.push_back(kandb::testing::ReadFileOrEmpty(path));
  }
  // The last table again without its checksum block, as tables were
  // written before it existed: those are read unchecked.
  std::shared_ptr<SstReader> reader;
  if (!SstReader::Open(kandb::lsm::DefaultFileIo(), path, &reader).ok()) std::abort();
  const std::string& last = seeds.back();
  seeds.push_back(last.substr(0, reader->layout().checksum_offset) +
                  last.substr(last.size() - kandb::lsm::kTableFooterSize));
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  kandb::fuzzing::MaybeWriteSeeds(*argc, *argv, MakeSeeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string path = kandb::fuzzing::ScratchDir() + "/input.sst";
  kandb::fuzzing::WriteInputFile(path, data, size);
  std::shared_ptr<SstReader> reader;
  if (!SstReader::Open(kandb::lsm::DefaultFileIo(), path, &reader).ok()) return 0;

  // A full iteration. Every record takes at least 9 bytes, so a table that
  // yields more records than that is walking in circles.
  std::vector<std::string> keys;
  size_t records = 0;
  auto it = reader->NewIterator();
  Status s = it->Seek("");
  while (s.ok() && it->Valid()) {
    records++;
    KANDB_FUZZ_CHECK(records <= size / 9);
    KANDB_FUZZ_CHECK(it->op() == kandb::lsm::kOpPut || it->op() == kandb::lsm::kOpDelete);
    if (keys.size() < kMaxProbes) keys.push_back(it->key());
    s = it->Next();
  }

  for (const std::string& key : keys) {
    CheckLookup(*reader, key);
    CheckLookup(*reader, key + '\0');
  }
  CheckLookup(*reader, "");
  CheckLookup(*reader, std::string(3, '\xff'));
  return 0;
}
