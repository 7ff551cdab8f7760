// The engine's statistics: what the write path and the background thread
// count, and the snapshot LsmDb::GetStats hands out.

#include "lsm/db_stats.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "common/fault_log.h"
#include "lsm/db.h"
#include "lsm/log.h"
#include "lsm/memtable.h"
#include "lsm/table.h"

namespace kandb::lsm {

void EngineStats::NoteFault(const std::string& text) {
  // The engine's failures carry the system's error text, and every sync
  // failure names the sync ("wal fdatasync: ", "sst fsync failed",
  // "manifest fsync: ", "dir sync "); a full disk shows as ENOSPC's text
  // whichever call met it, and counts as that first.
  if (text.find(std::strerror(ENOSPC)) != std::string::npos) {
    ++disk_full_faults;
  } else if (text.find("sync") != std::string::npos) {
    ++sync_faults;
  } else {
    ++other_faults;
  }
  last_fault = text;
}

Status LsmDb::SyncLog() {
  const auto began = std::chrono::steady_clock::now();
  Status s = wal_->Sync();
  ++stats_.syncs;
  stats_.sync_latency.Add(static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - began).count()));
  return s;
}

void LsmDb::NoteWriteGroup(size_t batches, size_t logged) {
  ++stats_.write_groups;
  stats_.batches += batches;
  stats_.max_group_size = std::max<uint64_t>(stats_.max_group_size, batches);
  stats_.log_bytes += logged;
}

void LsmDb::ReportStorageFault(const std::string& text) {
  {
    MutexLock lock(&db_mutex_);
    stats_.NoteFault(text);
  }
  ReportFault("storage", text);
}

void LsmDb::ReportWriteFault(const std::string& text) {
  stats_.NoteFault(text);
  ReportFault("storage", text);
}

EngineStats LsmDb::GetStats() {
  MutexLock lock(&db_mutex_);
  EngineStats out = stats_;
  out.memtable_bytes = mem_->ApproximateBytes();
  for (const std::shared_ptr<MemTable>& imm : imm_) out.memtable_bytes += imm->ApproximateBytes();
  out.immutable_memtables = imm_.size();
  out.table_files = table_readers_.size();
  for (const std::shared_ptr<SstReader>& table : table_readers_) out.table_bytes += table->layout().file_size;
  return out;
}

}  // namespace kandb::lsm
