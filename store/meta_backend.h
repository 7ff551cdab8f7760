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
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "lsm/db.h"
#include "lsm/entry.h"

namespace kandb::store {

// Sees each batch that became visible, in the order they became visible.
using ApplyHook = std::function<void(const lsm::WriteBatch&)>;
// Sees one live pair of a range walk; returns false to end the walk. The
// views are valid during the call only.
using RangeVisitor = std::function<bool(std::string_view key, std::string_view value)>;

class MetaBackend {
 public:
  virtual ~MetaBackend() = default;

  // Point read of the stored bytes. An absent key succeeds with *found false
  // and *value left as it was.
  virtual Status Get(const std::string& key, std::string* value, bool* found) = 0;
  // Applies `batch` (puts and deletes, in order) as one unit: all of it or
  // none becomes visible, and none of it is lost once this returned OK.
  virtual Status Write(const lsm::WriteBatch& batch) = 0;
  // The same write, its result handed to `done` once it is known, on
  // whatever thread learns it. The embedded engine queues the batch and
  // returns at once; a backend without a queue of its own writes before it
  // returns (the default).
  // With `defer_lead` the caller promises to call LeadDeferredWrites after
  // it queued the rest of what it holds (see LsmDb::WriteAsync).
  virtual void WriteAsync(lsm::WriteBatch batch, std::function<void(const Status&)> done,
                          bool /*defer_lead*/ = false) {
    done(Write(batch));
  }
  virtual void LeadDeferredWrites() {}
  // Hands the live pairs of [start, end) to `visit` in key order (an empty
  // `end` means no upper bound), at most `limit` of them, as they are read.
  virtual Status ForEach(const std::string& start, const std::string& end, uint32_t limit,
                         const RangeVisitor& visit) = 0;
  // Calls `hook` with every batch this backend makes visible, right after
  // it does and in that order (one at a time); an empty hook stops it. The
  // hook runs while writes wait: it must be quick and must not call back.
  virtual void SetApplyHook(ApplyHook hook) = 0;
  // The embedded engine's statistics into *out, true; false, with *out
  // untouched, for a backend that has no engine of its own (etcd).
  virtual bool GetEngineStats(lsm::EngineStats* /*out*/) { return false; }
};

// The embedded engine as a backend: each call is the engine's own.
class LsmBackend final : public MetaBackend {
 public:
  // Opens the engine in `dir` with `options` (its apply hook is the
  // backend's). On success replaces *out.
  static Status Open(const std::string& dir, lsm::LsmDb::Options options, std::unique_ptr<LsmBackend>* out);

  Status Get(const std::string& key, std::string* value, bool* found) override {
    return db_->Get(key, value, found);
  }
  Status Write(const lsm::WriteBatch& batch) override { return db_->Write(batch); }
  void WriteAsync(lsm::WriteBatch batch, std::function<void(const Status&)> done,
                  bool defer_lead = false) override {
    db_->WriteAsync(std::move(batch), std::move(done), defer_lead);
  }
  void LeadDeferredWrites() override { db_->LeadDeferred(); }
  Status ForEach(const std::string& start, const std::string& end, uint32_t limit,
                 const RangeVisitor& visit) override {
    return db_->ForEach(start, end, limit, visit);
  }
  void SetApplyHook(ApplyHook hook) override EXCLUDES(hook_mu_);
  bool GetEngineStats(lsm::EngineStats* out) override {
    *out = db_->GetStats();
    return true;
  }

 private:
  LsmBackend() = default;
  void OnApply(const lsm::WriteBatch& batch) EXCLUDES(hook_mu_);

  // Guards hook_; taken by the engine's write leader for each batch.
  Mutex hook_mu_;
  ApplyHook hook_ GUARDED_BY(hook_mu_);
  // Declared last so that it goes first: its write leader calls OnApply.
  std::unique_ptr<lsm::LsmDb> db_;
};

}  // namespace kandb::store

#endif  // KANDB_STORE_META_BACKEND_H_
