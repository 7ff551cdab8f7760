#include "tools/safe_point_view.h"

#include "tools/text.h"

namespace kandb::tools {

namespace {

// The last millisecond of year 9999: past it (a TTL that runs to the end
// of the clock) there is no date to show.
constexpr uint64_t kLastDateMs = 253402300799999;

std::string ExpiryText(uint64_t expires_ms, uint64_t now_ms) {
  if (expires_ms > kLastDateMs) return "expires never";
  if (expires_ms <= now_ms) return "expired (" + FormatUtcMillis(expires_ms) + ")";
  return "expires in " + FormatElapsed(expires_ms - now_ms) + " (" + FormatUtcMillis(expires_ms) + ")";
}

std::string ServiceName(const std::string& service_id) { return "service \"" + EscapeBytes(service_id) + "\""; }

}  // namespace

std::string SafePointText(uint64_t safe_point) {
  const TsoParts parts = SplitTso(safe_point);
  std::string text = std::to_string(safe_point);
  if (parts.physical_ms != 0) text += " (" + FormatUtcMillis(parts.physical_ms) + ")";
  return text;
}

std::string ServiceSafePointLine(const pdpb::ServiceSafePoint& entry, uint64_t now_ms) {
  return ServiceName(entry.service_id) + " safe point " + SafePointText(entry.safe_point) + " " +
         ExpiryText(entry.expires_ms, now_ms);
}

std::string GcSafePointPage(const pdpb::GetGcSafePointResponse& response, uint64_t now_ms) {
  std::string page = "gc safe point " + SafePointText(response.safe_point) + "\n";
  if (response.services.empty()) page += "no service holds it back\n";
  for (const pdpb::ServiceSafePoint& entry : response.services) page += ServiceSafePointLine(entry, now_ms) + "\n";
  return page;
}

std::string ServiceUpdateText(const pdpb::UpdateServiceSafePointResponse& response, uint64_t now_ms) {
  std::string text;
  if (response.refused) text += "refused: below the service's safe point or the gc safe point\n";
  if (response.expires_ms == 0) {
    text += ServiceName(response.service_id) + " holds no safe point\n";
  } else {
    text += ServiceSafePointLine({response.service_id, response.safe_point, response.expires_ms}, now_ms) + "\n";
  }
  return text + "gc safe point " + SafePointText(response.min_safe_point) + "\n";
}

}  // namespace kandb::tools
