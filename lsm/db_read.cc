// The read path: the read view, point lookups and range scans.

#include <utility>

#include "lsm/db.h"
#include "lsm/memtable.h"
#include "lsm/scan_iterator.h"
#include "lsm/table.h"

namespace kandb::lsm {

void LsmDb::PublishView() {
  auto view = std::make_shared<ReadView>();
  view->memtables.reserve(1 + imm_.size());
  view->memtables.push_back(mem_);
  for (auto it = imm_.rbegin(); it != imm_.rend(); ++it) view->memtables.push_back(*it);
  view->tables = table_readers_;
  MutexLock lock(&view_mutex_);
  view_ = std::move(view);
}

std::shared_ptr<const ReadView> LsmDb::CaptureReadView() {
  MutexLock lock(&view_mutex_);
  return view_;
}

Status LsmDb::Get(const std::string& key, std::string* value, bool* found) {
  const std::shared_ptr<const ReadView> view = CaptureReadView();
  *found = false;
  uint8_t op = 0;
  std::string stored;
  // The first source that knows the key decides, newest first; a deletion
  // marker hides every older version.
  for (const std::shared_ptr<MemTable>& mem : view->memtables) {
    if (mem->Lookup(key, &op, &stored)) {
      if (op == kOpPut) {
        *value = std::move(stored);
        *found = true;
      }
      return Status::OK();
    }
  }
  for (const std::shared_ptr<SstReader>& table : view->tables) {
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
  return ForEach(start, end, limit, [out](std::string_view key, std::string_view value) {
    out->push_back(Entry{kOpPut, std::string(key), std::string(value)});
    return true;
  });
}

Status LsmDb::ForEach(const std::string& start, const std::string& end, uint32_t limit,
                      const std::function<bool(std::string_view key, std::string_view value)>& visit) {
  ScanIterator it(CaptureReadView(), start, end);
  Status s = it.Init();
  for (uint32_t n = 0; s.ok() && it.Valid() && n < limit; ++n) {
    if (!visit(it.key(), it.value())) break;
    s = it.Next();
  }
  return s;
}

}  // namespace kandb::lsm
