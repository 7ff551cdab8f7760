#ifndef KANDB_LSM_DB_STATS_H_
#define KANDB_LSM_DB_STATS_H_

// What the engine has done since it was opened, and what it holds now, as
// LsmDb::GetStats reports it for the live statistics of the server.

#include <cstdint>
#include <string>

#include "common/latency_histogram.h"

namespace kandb::lsm {

struct EngineStats {
  // Counters since Open.
  uint64_t write_groups = 0;    // groups a write leader logged (or tried to)
  uint64_t batches = 0;         // Write calls in those groups
  uint64_t max_group_size = 0;  // most batches in one group
  uint64_t syncs = 0;           // fdatasync calls on the log
  LatencyHistogram sync_latency;
  uint64_t log_bytes = 0;       // bytes appended to write-ahead logs
  uint64_t flushes = 0;         // memtables written to table files
  uint64_t flush_nanos = 0;     // time those flushes took, in all
  uint64_t compactions = 0;     // merges of every table file into one
  // Time those merges took, flushes made between their steps included
  // (those count in flushes and flush_nanos as well).
  uint64_t compaction_nanos = 0;
  // Faults the engine survived, by kind: the disk was full, a sync failed
  // (fdatasync of the log, fsync of a table or the manifest, a directory
  // sync), or anything else (a failed write, open, rename or unlink).
  uint64_t disk_full_faults = 0;
  uint64_t sync_faults = 0;
  uint64_t other_faults = 0;
  std::string last_fault;       // the text of the latest, empty when none

  // State at the moment of the call.
  uint64_t memtable_bytes = 0;       // approximate, active and immutable memtables
  uint64_t immutable_memtables = 0;  // full memtables waiting for flush
  uint64_t table_files = 0;
  uint64_t table_bytes = 0;

  // Counts a fault whose text is `text`, sorted into its kind.
  void NoteFault(const std::string& text);
};

}  // namespace kandb::lsm

#endif  // KANDB_LSM_DB_STATS_H_
