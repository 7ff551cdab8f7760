// The read path: the read view, point lookups and range scans.

#include <utility>

#include "lsm/db.h"
#include "lsm/memtable.h"
#include "lsm/scan_iterator.h"
#include "lsm/table.h"

namespace kandb::lsm {

ReadView LsmDb::CaptureReadView() {
  ReadView view;
  MutexLock lock(&db_mutex_);
  view.memtables.reserve(1 + imm_.size());
  view.memtables.push_back(mem_);
  for (auto it = imm_.rbegin(); it != imm_.rend(); ++it) view.memtables.push_back(*it);
  view.tables = table_readers_;
  return view;
}

Status LsmDb::Get(const std::string& key, std::string* value, bool* found) {
  const ReadView view = CaptureReadView();
  *found = false;
  uint8_t op = 0;
  std::string stored;
  // The first source that knows the key decides, newest first; a deletion
  // marker hides every older version.
  for (const std::shared_ptr<MemTable>& mem : view.memtables) {
    if (mem->Lookup(key, &op, &stored)) {
      if (op == kOpPut) {
        *value = std::move(stored);
        *found = true;
      }
      return Status::OK();
    }
  }
  for (const std::shared_ptr<SstReader>& table : view.tables) {
    bool in_table = false;
    Status s = table->Get(key, &in_table, &op, &stored);
    if (!s.ok()) return s;
    if (in_table) {
      if (op == kOpPut) {
        *value = std::move(stored);
        *found = true;
      }
      return Status::OK();
    }
  }
  return Status::OK();
}

Status LsmDb::Scan(const std::string& start, const std::string& end, uint32_t limit,
                   std::vector<Entry>* out) {
  out->clear();
  ScanIterator it(CaptureReadView(), start, end);
  Status s = it.Init();
  if (!s.ok()) return s;
  while (it.Valid() && out->size() < limit) {
    out->push_back(Entry{kOpPut, it.key(), it.value()});
    s = it.Next();
    if (!s.ok()) return s;
  }
  return Status::OK();
}

}  // namespace kandb::lsm
