#include "lsm/scan_iterator.h"

#include <utility>

namespace kandb::lsm {

ScanIterator::ScanIterator(std::shared_ptr<const ReadView> view, std::string start, std::string end)
    : view_(std::move(view)), start_(std::move(start)), end_(std::move(end)) {}

Status ScanIterator::Init() {
  mems_.reserve(view_->memtables.size());
  for (const std::shared_ptr<MemTable>& mem : view_->memtables) {
    mems_.emplace_back(mem.get());
    mems_.back().Seek(start_);
  }
  tables_.reserve(view_->tables.size());
  for (const std::shared_ptr<SstReader>& table : view_->tables) {
    // Scans read far ahead: the region walk reads whole tables.
    std::unique_ptr<SstIterator> it = table->NewIterator(kScanReadBuffer);
    Status s = it->Seek(start_);
    if (!s.ok()) return s;
    tables_.push_back(std::move(it));
  }
  return Advance(/*skip_current=*/false);
}

bool ScanIterator::Current(size_t source, std::string_view* key) const {
  if (source < mems_.size()) {
    const MemTable::Iterator& it = mems_[source];
    if (!it.Valid()) return false;
    *key = it.key();
  } else {
    const SstIterator& it = *tables_[source - mems_.size()];
    if (!it.Valid()) return false;
    *key = it.key();
  }
  // The end bound is exclusive.
  return end_.empty() || *key < end_;
}

Status ScanIterator::Skip() {
  // The winner moves last: key_ points into it.
  const size_t sources = mems_.size() + tables_.size();
  for (size_t source = 0; source <= sources; ++source) {
    const size_t moving = source < sources ? source : winner_;
    if (source < sources) {
      std::string_view key;
      if (source == winner_ || !Current(source, &key) || key != key_) continue;
    }
    if (moving < mems_.size()) {
      mems_[moving].Next();
    } else {
      Status s = tables_[moving - mems_.size()]->Next();
      if (!s.ok()) return s;
    }
  }
  return Status::OK();
}

bool ScanIterator::Pick(uint8_t* op) {
  const size_t sources = mems_.size() + tables_.size();
  bool found = false;
  for (size_t source = 0; source < sources; ++source) {
    std::string_view key;
    if (Current(source, &key) && (!found || key < key_)) {
      found = true;
      winner_ = source;
      key_ = key;
    }
  }
  if (!found) return false;
  if (winner_ < mems_.size()) {
    *op = mems_[winner_].op();
    value_ = mems_[winner_].value();
  } else {
    const SstIterator& it = *tables_[winner_ - mems_.size()];
    *op = it.op();
    value_ = it.value();
  }
  return true;
}

Status ScanIterator::Next() {
  if (!valid_) return Status::OK();
  return Advance(/*skip_current=*/true);
}

Status ScanIterator::Advance(bool skip_current) {
  valid_ = false;
  for (;; skip_current = true) {
    // Every source holding the current key steps past it, so older
    // versions of the key are never offered again.
    if (skip_current) {
      Status s = Skip();
      if (!s.ok()) return s;
    }
    uint8_t op = 0;
    if (!Pick(&op)) return Status::OK();
    if (op == kOpPut) {
      valid_ = true;
      return Status::OK();
    }
  }
}

}  // namespace kandb::lsm
