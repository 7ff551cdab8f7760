// Fuzz target: reading the manifest from arbitrary file contents.
//
// Whatever state is read must be written back and read again unchanged, so
// that the manifest the engine rewrites after open names the same tables.

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/fuzz_util.h"
#include "lsm/filename.h"
#include "lsm/manifest.h"

namespace {

using kandb::lsm::ManifestState;

// A state directory inside the scratch directory, made on first use.
std::string StateDir(const char* name) {
  const std::string dir = kandb::fuzzing::ScratchDir() + "/" + name;
  mkdir(dir.c_str(), 0755);
  return dir;
}

// The input is placed as the manifest of one directory, and the state read
// from it is rewritten into the other.
const std::string& InputDir() {
  static const std::string dir = StateDir("input");
  return dir;
}
const std::string& RewriteDir() {
  static const std::string dir = StateDir("rewrite");
  return dir;
}

std::vector<std::string> MakeSeeds() {
  const std::string& dir = RewriteDir();
  std::vector<ManifestState> states(3);
  states[1].next_file = 7;
  states[1].sst_files = {6, 3};
  states[2].next_file = 1234568;
  states[2].sst_files = {1234567, 999999, 42, 5};
  std::vector<std::string> seeds;
  for (const ManifestState& state : states) {
    if (!kandb::lsm::WriteManifest(kandb::lsm::DefaultFileIo(), dir, state).ok()) std::abort();
    seeds.push_back(kandb::testing::ReadFileOrEmpty(kandb::lsm::ManifestFileName(dir)));
  }
  // A record of a later version between two tables is skipped.
  seeds.push_back("next_file 9\nsst 8\ncompacted_at 1700000000\nsst 2\n");
  return seeds;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  kandb::fuzzing::MaybeWriteSeeds(*argc, *argv, MakeSeeds);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  kandb::fuzzing::WriteInputFile(kandb::lsm::ManifestFileName(InputDir()), data, size);
  ManifestState state;
  bool exists = false;
  KANDB_FUZZ_CHECK(kandb::lsm::ReadManifest(kandb::lsm::DefaultFileIo(), InputDir(), &state, &exists).ok());
  KANDB_FUZZ_CHECK(exists);
  // Each table takes at least "sst 0": the number may run straight into the
  // next word, but the word needs white space before its number.
  KANDB_FUZZ_CHECK(state.sst_files.size() <= size / 5);

  KANDB_FUZZ_CHECK(kandb::lsm::WriteManifest(kandb::lsm::DefaultFileIo(), RewriteDir(), state).ok());
  ManifestState again;
  again.next_file = 0;
  bool again_exists = false;
  KANDB_FUZZ_CHECK(kandb::lsm::ReadManifest(kandb::lsm::DefaultFileIo(), RewriteDir(), &again, &again_exists).ok());
  KANDB_FUZZ_CHECK(again_exists);
  KANDB_FUZZ_CHECK(again.next_file == state.next_file);
  KANDB_FUZZ_CHECK(again.sst_files == state.sst_files);
  return 0;
}
