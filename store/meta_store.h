#ifndef KANDB_STORE_META_STORE_H_
#define KANDB_STORE_META_STORE_H_

// MetaStore: the persistent home of the placement driver's records. It owns
// one backend (the storage engine over the state directory, or an etcd
// cluster, see meta_backend.h), and seals every value on the way in and
// opens it on the way out (see envelope.h); keys stay in plain so that range
// scans keep working.
//
// The store adds no lock of its own: every operation may be called from any
// thread and relies on the backend's locking and the envelope's atomic IV
// counter. Each multi-entry operation is one backend write batch, applied
// as one unit, so a crash leaves all of it or none.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/status.h"
#include "lsm/db.h"
#include "store/envelope.h"
#include "store/meta_backend.h"

namespace kandb::store {

using KeyValue = std::pair<std::string, std::string>;

class MetaStore {
 public:
  // Engine options of the metadata store.
  static constexpr uint64_t kWriteBufferSize = 64ull << 20;
  static constexpr uint64_t kMaxTableFiles = 8;

  // Opens (creating it if needed) the store in `dir`. A non-empty
  // `passphrase` turns sealing on with a key derived from it; the passphrase
  // itself is not kept. `sync` non-zero makes every write reach the disk
  // before it is acknowledged. On success replaces *out; on failure returns
  // the engine's status unchanged and leaves *out alone.
  // A store with a passphrase fails to open when the system has no
  // randomness to give (see PrepareSealing).
  static Status Open(const std::string& dir, const std::string& passphrase, int sync,
                     std::unique_ptr<MetaStore>* out);
  // The same, with the engine's file-system calls going through `io` (not
  // owned; it must outlive the store), so that tests can inject faults.
  static Status Open(const std::string& dir, const std::string& passphrase, int sync, lsm::FileIo* io,
                     std::unique_ptr<MetaStore>* out);
  // A store over another backend, sealing as Open does (and failing as it
  // does when sealing cannot be prepared). On success replaces *out.
  static Status OnBackend(std::unique_ptr<MetaBackend> backend, const std::string& passphrase,
                          std::unique_ptr<MetaStore>* out);

  MetaStore(const MetaStore&) = delete;
  MetaStore& operator=(const MetaStore&) = delete;
  ~MetaStore() = default;

  // Point read. An absent key succeeds with *found false and *value left as
  // it was. A value that cannot be opened fails with the envelope's status.
  Status Get(const std::string& key, std::string* value, bool* found);

  // One write of the given pairs, in order, values sealed. The pairs are
  // taken by value: a caller that moves them in spares the copy.
  Status Put(std::vector<KeyValue> pairs);
  // One write of deletions of the given keys.
  Status Delete(std::vector<std::string> keys);
  // One write holding all puts (in order), then all deletions.
  Status Write(std::vector<KeyValue> puts, std::vector<std::string> deletes);
  // The same write, its result handed to `done` once known (see
  // MetaBackend::WriteAsync): on the embedded engine this returns at once
  // and `done` runs on the thread that synced the batch.
  void WriteAsync(std::vector<KeyValue> puts, std::vector<std::string> deletes,
                  std::function<void(const Status&)> done, bool defer_lead = false);
  // After WriteAsync calls with `defer_lead`: see MetaBackend.
  void LeadDeferredWrites() { db_->LeadDeferredWrites(); }

  // Clears *out and appends the live pairs of [start, end) in key order (an
  // empty `end` means no upper bound), at most `limit` of them, values
  // opened. At the first value that cannot be opened it stops and returns
  // that status; the pairs appended before it stay in *out.
  Status Scan(const std::string& start, const std::string& end, uint32_t limit,
              std::vector<KeyValue>* out);

  // The same range read as Scan, streamed: each opened pair goes to
  // `visit` in key order as it is read, without collecting the range, and
  // for a store without a passphrase without copying the bytes (the views
  // are valid during the call only). `visit` returns false to end the walk
  // early (ForEach then returns OK). Fails like Scan, after the pairs before
  // the failing one were visited.
  Status ForEach(const std::string& start, const std::string& end, uint32_t limit,
                 const std::function<bool(std::string_view key, std::string_view value)>& visit);

  // The same walk over the values as stored (sealed, when the store seals),
  // for a reader that must see every record, also one that cannot be
  // opened; OpenStored opens one of them.
  Status ForEachStored(const std::string& start, const std::string& end, uint32_t limit,
                       const std::function<bool(std::string_view key, std::string_view stored)>& visit);
  Status OpenStored(std::string_view stored, std::string* value) const;

  // Hands every batch this store writes, values opened, to `observer`, in
  // the order the backend makes the batches visible (for the engine, the
  // log's order), right after each becomes visible; an empty function stops
  // it. For a cache of the records beside the store. Set it before the
  // writes it must see; the observer runs while writes wait, so it must be
  // quick and must not call into the store.
  void SetApplyObserver(std::function<void(const lsm::WriteBatch&)> observer);

  // The storage engine's statistics, true; false, with *out untouched,
  // when the store lies on a backend without an engine of its own (etcd).
  bool GetEngineStats(lsm::EngineStats* out) { return db_->GetEngineStats(out); }

 private:
  lsm::WriteBatch MakeBatch(std::vector<KeyValue> puts, std::vector<std::string> deletes) const;

  MetaStore(std::unique_ptr<MetaBackend> backend, const StoreCrypto& crypto)
      : db_(std::move(backend)), crypto_(crypto) {}

  const std::unique_ptr<MetaBackend> db_;
  const StoreCrypto crypto_;
};

}  // namespace kandb::store

#endif  // KANDB_STORE_META_STORE_H_
