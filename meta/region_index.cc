#include "meta/region_index.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "common/fault_log.h"
#include "meta/keys.h"
#include "meta/routing.h"
#include "pdpb/wire.h"

namespace kandb::meta {

namespace {

bool InRange(std::string_view key, std::string_view start, std::string_view end) {
  return start <= key && key < end;
}

}  // namespace

RegionIndex::StartKey::StartKey(std::string_view k, const Region* r)
    : head{}, size(static_cast<uint32_t>(k.size())), key(k), region(r) {
  std::memcpy(head, k.data(), std::min(k.size(), kInline));
}

bool RegionIndex::ByStart::operator()(const StartKey& a, const StartKey& b) const {
  // Zero padding keeps the byte order: of two starts that agree on their
  // padded heads and fit in them, the shorter is a prefix of the longer.
  const int head = std::memcmp(a.head, b.head, StartKey::kInline);
  if (head != 0) return head < 0;
  if (a.size <= StartKey::kInline && b.size <= StartKey::kInline) {
    if (a.size != b.size) return a.size < b.size;
  } else if (a.key != b.key) {
    return a.key < b.key;
  }
  // Equal starts: a searched key (no region) goes after them all.
  if (a.region == nullptr || b.region == nullptr) return a.region != nullptr && b.region == nullptr;
  return a.region->first < b.region->first;
}

Status RegionIndex::Build(store::MetaStore* store, std::unique_ptr<RegionIndex>* out) {
  std::unique_ptr<RegionIndex> index(new RegionIndex(store));
  RegionIndex* raw = index.get();
  // Following starts before loading, and a write that comes during the
  // load waits on the lock until it is done: whatever the load read of a
  // write, applying the write afterwards leaves the newest state. The
  // store's lock is never taken under the index's (the store holds its own
  // while it calls Apply).
  store->SetApplyObserver([raw](const lsm::WriteBatch& batch) { raw->Apply(batch); });
  WriterLock lock(&raw->mu_);
  Status open;
  Status s = store->ForEachStored(kRegionPrefix, kRegionScanEnd, UINT32_MAX,
                                  [raw, store, &open](std::string_view key, std::string_view stored) {
                                    raw->mu_.AssertHeld();
                                    std::string value;
                                    open = store->OpenStored(stored, &value);
                                    raw->PutRegion(std::string(key), std::move(value), open);
                                    return true;
                                  });
  if (s.ok()) {
    s = store->ForEachStored(kStorePrefix, kStoreScanEnd, UINT32_MAX,
                             [raw, store](std::string_view key, std::string_view stored) {
                               raw->mu_.AssertHeld();
                               StoreRecord& record = raw->stores_[std::string(key)];
                               record.open_status = store->OpenStored(stored, &record.value);
                               return true;
                             });
  }
  raw->ListStores();
  if (!s.ok()) {
    // A record that cannot be read (a damaged table, say) must not keep the
    // server from starting: the walk meets the damage only where a lookup
    // needs it, and every other method serves. The index stays, following
    // the writes, but declines every lookup, since what it missed is
    // unknown.
    raw->load_status_ = s;
    ReportFault("routing", "index not loaded, lookups walk the region records: " + s.ToString());
  }
  *out = std::move(index);
  return Status::OK();
}

RegionIndex::~RegionIndex() {
  if (store_ != nullptr) store_->SetApplyObserver(nullptr);
}

size_t RegionIndex::regions() const {
  ReaderLock lock(&mu_);
  return regions_.size();
}

bool RegionIndex::Ranged(const RegionRecord& record) {
  // A range whose end is not above its start covers no key and can never
  // be routed to; leaving it out keeps it from counting as an overlap.
  return record.decodes && (record.end.empty() || record.start < record.end);
}

bool RegionIndex::Overlap(const Region* before, const Region* after) {
  // `before` starts no later than `after`; both hold a key.
  return before->second.end.empty() || after->second.start < before->second.end;
}

void RegionIndex::Link(const Region* region) {
  const auto around = by_start_.Insert(StartKey(region->second.start, region));
  const Region* prev = around.prev ? around.prev->region : nullptr;
  const Region* next = around.next ? around.next->region : nullptr;
  if (prev != nullptr && next != nullptr) overlapping_pairs_ -= Overlap(prev, next);
  if (prev != nullptr) overlapping_pairs_ += Overlap(prev, region);
  if (next != nullptr) overlapping_pairs_ += Overlap(region, next);
}

void RegionIndex::Unlink(const Region* region) {
  const auto around = by_start_.Erase(StartKey(region->second.start, region));
  const Region* prev = around.prev ? around.prev->region : nullptr;
  const Region* next = around.next ? around.next->region : nullptr;
  if (prev != nullptr) overlapping_pairs_ -= Overlap(prev, region);
  if (next != nullptr) overlapping_pairs_ -= Overlap(region, next);
  if (prev != nullptr && next != nullptr) overlapping_pairs_ += Overlap(prev, next);
}

void RegionIndex::CountReplicas(const RegionRecord& record, int64_t delta) {
  if (!record.decodes) return;
  // Only the peers' store ids are read, in place.
  pdpb::DecodeFields(record.value.size(), record.value.data(), [this, delta](const pdpb::Field& f) {
    mu_.AssertHeld();
    if (f.tag != 5) return true;
    uint64_t store_id = 0;
    pdpb::DecodeFields(f.size, f.data, [&store_id](const pdpb::Field& p) {
      if (p.tag == 2 && p.size == 8) store_id = DecodeFixed64(p.data);
      return true;
    });
    uint64_t& count = replicas_[store_id];
    count += delta;
    if (count == 0) replicas_.erase(store_id);
    return true;
  });
}

void RegionIndex::ListStores() {
  auto list = std::make_shared<std::vector<pdpb::Store>>();
  list->reserve(stores_.size());
  unopened_stores_ = 0;
  for (const auto& [key, record] : stores_) {
    if (!record.open_status.ok()) {
      unopened_stores_++;
      continue;
    }
    pdpb::Store store;
    if (pdpb::Decode(record.value.size(), record.value.data(), &store)) list->push_back(std::move(store));
  }
  store_list_ = std::move(list);
}

bool RegionIndex::Stores(std::shared_ptr<const std::vector<pdpb::Store>>* stores,
                         std::unordered_map<uint64_t, uint64_t>* replicas) const {
  ReaderLock lock(&mu_);
  if (!load_status_.ok() || unopened_stores_ > 0 || store_list_ == nullptr || stores_.size() > kStoreScanLimit) {
    return false;
  }
  *stores = store_list_;
  if (replicas != nullptr) *replicas = replicas_;
  return true;
}

void RegionIndex::EraseRegion(const std::string& key) {
  auto it = regions_.find(key);
  if (it == regions_.end()) return;
  CountReplicas(it->second, -1);
  if (Ranged(it->second)) Unlink(&*it);
  if (!it->second.decodes) undecodable_--;
  regions_.erase(it);
}

void RegionIndex::PutRegion(const std::string& key, std::string value, const Status& open_status) {
  EraseRegion(key);
  auto it = regions_.emplace(key, RegionRecord()).first;
  RegionRecord& record = it->second;
  // The views point into the string in the map node, which stays put.
  record.value = std::move(value);
  record.decodes = open_status.ok() &&
                   pdpb::DecodeRegionBounds(record.value.size(), record.value.data(), &record.start, &record.end);
  if (!record.decodes) undecodable_++;
  if (Ranged(record)) Link(&*it);
  CountReplicas(record, 1);
}

void RegionIndex::Apply(const lsm::WriteBatch& batch) {
  WriterLock lock(&mu_);
  bool stores_changed = false;
  for (const lsm::Entry& e : batch) {
    const bool put = e.op == lsm::kOpPut;
    if (InRange(e.key, kRegionPrefix, kRegionScanEnd)) {
      if (put) {
        PutRegion(e.key, e.value, Status::OK());
      } else {
        EraseRegion(e.key);
      }
    } else if (InRange(e.key, kStorePrefix, kStoreScanEnd)) {
      stores_changed = true;
      if (put) {
        stores_[e.key] = StoreRecord{e.value, Status::OK()};
      } else {
        stores_.erase(e.key);
      }
    }
  }
  if (stores_changed) ListStores();
}

bool RegionIndex::Route(const std::string& key, pdpb::GetRegionResponse* resp, Status* status) const {
  ReaderLock lock(&mu_);
  if (regions_.empty() && load_status_.ok()) {
    *status = Status::NotFound("cluster not bootstrapped");
    return true;
  }
  // Where the first covering record in key order is not the only one, or
  // the walk would stop short of some records, only the walk knows.
  if (!load_status_.ok() || overlapping_pairs_ > 0 || undecodable_ > 0 || regions_.size() > kRegionScanLimit) return false;

  // The last range starting at or below the key is the only candidate.
  const StartKey* floor = by_start_.Floor(StartKey(key));
  if (floor == nullptr || !RangeCovers(floor->region->second.start, floor->region->second.end, key)) {
    *status = Status::NotFound("no region covers key");
    return true;
  }
  const RegionRecord& record = floor->region->second;
  pdpb::Region region;
  pdpb::Decode(record.value.size(), record.value.data(), &region);
  *status = AnswerRoute(std::move(region), [this](uint64_t store_id, std::string* value, bool* found) {
    mu_.AssertReaderHeld();  // called within Route, under the lock
    return LookupStore(store_id, value, found);
  }, resp);
  return true;
}

Status RegionIndex::LookupStore(uint64_t store_id, std::string* value, bool* found) const {
  auto store = stores_.find(StoreKey(store_id));
  *found = store != stores_.end() && store->second.open_status.ok();
  if (store == stores_.end()) return Status::OK();
  if (!store->second.open_status.ok()) return store->second.open_status;
  *value = store->second.value;
  return Status::OK();
}

bool RegionIndex::Scan(const std::string& start, const std::string& end, uint32_t limit,
                       std::vector<pdpb::Region>* regions, Status* status) const {
  std::vector<std::string> records;
  {
    ReaderLock lock(&mu_);
    if (regions_.empty() && load_status_.ok()) {
      *status = Status::NotFound("cluster not bootstrapped");
      return true;
    }
    // As for routing: only a clean partition of decodable records orders
    // the scan by range start alone.
    if (!load_status_.ok() || overlapping_pairs_ > 0 || undecodable_ > 0 || regions_.size() > kRegionScanLimit) {
      return false;
    }
    // From the last range starting at or below `start`, which is the only
    // one that may cover it; every later one starts above it.
    records.reserve(std::min<size_t>(limit, regions_.size()));
    by_start_.VisitFrom(StartKey(start), [&](const StartKey& at) {
      mu_.AssertReaderHeld();  // called within the walk, under the lock
      if (records.size() >= limit) return false;
      const RegionRecord& record = at.region->second;
      if (!end.empty() && record.start >= end) return false;
      if (RangeMeets(record.start, record.end, start, end)) records.push_back(record.value);
      return true;
    });
  }
  std::vector<pdpb::Region> answer(records.size());
  for (size_t i = 0; i < records.size(); ++i) {
    pdpb::Decode(records[i].size(), records[i].data(), &answer[i]);  // decodes: it was linked
  }
  *regions = std::move(answer);
  *status = Status::OK();
  return true;
}

bool RegionIndex::FindRegion(uint64_t region_id, std::optional<uint64_t> leader_store, pdpb::GetRegionResponse* resp,
                             Status* status) const {
  ReaderLock lock(&mu_);
  if (!load_status_.ok()) return false;
  auto it = regions_.find(RegionKey(region_id));
  // A record that is absent, or that could not be opened or decoded, is
  // left to the read of its key, which names what it finds.
  if (it == regions_.end() || !it->second.decodes) return false;
  pdpb::Region region;
  pdpb::Decode(it->second.value.size(), it->second.value.data(), &region);
  *status = AnswerRoute(
      std::move(region),
      [this](uint64_t store_id, std::string* value, bool* found) {
        mu_.AssertReaderHeld();  // called within FindRegion, under the lock
        return LookupStore(store_id, value, found);
      },
      resp, leader_store);
  return true;
}

bool RegionIndex::StaleReplicas(uint64_t store_id, const std::vector<uint64_t>& region_ids,
                                const std::vector<uint64_t>* known, std::vector<bool>* stale) const {
  ReaderLock lock(&mu_);
  if (!load_status_.ok()) return false;
  stale->assign(region_ids.size(), false);
  for (size_t i = 0; i < region_ids.size(); i++) {
    auto it = regions_.find(RegionKey(region_ids[i]));
    if (it == regions_.end() || !it->second.decodes) continue;
    pdpb::Region region;  // decoding appends to the lists of the one given
    if (!pdpb::Decode(it->second.value.size(), it->second.value.data(), &region)) continue;
    (*stale)[i] = StaleIn(region, store_id, known != nullptr ? (*known)[i] : 0);
  }
  return true;
}

}  // namespace kandb::meta
