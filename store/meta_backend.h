#ifndef KANDB_STORE_META_BACKEND_H_
#define KANDB_STORE_META_BACKEND_H_

// MetaBackend: where MetaStore keeps its (already sealed) values. Two homes
// exist: the embedded storage engine in one state directory, and an etcd
// cluster shared by several placement servers (store/etcd_backend.h).
//
// Both keep the same keys and the same stored bytes; MetaStore seals and
// opens values above this interface, so the envelope is the same on both.
// Every operation may be called from any thread at once.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "lsm/db.h"
#include "lsm/entry.h"

namespace kandb::store {

class MetaBackend {
 public:
  virtual ~MetaBackend() = default;

  // Point read of the stored bytes. An absent key succeeds with *found false
  // and *value left as it was.
  virtual Status Get(const std::string& key, std::string* value, bool* found) = 0;
  // Applies `batch` (puts and deletes, in order) as one unit: all of it or
  // none becomes visible, and none of it is lost once this returned OK.
  virtual Status Write(const lsm::WriteBatch& batch) = 0;
  // Clears *out and fills it with the live pairs of [start, end) in key
  // order (an empty `end` means no upper bound), at most `limit` of them,
  // all as of one moment.
  virtual Status Scan(const std::string& start, const std::string& end, uint32_t limit,
                      std::vector<lsm::Entry>* out) = 0;
};

// The embedded engine as a backend: each call is the engine's own.
class LsmBackend final : public MetaBackend {
 public:
  explicit LsmBackend(std::unique_ptr<lsm::LsmDb> db) : db_(std::move(db)) {}

  Status Get(const std::string& key, std::string* value, bool* found) override {
    return db_->Get(key, value, found);
  }
  Status Write(const lsm::WriteBatch& batch) override { return db_->Write(batch); }
  Status Scan(const std::string& start, const std::string& end, uint32_t limit,
              std::vector<lsm::Entry>* out) override {
    return db_->Scan(start, end, limit, out);
  }

 private:
  const std::unique_ptr<lsm::LsmDb> db_;
};

}  // namespace kandb::store

#endif  // KANDB_STORE_META_BACKEND_H_
