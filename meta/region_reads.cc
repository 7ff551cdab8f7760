// Region reads for clients that warm a route cache: a region by its id, and
// the regions of a key range in key order. Both answer from the routing
// index when it stands for the records, and otherwise read the records
// themselves, as GetRegion does; both present as leader the peer whose
// store last reported the region, which the heartbeat bookkeeping knows.

#include <algorithm>
#include <queue>
#include <string>
#include <utility>
#include <vector>

#include "meta/keys.h"
#include "meta/pd_service.h"
#include "meta/routing.h"

namespace kandb::meta {

uint32_t PdService::ScanLimit(uint32_t requested) {
  if (requested == 0) return pdpb::kScanRegionsDefaultLimit;
  return std::min(requested, pdpb::kScanRegionsMaxLimit);
}

std::optional<uint64_t> PdService::LastReporter(uint64_t region_id) {
  MutexLock lock(&heartbeat_mutex_);
  auto mark = heartbeat_marks_.find(region_id);
  if (mark == heartbeat_marks_.end()) return std::nullopt;
  return mark->second;
}

Status PdService::GetRegionById(const pdpb::GetRegionByIdRequest& req, pdpb::GetRegionResponse* resp) {
  // The mark is read before the record: a heartbeat that comes between
  // them only makes the leader one report older, as any answer may be.
  const std::optional<uint64_t> reporter = LastReporter(req.region_id);
  Status s;
  if (router_ != nullptr && router_->FindRegion(req.region_id, reporter, resp, &s)) return s;

  std::string value;
  bool found = false;
  s = store_->Get(RegionKey(req.region_id), &value, &found);
  if (!s.ok()) return s;
  if (!found) {
    // As GetRegion tells it: no region record at all is a cluster that was
    // never bootstrapped, which one record read settles.
    bool any = false;
    s = store_->ForEach(kRegionPrefix, kRegionScanEnd, 1, [&any](std::string_view, std::string_view) {
      any = true;
      return false;
    });
    if (!s.ok()) return s;
    if (!any) return Status::NotFound("cluster not bootstrapped");
    return Status::NotFound("no region with id " + std::to_string(req.region_id));
  }
  pdpb::Region region;
  if (!pdpb::Decode(value.size(), value.data(), &region)) return Status::Corruption("bad region record");
  return AnswerRoute(
      std::move(region),
      [this](uint64_t store_id, std::string* record, bool* present) {
        return store_->Get(StoreKey(store_id), record, present);
      },
      resp, reporter);
}

Status PdService::ScanRegions(const pdpb::ScanRegionsRequest& req, pdpb::ScanRegionsResponse* resp) {
  std::vector<pdpb::Region> regions;
  Status s;
  if (router_ == nullptr || !router_->Scan(req.start_key, req.end_key, ScanLimit(req.limit), &regions, &s)) {
    s = WalkScan(req, &regions);
  }
  if (!s.ok()) return s;
  PresentScan(std::move(regions), resp);
  return Status::OK();
}

Status PdService::ScanRegionsByWalk(const pdpb::ScanRegionsRequest& req, pdpb::ScanRegionsResponse* resp) {
  std::vector<pdpb::Region> regions;
  Status s = WalkScan(req, &regions);
  if (!s.ok()) return s;
  PresentScan(std::move(regions), resp);
  return Status::OK();
}

Status PdService::WalkScan(const pdpb::ScanRegionsRequest& req, std::vector<pdpb::Region>* regions) {
  // The records stream by in the order of their ids; only the first
  // `limit` by start key (ties by record key, as the index orders them)
  // are kept, in a heap whose top is the last of them, so that a scan
  // holds `limit` records whatever the cluster's size. Bounds are read in
  // place; a record that does not decode covers no key and is passed over,
  // as routing passes it over.
  struct Candidate {
    std::string start;
    std::string key;
    std::string value;
    bool operator<(const Candidate& other) const {
      return start != other.start ? start < other.start : key < other.key;
    }
  };
  const uint32_t limit = ScanLimit(req.limit);
  std::priority_queue<Candidate> kept;
  bool any = false;
  Status s = store_->ForEach(kRegionPrefix, kRegionScanEnd, kRegionScanLimit,
                             [&](std::string_view key, std::string_view value) {
                               any = true;
                               std::string_view start;
                               std::string_view end;
                               if (!pdpb::DecodeRegionBounds(value.size(), value.data(), &start, &end)) return true;
                               if (!RangeMeets(start, end, req.start_key, req.end_key)) return true;
                               if (kept.size() == limit) {
                                 const Candidate& last = kept.top();
                                 if (start > last.start || (start == last.start && key > last.key)) return true;
                               }
                               kept.push(Candidate{std::string(start), std::string(key), std::string(value)});
                               if (kept.size() > limit) kept.pop();
                               return true;
                             });
  if (!s.ok()) return s;
  if (!any) return Status::NotFound("cluster not bootstrapped");
  std::vector<pdpb::Region> answer(kept.size());
  for (size_t i = answer.size(); i > 0; --i) {
    const Candidate& c = kept.top();
    pdpb::Decode(c.value.size(), c.value.data(), &answer[i - 1]);  // decodes: its bounds did
    kept.pop();
  }
  *regions = std::move(answer);
  return Status::OK();
}

void PdService::PresentScan(std::vector<pdpb::Region> regions, pdpb::ScanRegionsResponse* resp) {
  std::vector<std::optional<uint64_t>> reporters(regions.size());
  {
    // One hold for the whole answer: a heartbeat waits at most for these
    // lookups, never for a read.
    MutexLock lock(&heartbeat_mutex_);
    for (size_t i = 0; i < regions.size(); ++i) {
      auto mark = heartbeat_marks_.find(regions[i].id);
      if (mark != heartbeat_marks_.end()) reporters[i] = mark->second;
    }
  }
  pdpb::ScanRegionsResponse answer;
  answer.regions.resize(regions.size());
  for (size_t i = 0; i < regions.size(); ++i) {
    pdpb::ScannedRegion& entry = answer.regions[i];
    if (!regions[i].peers.empty()) entry.leader = regions[i].peers[LeaderIndex(regions[i], reporters[i])];
    entry.region = std::move(regions[i]);
  }
  *resp = std::move(answer);
}

}  // namespace kandb::meta
