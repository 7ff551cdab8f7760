// The GC safe point and the service safe points that hold it back. Every
// call reads the persisted GC safe point and every service entry, decides,
// and writes what changed as one batch, all under safe_point_mutex_: the
// entries live only in the store, so that a restart or a replicated
// server's new leader starts from exactly what was answered.
//
// What a crash leaves: a batch lands whole or not at all, and nothing is
// answered before its batch is acknowledged. An update lost that way was
// never answered; the client sends it again.

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "common/coding.h"
#include "meta/keys.h"
#include "meta/pd_service.h"

namespace kandb::meta {

namespace {

// Far above kMaxServiceSafePoints (expired entries wait for the next
// update to be deleted), and a read that reaches it fails: a lowest safe
// point taken over part of the entries could be too high.
constexpr uint32_t kServiceScanLimit = 1000000;

uint64_t ExpiryOf(uint64_t now_ms, uint64_t ttl_s) {
  constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
  if (ttl_s > (kMax - now_ms) / 1000) return kMax;  // lives as long as the clock does
  return now_ms + ttl_s * 1000;
}

}  // namespace

// The safe point state as one call read it.
struct PdService::SafePoints {
  uint64_t persisted = 0;                      // "pd/gc/safe_point"; 0 when absent
  std::vector<pdpb::ServiceSafePoint> live;    // in service id order
  std::vector<std::string> expired_keys;       // entries whose time ran out

  // The GC safe point these entries give: never below the persisted one.
  uint64_t GcSafePoint() const {
    if (live.empty()) return persisted;
    uint64_t lowest = live.front().safe_point;
    for (const pdpb::ServiceSafePoint& entry : live) lowest = std::min(lowest, entry.safe_point);
    return std::max(persisted, lowest);
  }
  // The live entry of `service_id`, or null.
  pdpb::ServiceSafePoint* Find(const std::string& service_id) {
    auto it = std::lower_bound(live.begin(), live.end(), service_id,
                               [](const pdpb::ServiceSafePoint& e, const std::string& id) { return e.service_id < id; });
    return it != live.end() && it->service_id == service_id ? &*it : nullptr;
  }
};

namespace {

// Holds safe_point_mutex_; a call that finds it taken tells the test hook
// before it waits, so that a test knows the call is queued behind another.
class SCOPED_CAPABILITY SafePointLock {
 public:
  SafePointLock(Mutex* mu, const std::function<void(PdService::SafePointStep)>& hook) ACQUIRE(mu) : mu_(mu) {
    if (mu_->TryLock()) return;
    if (hook) hook(PdService::SafePointStep::kLockBusy);
    mu_->Lock();
  }
  ~SafePointLock() RELEASE() { mu_->Unlock(); }
  SafePointLock(const SafePointLock&) = delete;
  SafePointLock& operator=(const SafePointLock&) = delete;

 private:
  Mutex* const mu_;
};

std::string EncodeGcSafePoint(uint64_t safe_point) {
  std::string value;
  PutFixed64(&value, safe_point);
  return value;
}

}  // namespace

Status PdService::ReadSafePoints(uint64_t now_ms, SafePoints* out) {
  std::string value;
  bool found = false;
  Status s = store_->Get(kGcSafePointKey, &value, &found);
  if (!s.ok()) return s;
  if (found) {
    // A damaged value is not read as 0: that would let the GC safe point
    // fall back to whatever the services hold now.
    if (value.size() != 8) {
      return Status::Corruption(std::string("gc safe point ") + kGcSafePointKey + " has " +
                                std::to_string(value.size()) + " bytes, not 8");
    }
    out->persisted = DecodeFixed64(value.data());
  }
  std::vector<store::KeyValue> entries;
  s = store_->Scan(kServiceSafePointPrefix, kServiceSafePointScanEnd, kServiceScanLimit, &entries);
  if (!s.ok()) return s;
  if (entries.size() >= kServiceScanLimit) {
    return Status::Corruption("over " + std::to_string(kServiceScanLimit) + " service safe points");
  }
  for (store::KeyValue& kv : entries) {
    pdpb::ServiceSafePoint entry;
    if (!pdpb::Decode(kv.second.size(), kv.second.data(), &entry)) {
      return Status::Corruption("bad service safe point record " + kv.first);
    }
    if (entry.expires_ms <= now_ms) {
      out->expired_keys.push_back(std::move(kv.first));
    } else {
      out->live.push_back(std::move(entry));
    }
  }
  return Status::OK();
}

Status PdService::UpdateServiceSafePoint(const pdpb::UpdateServiceSafePointRequest& req,
                                         pdpb::UpdateServiceSafePointResponse* resp) {
  if (req.service_id.empty()) return Status::InvalidArgument("safe point: service id is empty");
  if (req.service_id.size() > kMaxServiceIdSize) {
    return Status::InvalidArgument("safe point: service id of " + std::to_string(req.service_id.size()) +
                                   " bytes is over " + std::to_string(kMaxServiceIdSize));
  }
  SafePointLock lock(&safe_point_mutex_, safe_point_hook_);
  const uint64_t now_ms = clock_ms_();
  SafePoints state;
  Status s = ReadSafePoints(now_ms, &state);
  if (!s.ok()) return s;
  if (safe_point_hook_) safe_point_hook_(SafePointStep::kRead);

  const uint64_t gc_before = state.GcSafePoint();
  pdpb::ServiceSafePoint* current = state.Find(req.service_id);
  pdpb::UpdateServiceSafePointResponse answer;
  answer.service_id = req.service_id;
  std::vector<store::KeyValue> puts;
  std::vector<std::string> deletes;
  const std::string key = ServiceSafePointKey(req.service_id);

  if (req.ttl_s == 0) {
    if (current != nullptr) {
      deletes.push_back(key);
      state.live.erase(state.live.begin() + (current - state.live.data()));
    }
    deletes.insert(deletes.end(), state.expired_keys.begin(), state.expired_keys.end());
  } else if ((current != nullptr && req.safe_point < current->safe_point) || req.safe_point < gc_before) {
    // A late update (one that a higher one overtook), or one that would pull
    // the lowest safe point under what GC may already have removed: the
    // client learns where things stand instead, and nothing of the entries
    // is written.
    answer.refused = true;
    if (current != nullptr) {
      answer.safe_point = current->safe_point;
      answer.expires_ms = current->expires_ms;
    }
  } else {
    pdpb::ServiceSafePoint updated{req.service_id, req.safe_point, ExpiryOf(now_ms, req.ttl_s)};
    if (current == nullptr && state.live.size() >= kMaxServiceSafePoints) {
      return Status::InvalidArgument("safe point: " + std::to_string(kMaxServiceSafePoints) +
                                     " services hold safe points already");
    }
    puts.emplace_back(key, pdpb::Encode(updated));
    // The service's own expired entry is overwritten, not deleted: the
    // batch applies its deletions after its puts, and a deletion of the
    // same key would drop the entry just answered as accepted.
    for (std::string& expired : state.expired_keys) {
      if (expired != key) deletes.push_back(std::move(expired));
    }
    answer.safe_point = updated.safe_point;
    answer.expires_ms = updated.expires_ms;
    if (current != nullptr) {
      *current = std::move(updated);
    } else {
      state.live.push_back(std::move(updated));  // order no longer matters
    }
  }

  // Never below what was answered before this call (gc_before, which an
  // expiry may have raised past the persisted value), whatever a removal
  // left; persisted in the same batch whenever it moved up.
  answer.min_safe_point = std::max(gc_before, state.GcSafePoint());
  if (answer.min_safe_point > state.persisted) {
    puts.emplace_back(kGcSafePointKey, EncodeGcSafePoint(answer.min_safe_point));
  }
  if (!puts.empty() || !deletes.empty()) {
    s = store_->Write(std::move(puts), std::move(deletes));
    if (!s.ok()) return s;
  }
  *resp = std::move(answer);
  return Status::OK();
}

Status PdService::GetGcSafePoint(const pdpb::GetGcSafePointRequest&, pdpb::GetGcSafePointResponse* resp) {
  SafePointLock lock(&safe_point_mutex_, safe_point_hook_);
  SafePoints state;
  Status s = ReadSafePoints(clock_ms_(), &state);
  if (!s.ok()) return s;
  if (safe_point_hook_) safe_point_hook_(SafePointStep::kRead);
  pdpb::GetGcSafePointResponse answer;
  answer.safe_point = state.GcSafePoint();
  // The lowest service expired since the last write: the value answered
  // now is persisted first, or the expiry of the rest could take the
  // answer back down to the old one.
  if (answer.safe_point > state.persisted) {
    s = store_->Put({{kGcSafePointKey, EncodeGcSafePoint(answer.safe_point)}});
    if (!s.ok()) return s;
  }
  answer.services = std::move(state.live);
  *resp = std::move(answer);
  return Status::OK();
}

}  // namespace kandb::meta
