#ifndef KANDB_META_REGION_INDEX_H_
#define KANDB_META_REGION_INDEX_H_

// RegionIndex: the region records (and the store records they name) kept in
// memory, ordered by the start of each region's key range, so that routing
// a key is one search instead of a walk over every record.
//
// It answers exactly what the walk answers: the first record, in the key
// order of the records, that covers the key. When the ranges of the
// decodable records do not overlap, at most one covers any key, and that
// one is what a search by range start finds. In every other state (two
// ranges overlap, a record does not decode or cannot be opened, more
// records than routing considers) it declines, and the caller walks.
//
// It is built from the store and then follows the store's writes, in the
// order in which the store makes them visible. Lookups run concurrently
// under a shared lock; each applied batch takes it exclusively.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "lsm/entry.h"
#include "meta/sorted_blocks.h"
#include "pdpb/messages.h"
#include "store/meta_store.h"

namespace kandb::meta {

// Where the service looks for a routing answer before it walks the region
// records: the region index over its own store, or, on a replicated
// server, the copy of the records that follows etcd.
class RegionRouter {
 public:
  virtual ~RegionRouter() = default;
  // Routes `key` as the walk over the records would: true with the answer
  // in *resp (OK) or in *status (the failure), or false when only the walk
  // can answer. Safe from any thread.
  virtual bool Route(const std::string& key, pdpb::GetRegionResponse* resp, Status* status) const = 0;
  // Region records held, for the statistics.
  virtual size_t regions() const = 0;
  // The store records, decoded, in the key order of the records (those
  // that do not decode left out), as a scan of them would give them, and
  // per store the region records that place a replica on it: true when
  // the copy stands for the records; false when the caller must read them
  // (the copy is not loaded or not current, or a record could not be
  // opened). A snapshot; safe from any thread.
  virtual bool Stores(std::shared_ptr<const std::vector<pdpb::Store>>* stores,
                      std::unordered_map<uint64_t, uint64_t>* replicas) const {
    (void)stores;
    (void)replicas;
    return false;
  }
  // The store records the copy holds now, without waiting for it to be
  // current or writing anything: for the statistics, which must cost the
  // methods nothing.
  virtual bool StoresAsHeld(std::shared_ptr<const std::vector<pdpb::Store>>* stores) const {
    return Stores(stores, nullptr);
  }

  // ---- Region reads. Each declines (false) unless the router overrides it.

  // The regions whose ranges meet [start, end) (an empty end: no bound), in
  // the order of their start keys, at most `limit` of them, as the walk over
  // the records would answer: true with them in *regions (OK) or with the
  // failure in *status; false when only the walk can answer (ranges that
  // overlap, a record that cannot be decoded or opened, the copy not
  // loaded or not current). Safe from any thread.
  virtual bool Scan(const std::string& start, const std::string& end, uint32_t limit,
                    std::vector<pdpb::Region>* regions, Status* status) const {
    (void)start;
    (void)end;
    (void)limit;
    (void)regions;
    (void)status;
    return false;
  }
  // The record of region `region_id`, its answer completed as routing
  // completes one (AnswerRoute, with `leader_store`): true with it in *resp
  // (OK) or the failure in *status; false when the router does not hold a
  // decodable record under that id (or is not current), and a read of the
  // record must answer. Safe from any thread.
  virtual bool FindRegion(uint64_t region_id, std::optional<uint64_t> leader_store,
                          pdpb::GetRegionResponse* resp, Status* status) const {
    (void)region_id;
    (void)leader_store;
    (void)resp;
    (void)status;
    return false;
  }
  // The stale-replica check of a region heartbeat from `store_id`: for
  // each of `region_ids`, whether a record of that region decodes and
  // places no replica on the store (an absent or undecodable record is no
  // evidence), and, when `known` gives the replicas' membership versions
  // (one per id), is at least as new as the replica's. True with
  // (*stale)[i] set when the copy stands for the records; false when the
  // caller must read them, one by one.
  virtual bool StaleReplicas(uint64_t store_id, const std::vector<uint64_t>& region_ids,
                             const std::vector<uint64_t>* known, std::vector<bool>* stale) const {
    (void)store_id;
    (void)region_ids;
    (void)known;
    (void)stale;
    return false;
  }
};

class RegionIndex final : public RegionRouter {
 public:
  // Starts following the writes of `store` (not owned; it must outlive the
  // index) and loads every region and store record. Must run before the
  // service serves, but concurrent writes are seen in order all the same.
  // A record that cannot be read does not fail it: the index then declines
  // every lookup (the walk answers, with the read's failure where it meets
  // it), and the failure is reported on standard error.
  static Status Build(store::MetaStore* store, std::unique_ptr<RegionIndex>* out);
  // An empty index that follows no store: its owner feeds it with Apply.
  RegionIndex() : store_(nullptr) {}
  // Stops following the store, if it follows one.
  ~RegionIndex() override;
  RegionIndex(const RegionIndex&) = delete;
  RegionIndex& operator=(const RegionIndex&) = delete;

  // Routes `key` as the walk over the records would: returns true with the
  // answer in *resp (OK) or in *status (the failure), or false when the
  // records are not a clean partition and the caller must walk them.
  bool Route(const std::string& key, pdpb::GetRegionResponse* resp, Status* status) const override
      EXCLUDES(mu_);

  // Region records held, decodable or not.
  size_t regions() const override EXCLUDES(mu_);

  bool Stores(std::shared_ptr<const std::vector<pdpb::Store>>* stores,
              std::unordered_map<uint64_t, uint64_t>* replicas) const override EXCLUDES(mu_);

  // Region reads over the clean partition the index holds; see
  // RegionRouter. The records are copied under the shared lock and decoded
  // after it, so that a long scan holds up the writes it waits behind only
  // for the copying.
  bool Scan(const std::string& start, const std::string& end, uint32_t limit, std::vector<pdpb::Region>* regions,
            Status* status) const override EXCLUDES(mu_);
  bool FindRegion(uint64_t region_id, std::optional<uint64_t> leader_store, pdpb::GetRegionResponse* resp,
                  Status* status) const override EXCLUDES(mu_);
  bool StaleReplicas(uint64_t store_id, const std::vector<uint64_t>& region_ids, const std::vector<uint64_t>* known,
                     std::vector<bool>* stale) const override EXCLUDES(mu_);

  // Applies the puts (values opened) and deletions of one batch as one
  // change: a lookup sees all of it or none. Keys outside the region and
  // store ranges are ignored.
  void Apply(const lsm::WriteBatch& batch) EXCLUDES(mu_);

 private:
  struct RegionRecord {
    std::string value;  // the record as opened
    bool decodes = false;
    std::string_view start;  // into value, when it decodes
    std::string_view end;
  };
  using Region = std::pair<const std::string, RegionRecord>;
  // A region's place in the order by range start. The first bytes of the
  // start are held in the element itself, so that a search compares within
  // the index's own arrays and follows the pointer to the record only when
  // two starts agree on all of them.
  struct StartKey {
    static constexpr size_t kInline = 16;
    explicit StartKey(std::string_view key, const Region* r = nullptr);
    char head[kInline];  // the first bytes, zero-padded
    uint32_t size;
    std::string_view key;  // the whole start
    const Region* region;  // null for a routed key being searched
  };
  // Orders by range start (bytewise, a prefix first), then by record key,
  // so that equal starts keep a fixed order.
  struct ByStart {
    bool operator()(const StartKey& a, const StartKey& b) const;
  };
  struct StoreRecord {
    std::string value;  // the record as opened
    Status open_status;  // why it could not be opened, if so
  };

  explicit RegionIndex(store::MetaStore* store) : store_(store) {}
  void PutRegion(const std::string& key, std::string value, const Status& open_status) REQUIRES(mu_);
  // Adds `delta` to the replica count of every store the record places a
  // replica on.
  void CountReplicas(const RegionRecord& record, int64_t delta) REQUIRES(mu_);
  // Rebuilds store_list_ after a change of the store records.
  void ListStores() REQUIRES(mu_);
  void EraseRegion(const std::string& key) REQUIRES(mu_);
  // Adds or removes a ranged region and keeps overlapping_pairs_ right.
  void Link(const Region* region) REQUIRES(mu_);
  void Unlink(const Region* region) REQUIRES(mu_);
  // Reads a store record held, for AnswerRoute.
  Status LookupStore(uint64_t store_id, std::string* value, bool* found) const REQUIRES_SHARED(mu_);
  static bool Ranged(const RegionRecord& record);
  static bool Overlap(const Region* before, const Region* after);

  store::MetaStore* const store_;  // null when fed by its owner

  mutable SharedMutex mu_;
  // Every record of the region range, by its key in the store.
  std::map<std::string, RegionRecord> regions_ GUARDED_BY(mu_);
  // The decodable records whose range holds a key, by range start.
  SortedBlocks<StartKey, ByStart> by_start_ GUARDED_BY(mu_);
  // Neighbours in by_start_ whose ranges overlap; 0 in a clean partition.
  size_t overlapping_pairs_ GUARDED_BY(mu_) = 0;
  // Records that do not decode or cannot be opened.
  size_t undecodable_ GUARDED_BY(mu_) = 0;
  // Not OK when the load could not read every record: the index declines.
  Status load_status_ GUARDED_BY(mu_);
  // Every record of the store range, by its key in the store.
  std::map<std::string, StoreRecord, std::less<>> stores_ GUARDED_BY(mu_);
  // The decodable store records in key order, rebuilt on every change of
  // them (rare: a new store, an address or label change, a removal) so
  // that a heartbeat takes them without copying.
  std::shared_ptr<const std::vector<pdpb::Store>> store_list_ GUARDED_BY(mu_);
  // Store records that could not be opened.
  size_t unopened_stores_ GUARDED_BY(mu_) = 0;
  // Per store id, the region records that place a replica on it.
  std::unordered_map<uint64_t, uint64_t> replicas_ GUARDED_BY(mu_);
};

}  // namespace kandb::meta

#endif  // KANDB_META_REGION_INDEX_H_
