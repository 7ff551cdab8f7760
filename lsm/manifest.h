#ifndef KANDB_LSM_MANIFEST_H_
#define KANDB_LSM_MANIFEST_H_

// The manifest: a text file naming the live table files and the next file
// number. Lines: "next_file %llu\n", then "sst %llu\n" per live table in
// the engine's order (newest first).

#include <cstdint>
#include <string>
#include <vector>

#include "common/status.h"

namespace kandb::lsm {

struct ManifestState {
  uint64_t next_file = 1;
  std::vector<uint64_t> sst_files;
};

// Writes MANIFEST.tmp, flushes and syncs it, and renames it over MANIFEST.
// Failures: "manifest create: " + strerror, "manifest rename failed".
Status WriteManifest(const std::string& dir, const ManifestState& state);

// Reads MANIFEST. A missing file succeeds with *exists false and *state
// untouched; otherwise sst_files is replaced by what the file lists, and a
// malformed line ends the reading quietly. Failure: "manifest open: " + strerror.
Status ReadManifest(const std::string& dir, ManifestState* state, bool* exists);

}  // namespace kandb::lsm

#endif  // KANDB_LSM_MANIFEST_H_
