#ifndef KANDB_LSM_MANIFEST_H_
#define KANDB_LSM_MANIFEST_H_

// The manifest: a text file naming the live table files and the next file
// number. Lines: "next_file %llu\n", then "sst %llu\n" per live table in
// the engine's order (newest first).

#include <cstdint>
#include <string>
#include <vector>

#include "common/status.h"
#include "lsm/file_io.h"

namespace kandb::lsm {

struct ManifestState {
  uint64_t next_file = 1;
  std::vector<uint64_t> sst_files;
};

// Publishes `state` as the manifest: writes MANIFEST.tmp, fsyncs and closes
// it, renames it over MANIFEST and fsyncs the directory, checking every
// result. A manifest that is not whole and on disk is never put in place:
// a failure before the rename leaves the previous MANIFEST in force and
// *published false. When only the directory sync fails, the new manifest
// is in place but may not survive a crash, and *published is true.
// Failures: "manifest create: ", "manifest write: ", "manifest fsync: ",
// "manifest close: " + strerror; "manifest rename failed"; "dir sync ...".
Status WriteManifest(FileIo* io, const std::string& dir, const ManifestState& state,
                     bool* published = nullptr);

// Reads MANIFEST. A missing file succeeds with *exists false and *state
// untouched; otherwise sst_files is replaced by what the file lists, and a
// malformed line ends the reading quietly (an empty file names no table).
// Failures: "manifest open: " + strerror, "manifest read: " + strerror.
Status ReadManifest(FileIo* io, const std::string& dir, ManifestState* state, bool* exists);

}  // namespace kandb::lsm

#endif  // KANDB_LSM_MANIFEST_H_
