#include "meta/pd_service.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "common/coding.h"
#include "meta/keys.h"
#include "meta/routing.h"

namespace kandb::meta {
namespace {

uint64_t WallClockMs() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<uint64_t>(
             std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch).count()) /
         1000000;
}

}  // namespace

Status PdService::Create(store::MetaStore* store, uint32_t target_replicas, std::unique_ptr<PdService>* out) {
  Options options;
  options.target_replicas = target_replicas;
  return Create(store, std::move(options), out);
}

Status PdService::Create(store::MetaStore* store, uint32_t target_replicas, ClockMs clock_ms,
                         std::unique_ptr<PdService>* out) {
  Options options;
  options.target_replicas = target_replicas;
  options.clock_ms = std::move(clock_ms);
  return Create(store, std::move(options), out);
}

Status PdService::Create(store::MetaStore* store, Options options, std::unique_ptr<PdService>* out) {
  uint64_t mark = 0;
  Status s = ReadIdMark(store, &mark);
  if (!s.ok()) return s;
  if (!options.clock_ms) options.clock_ms = WallClockMs;
  const RegionRouter* router = options.router;
  std::unique_ptr<PdService> service(new PdService(store, std::move(options)));
  {
    MutexLock lock(&service->id_mutex_);
    service->next_id_ = mark;
  }
  if (router != nullptr) {
    service->router_ = router;
  } else {
#ifndef KANDB_NO_ROUTING_INDEX
    s = RegionIndex::Build(store, &service->index_);
    if (!s.ok()) return s;
    service->router_ = service->index_.get();
#endif
  }
  *out = std::move(service);
  return Status::OK();
}

namespace {

// A store's record as a registration may set it: what only the service
// writes (the operator's removal, the first store heartbeat) is not taken
// from the caller.
pdpb::Store Registered(const pdpb::Store& store) {
  pdpb::Store record = store;
  record.node_state = pdpb::kNodeServing;
  record.first_heartbeat_ms = 0;
  return record;
}

Scheduler::Options SchedulingOptions(const PdService::Options& options) {
  Scheduler::Options scheduling = options.scheduling;
  scheduling.target_replicas = options.target_replicas;
  return scheduling;
}

}  // namespace

PdService::PdService(store::MetaStore* store, Options options)
    : store_(store),
      target_replicas_(options.target_replicas),
      clock_ms_(std::move(options.clock_ms)),
      own_id_marks_(options.own_id_marks),
      write_id_mark_(std::move(options.write_id_mark)),
      scheduler_(SchedulingOptions(options)) {}

Status PdService::ReadIdMark(store::MetaStore* store, uint64_t* mark) {
  std::string value;
  bool found = false;
  Status s = store->Get(kIdAllocKey, &value, &found);
  // Neither a failed read nor a damaged mark is taken for "no identifier
  // was ever handed out": either would make numbering start again below
  // identifiers that are in use.
  if (!s.ok()) return Status(s.code(), std::string("identifier mark ") + kIdAllocKey + ": " + s.message());
  if (!found) {
    *mark = kFirstId;
    return Status::OK();
  }
  if (value.size() != 8) {
    return Status::Corruption(std::string("identifier mark ") + kIdAllocKey + " has " +
                              std::to_string(value.size()) + " bytes, not 8");
  }
  *mark = DecodeFixed64(value.data());
  return Status::OK();
}

Status PdService::Tso(const pdpb::TsoRequest& req, pdpb::TsoResponse* resp) {
  const uint64_t n = req.count == 0 ? 1 : req.count;
  // A batch longer than one millisecond's logical range would run into the
  // physical bits: one request could move the clock of every later
  // timestamp hours ahead of the wall clock.
  if (n > kMaxLogical) {
    return Status::InvalidArgument("tso count " + std::to_string(n) + " is over " + std::to_string(kMaxLogical));
  }
  MutexLock lock(&tso_mutex_);
  Status s;
  (void)TakeTso(n, /*may_wait=*/true, resp, &s);
  return s;
}

bool PdService::TsoWithoutWaiting(const pdpb::TsoRequest& req, pdpb::TsoResponse* resp, Status* status) {
  const uint64_t n = req.count == 0 ? 1 : req.count;
  if (n > kMaxLogical) {
    *status = Status::InvalidArgument("tso count " + std::to_string(n) + " is over " + std::to_string(kMaxLogical));
    return true;
  }
  // The holder may be raising the ceiling through etcd.
  if (!tso_mutex_.TryLock()) return false;
  const bool answered = TakeTso(n, /*may_wait=*/false, resp, status);
  tso_mutex_.Unlock();
  return answered;
}

bool PdService::TakeTso(uint64_t n, bool may_wait, pdpb::TsoResponse* resp, Status* status) {
  const uint64_t now = clock_ms_();
  uint64_t physical = tso_physical_;
  uint64_t logical = tso_logical_;
  // A clock that stood still or went backwards keeps the last physical part,
  // so timestamps keep growing.
  if (physical < now) {
    physical = now;
    logical = 0;
  }
  // A batch may end at logical kMaxLogical - 1 but never uses kMaxLogical;
  // past that it moves to the next millisecond without waiting for the clock.
  if (logical + n > kMaxLogical) {
    ++physical;
    logical = 0;
  }
  if (tso_admit_) {
    if (!may_wait) {
      if (!tso_admitted_ || !tso_admitted_(physical)) return false;
    } else {
      Status s = tso_admit_(physical);
      if (!s.ok()) {
        *status = s;
        return true;
      }
    }
  }
  tso_physical_ = physical;
  tso_logical_ = logical + n;
  resp->timestamp = physical << kLogicalBits | logical;
  resp->count = static_cast<uint32_t>(n);
  *status = Status::OK();
  return true;
}

void PdService::SetTsoCeiling(uint64_t floor, TsoAdmit admit, std::function<bool(uint64_t)> admitted) {
  MutexLock lock(&tso_mutex_);
  if (tso_physical_ < floor) {
    tso_physical_ = floor;
    tso_logical_ = 0;
  }
  tso_admit_ = std::move(admit);
  tso_admitted_ = std::move(admitted);
}

Status PdService::AllocId(const pdpb::AllocIdRequest& req, pdpb::AllocIdResponse* resp) {
  const uint64_t n = req.count == 0 ? 1 : req.count;
  MutexLock lock(&id_mutex_);
  const uint64_t end = next_id_ + n;
  uint64_t mark = end + kIdMargin;
  if (own_id_marks_) {
    // Only what this service wrote counts: another server may have raised
    // the stored mark and be handing out what lies under it. The write is
    // fenced, so once another leads it fails instead of lowering its mark.
    if (written_mark_ < end) {
      mark = std::max(mark, tried_mark_);
      tried_mark_ = mark;
      Status s = write_id_mark_ ? write_id_mark_(mark) : WriteIdMark(mark);
      if (!s.ok()) return s;
      written_mark_ = mark;
    }
  } else {
    // Re-read the mark each time rather than trusting memory. A mark that
    // cannot be read, or is damaged, fails the batch: writing over it from
    // memory could lower a mark that someone else raised.
    uint64_t persisted = 0;
    std::string value;
    bool found = false;
    Status s = store_->Get(kIdAllocKey, &value, &found);
    if (!s.ok()) return s;
    if (found) {
      if (value.size() != 8) {
        return Status::Corruption(std::string("identifier mark ") + kIdAllocKey + " has " +
                                  std::to_string(value.size()) + " bytes, not 8");
      }
      persisted = DecodeFixed64(value.data());
    }
    if (persisted < end) {
      s = WriteIdMark(mark);
      if (!s.ok()) return s;
    }
  }
  resp->first_id = next_id_;
  resp->count = static_cast<uint32_t>(n);
  next_id_ = end;
  return Status::OK();
}

bool PdService::AllocIdWithoutWaiting(const pdpb::AllocIdRequest& req, pdpb::AllocIdResponse* resp,
                                      Status* status) {
  // Only a service that trusts its own mark answers from memory; the
  // holder of the counter may be writing the mark.
  if (!own_id_marks_) return false;
  if (!id_mutex_.TryLock()) return false;
  const uint64_t n = req.count == 0 ? 1 : req.count;
  const uint64_t end = next_id_ + n;
  const bool answered = end <= written_mark_;
  if (answered) {
    resp->first_id = next_id_;
    resp->count = static_cast<uint32_t>(n);
    next_id_ = end;
    *status = Status::OK();
  }
  id_mutex_.Unlock();
  return answered;
}

Status PdService::WriteIdMark(uint64_t mark) {
  // The mark must be durable before any id below it is handed out: after
  // a crash numbering resumes at the mark, skipping but never reusing ids.
  std::string value;
  PutFixed64(&value, mark);
  return store_->Put({{kIdAllocKey, value}});
}

Status PdService::Bootstrap(const pdpb::BootstrapRequest& req, pdpb::BootstrapResponse* resp) {
  // Only the marker's presence counts. A marker that cannot be read fails
  // the call: taking it for absent would bootstrap again over a live
  // cluster and replace its region records.
  std::string marker;
  bool bootstrapped = false;
  Status s = store_->Get(kBootstrappedKey, &marker, &bootstrapped);
  if (!s.ok()) return s;

  if (bootstrapped) {
    // A store registering on an existing cluster. The answer waits for the
    // write like every other: a registration acknowledged but never written
    // would be lost at the next restart, with the store believing it done.
    // What a store heartbeat or the operator recorded stays: a removed
    // store that registers again on its restart must not come back, nor
    // lose its place in the failure domains. A record without those fields
    // (a cluster whose stores never send store heartbeats) is replaced by
    // the caller's as it is, and so is one that cannot be read or decoded,
    // which registering again repairs.
    MutexLock lock(&store_record_mutex_);
    pdpb::Store record = Registered(req.store);
    std::string value;
    bool found = false;
    pdpb::Store known;
    if (store_->Get(StoreKey(req.store.id), &value, &found).ok() && found &&
        pdpb::Decode(value.size(), value.data(), &known)) {
      record.node_state = known.node_state;
      record.first_heartbeat_ms = known.first_heartbeat_ms;
      if (record.labels.empty()) record.labels = known.labels;
    }
    s = store_->Put({{StoreKey(req.store.id), pdpb::Encode(record)}});
    if (!s.ok()) return s;
    resp->already_bootstrapped = true;
    return Status::OK();
  }

  // The marker goes in the same batch as the records, so a crash leaves all
  // of them or none. Two racing first bootstraps both write; the later batch
  // wins key by key.
  std::vector<store::KeyValue> batch;
  batch.reserve(3 + req.extra_regions.size());
  batch.emplace_back(kBootstrappedKey, "1");
  batch.emplace_back(StoreKey(req.store.id), pdpb::Encode(Registered(req.store)));
  batch.emplace_back(RegionKey(req.region.id), pdpb::Encode(req.region));
  for (const pdpb::Region& region : req.extra_regions) {
    batch.emplace_back(RegionKey(region.id), pdpb::Encode(region));
  }
  s = store_->Put(std::move(batch));
  if (!s.ok()) return s;
  resp->already_bootstrapped = false;
  return Status::OK();
}

bool PdService::GetRegionFromIndex(const pdpb::GetRegionRequest& req, pdpb::GetRegionResponse* resp,
                                   Status* status) {
  if (router_ == nullptr || !router_->Route(req.key, resp, status)) return false;
  index_lookups_.Increment();
  return true;
}

Status PdService::GetRegion(const pdpb::GetRegionRequest& req, pdpb::GetRegionResponse* resp) {
  Status s;
  if (GetRegionFromIndex(req, resp, &s)) return s;
  walk_lookups_.Increment();
  return RouteByWalk(req, resp);
}

Status PdService::RouteByWalk(const pdpb::GetRegionRequest& req, pdpb::GetRegionResponse* resp) {
  // The first covering region in key order wins; overlaps are not checked.
  // The records stream by and only each one's bounds are read, in place;
  // only the winner is copied and decoded. A record that does not decode
  // covers nothing, so the other regions stay routable; but when no region
  // covers the key and such a record was met, the answer names the damage
  // rather than a gap in the key space.
  bool any = false;
  bool undecodable = false;
  std::string winner;
  Status s = store_->ForEach(kRegionPrefix, kRegionScanEnd, kRegionScanLimit,
                             [&](std::string_view, std::string_view value) {
                               any = true;
                               std::string_view start;
                               std::string_view end;
                               if (!pdpb::DecodeRegionBounds(value.size(), value.data(), &start, &end)) {
                                 undecodable = true;
                                 return true;
                               }
                               if (!RangeCovers(start, end, req.key)) return true;
                               winner.assign(value);
                               return false;
                             });
  if (!s.ok()) return s;
  if (!any) return Status::NotFound("cluster not bootstrapped");
  pdpb::Region region;
  if (!pdpb::Decode(winner.size(), winner.data(), &region) || winner.empty()) {
    if (undecodable) return Status::Corruption("bad region record");
    return Status::NotFound("no region covers key");
  }
  return AnswerRoute(std::move(region),
                     [this](uint64_t store_id, std::string* value, bool* found) {
                       return store_->Get(StoreKey(store_id), value, found);
                     },
                     resp);
}

namespace {

// The records an upsert writes and the keys it deletes. Deliberately
// unconditional: no epoch or range checks. The reporting stores are
// trusted to send records no older than those stored.
void RegionWrite(const pdpb::UpsertRegionRequest& req, std::vector<store::KeyValue>* puts,
                 std::vector<std::string>* deletes) {
  puts->reserve(req.regions.size());
  for (const pdpb::Region& region : req.regions) {
    puts->emplace_back(RegionKey(region.id), pdpb::Encode(region));
  }
  deletes->reserve(req.removed_region_ids.size());
  for (uint64_t id : req.removed_region_ids) deletes->push_back(RegionKey(id));
}

}  // namespace

Status PdService::UpsertRegion(const pdpb::UpsertRegionRequest& req,
                               pdpb::UpsertRegionResponse* resp) {
  std::vector<store::KeyValue> puts;
  std::vector<std::string> deletes;
  RegionWrite(req, &puts, &deletes);
  Status s = store_->Write(std::move(puts), std::move(deletes));
  if (!s.ok()) return s;
  resp->message.clear();
  return Status::OK();
}

void PdService::UpsertRegionAsync(const pdpb::UpsertRegionRequest& req,
                                  std::function<void(const Status&)> done, bool defer_lead) {
  std::vector<store::KeyValue> puts;
  std::vector<std::string> deletes;
  RegionWrite(req, &puts, &deletes);
  store_->WriteAsync(std::move(puts), std::move(deletes), std::move(done), defer_lead);
}

}  // namespace kandb::meta
