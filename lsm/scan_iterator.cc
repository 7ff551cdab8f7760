#include "lsm/scan_iterator.h"

#include <utility>

namespace kandb::lsm {

ScanIterator::ScanIterator(ReadView view, std::string start, std::string end)
    : view_(std::move(view)), start_(std::move(start)), end_(std::move(end)) {}

void ScanIterator::FillChunk(MemSource* source, const std::string& from) {
  source->chunk = source->mem->Dump(from, end_, kMemTableChunk);
  source->exhausted = source->chunk.size() < kMemTableChunk;
  source->pos = 0;
}

Status ScanIterator::Init() {
  mems_.reserve(view_.memtables.size());
  for (const std::shared_ptr<MemTable>& mem : view_.memtables) {
    MemSource source;
    source.mem = mem;
    FillChunk(&source, start_);
    mems_.push_back(std::move(source));
  }
  tables_.reserve(view_.tables.size());
  for (const std::shared_ptr<SstReader>& table : view_.tables) {
    std::unique_ptr<SstIterator> it = table->NewIterator();
    Status s = it->Seek(start_);
    if (!s.ok()) return s;
    tables_.push_back(std::move(it));
  }
  return Next();
}

const Entry* ScanIterator::MemCurrent(MemSource* source) {
  if (source->pos >= source->chunk.size()) {
    if (source->exhausted) return nullptr;
    // Keys written behind the position after the chunk was copied may or
    // may not be seen, but no key is seen twice: the refill starts strictly
    // after the last key handed out.
    std::string from = source->chunk.empty() ? std::string() : source->chunk.back().key + '\0';
    FillChunk(source, from);
    if (source->chunk.empty()) return nullptr;
  }
  return &source->chunk[source->pos];
}

const std::string* ScanIterator::TableCurrent(const SstIterator& it) const {
  if (!it.Valid()) return nullptr;
  if (!end_.empty() && !(it.key() < end_)) return nullptr;
  return &it.key();
}

Status ScanIterator::Next() {
  for (;;) {
    // The smallest current key wins; on a tie the source earlier in
    // precedence order (strict comparison keeps the first) holds the newest
    // version.
    const Entry* best_mem = nullptr;
    const SstIterator* best_table = nullptr;
    const std::string* best_key = nullptr;
    for (MemSource& source : mems_) {
      const Entry* e = MemCurrent(&source);
      if (e != nullptr && (best_key == nullptr || e->key < *best_key)) {
        best_mem = e;
        best_key = &e->key;
      }
    }
    for (const std::unique_ptr<SstIterator>& it : tables_) {
      const std::string* k = TableCurrent(*it);
      if (k != nullptr && (best_key == nullptr || *k < *best_key)) {
        best_mem = nullptr;
        best_table = it.get();
        best_key = k;
      }
    }
    if (best_key == nullptr) {
      valid_ = false;
      return Status::OK();
    }
    if (best_mem != nullptr) {
      op_ = best_mem->op;
      key_ = best_mem->key;
      value_ = best_mem->value;
    } else {
      op_ = best_table->op();
      key_ = best_table->key();
      value_ = best_table->value();
    }

    // Step every source holding this key past it, so older versions of the
    // key are never offered again.
    for (MemSource& source : mems_) {
      const Entry* e = MemCurrent(&source);
      if (e != nullptr && e->key == key_) ++source.pos;
    }
    for (const std::unique_ptr<SstIterator>& it : tables_) {
      const std::string* k = TableCurrent(*it);
      if (k != nullptr && *k == key_) {
        Status s = it->Next();
        if (!s.ok()) {
          valid_ = false;
          return s;
        }
      }
    }
    if (op_ == kOpPut) {
      valid_ = true;
      return Status::OK();
    }
  }
}

}  // namespace kandb::lsm
