#ifndef KANDB_LSM_STATE_DIR_H_
#define KANDB_LSM_STATE_DIR_H_

// The rules by which a state directory is read at open, in one place for
// the engine and for the operator's inspector: which names count as log
// and table files, which tables are orphans, and where file numbering
// resumes.

#include <cstdint>
#include <string>
#include <vector>

#include "common/status.h"
#include "lsm/file_io.h"
#include "lsm/filename.h"
#include "lsm/manifest.h"

namespace kandb::lsm {

struct StateFile {
  std::string name;  // as listed, without the directory
  uint64_t size = 0;
  // The errno of a stat that failed for a reason of the file's own (a link
  // that loops, say); size is then unknown. 0 when the stat succeeded.
  int stat_error = 0;
  FileKind kind = FileKind::kOther;
  uint64_t number = 0;  // for logs and tables
};

// One listing of a state directory.
class StateDirectory {
 public:
  // Lists `dir` and stats every entry for its size. A directory that
  // cannot be listed to its end fails: an incomplete listing would pass
  // live files for absent ones. A file removed between the listing and its
  // stat is left out. An entry whose stat fails otherwise is listed all
  // the same, without a size (stat_error): whoever opens it reports what
  // that open meets, in the open's own words ("wal open ...", "sst open
  // ..."), and an entry nobody opens (an orphan table, a stranger) costs
  // nothing. Failure: "list " + dir + ": " + strerror.
  static Status List(FileIo* io, const std::string& dir, StateDirectory* out);

  // Every entry, sorted by name.
  const std::vector<StateFile>& files() const { return files_; }

  // The numbers of one kind, ascending and unique. A name counts by its
  // prefix and digits alone, so "wal-1.log" beside "wal-000001.log" is one
  // log, and a leftover "sst-9.sst.tmp" is table 9.
  std::vector<uint64_t> Numbers(FileKind kind) const;

  // The listed table numbers that `manifest` does not name: tables of a
  // flush or compaction that never reached its manifest, which open
  // deletes (under their canonical names).
  std::vector<uint64_t> OrphanTables(const ManifestState& manifest) const;

  // `next_file` raised past every listed log and table number: files made
  // after the last manifest rewrite may carry numbers at or past it.
  uint64_t NextFileAfter(uint64_t next_file) const;

 private:
  std::vector<StateFile> files_;
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_STATE_DIR_H_
