#include "tools/sim_safe_points.h"

#include <algorithm>
#include <utility>

#include "pdpb/messages.h"
#include "tools/text.h"

namespace kandb::tools::sim {

namespace {

// One typed call through the raw one; false when it failed or the answer
// did not decode.
template <class Req, class Resp>
bool TypedCall(const RawCall& call, const char* method, const Req& request, Resp* response) {
  std::string answer;
  if (!call(method, pdpb::Encode(request), &answer).ok()) return false;
  return pdpb::Decode(answer.size(), answer.data(), response);
}

}  // namespace

SafePointLoad::SafePointLoad(SafePointOptions options, RawCall call)
    : options_(std::move(options)), call_(std::move(call)) {
  services_.resize(options_.services);
  for (size_t i = 0; i < services_.size(); ++i) services_[i].id = options_.id_prefix + std::to_string(i);
}

uint64_t SafePointLoad::PacedSafePoint(size_t index, int64_t now_ms) const {
  const uint64_t elapsed = static_cast<uint64_t>(std::max<int64_t>(now_ms - start_ms_, 0));
  const uint64_t from = static_cast<uint64_t>(std::max<int64_t>(start_ms_ - options_.lag_ms, 0));
  const uint64_t physical = from + elapsed * (index + 1) / services_.size();
  return physical << kTsoLogicalBits;
}

void SafePointLoad::Tick(int64_t now_ms) {
  if (start_ms_ < 0) start_ms_ = now_ms;
  const int64_t since_start = now_ms - start_ms_;
  for (size_t i = 0; i < services_.size(); ++i) {
    const bool silent = i == options_.silent && options_.silent_from_ms >= 0 &&
                        since_start >= options_.silent_from_ms && since_start < options_.silent_until_ms;
    if (silent || now_ms < services_[i].next_update_ms) continue;
    services_[i].next_update_ms = now_ms + options_.update_interval_ms;
    UpdateService(i, now_ms);
  }
  ReadGcSafePoint();
}

void SafePointLoad::UpdateService(size_t index, int64_t now_ms) {
  Service& service = services_[index];
  service.safe_point = std::max(service.safe_point, PacedSafePoint(index, now_ms));
  pdpb::UpdateServiceSafePointRequest request{service.id, options_.ttl_s, service.safe_point};
  pdpb::UpdateServiceSafePointResponse response;
  if (!TypedCall(call_, "Pd.UpdateServiceSafePoint", request, &response)) {
    figures_.failed_calls++;
    return;
  }
  figures_.updates++;
  SeeGcSafePoint(response.min_safe_point);
  if (!response.refused) return;
  figures_.refused++;
  if (response.min_safe_point <= service.safe_point) return;
  // Below the GC safe point (back from a silence that outlived its TTL):
  // what it wanted to read may be gone already. It holds the GC safe
  // point from where it stands now, at once, before it moves on.
  service.safe_point = response.min_safe_point;
  request.safe_point = service.safe_point;
  response = pdpb::UpdateServiceSafePointResponse{};
  if (!TypedCall(call_, "Pd.UpdateServiceSafePoint", request, &response)) {
    figures_.failed_calls++;
    return;
  }
  figures_.updates++;
  SeeGcSafePoint(response.min_safe_point);
  if (response.refused) figures_.refused++;
}

void SafePointLoad::ReadGcSafePoint() {
  pdpb::GetGcSafePointResponse response;
  if (!TypedCall(call_, "Pd.GetGcSafePoint", pdpb::GetGcSafePointRequest{}, &response)) {
    figures_.failed_calls++;
    return;
  }
  figures_.reads++;
  SeeGcSafePoint(response.safe_point);
  for (const pdpb::ServiceSafePoint& entry : response.services) {
    if (entry.safe_point < response.safe_point) {
      figures_.above_live_service++;
      break;
    }
  }
}

void SafePointLoad::SeeGcSafePoint(uint64_t gc_safe_point) {
  if (gc_safe_point < figures_.gc_safe_point) {
    figures_.went_backwards++;
  } else if (gc_safe_point > figures_.gc_safe_point) {
    figures_.gc_advances++;
    figures_.gc_safe_point = gc_safe_point;
  }
}

std::string SafePointLoad::Summary() const {
  const SafePointFigures& f = figures_;
  std::string gc = std::to_string(f.gc_safe_point);
  const uint64_t physical_ms = SplitTso(f.gc_safe_point).physical_ms;
  if (physical_ms != 0) gc += " (" + FormatUtcMillis(physical_ms) + ")";
  return "safe points: " + std::to_string(f.updates) + " updates (" + std::to_string(f.refused) + " refused), " +
         std::to_string(f.reads) + " reads, gc safe point " + gc + ", advanced " + std::to_string(f.gc_advances) +
         " times, " + std::to_string(f.went_backwards) + " backwards, " + std::to_string(f.above_live_service) +
         " above a live service, " + std::to_string(f.failed_calls) + " failed calls";
}

}  // namespace kandb::tools::sim
