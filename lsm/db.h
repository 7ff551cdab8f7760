#ifndef KANDB_LSM_DB_H_
#define KANDB_LSM_DB_H_

// LsmDb: the log-structured engine under the metadata store. Every change
// goes to the write-ahead log, then to the active memtable; one background
// thread flushes full memtables to table files and merges all tables into
// one when there are too many. Any number of threads may call Write, Get
// and Scan at once.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "lsm/entry.h"

namespace kandb::lsm {

class LsmDb {
 public:
  struct Options {
    // The active memtable is switched after a write group that brings its
    // approximate size to this many bytes or more.
    uint64_t write_buffer_size = 64ull << 20;
    // A full compaction runs while more table files than this are open.
    uint64_t max_table_files = 8;
    // fdatasync the log once per write group before the memtable is touched.
    bool sync = true;
  };

  // Opens (creating the directory if needed) and recovers the engine in
  // `dir`, then starts its background thread. On success replaces *out.
  static Status Open(const std::string& dir, const Options& options, std::unique_ptr<LsmDb>* out);

  // Stops and joins the background thread and closes the log. Flushes
  // nothing: the logs hold what the memtables held.
  ~LsmDb();
  LsmDb(const LsmDb&) = delete;
  LsmDb& operator=(const LsmDb&) = delete;

  // Logs `batch` as one record (synced when Options::sync) and then makes it
  // visible as a whole. Concurrent callers share one log write group.
  Status Write(const std::vector<Entry>& batch);

  // Newest version of `key`. A missing or deleted key succeeds with *found
  // false; *value is set only when *found is true.
  Status Get(const std::string& key, std::string* value, bool* found);

  // Clears *out and fills it with the live entries of [start, end) in key
  // order (an empty end means no upper bound), at most `limit` of them.
  Status Scan(const std::string& start, const std::string& end, uint32_t limit,
              std::vector<Entry>* out);

  // Diagnostics: returns once no flush or compaction is pending (polls every 1 ms).
  void WaitForBackgroundIdle();
  uint64_t TableFileCount();
  uint64_t ImmutableMemTableCount();

  // (private members are the engine's own)
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_DB_H_
