#include "tools/store_view.h"

#include "tools/describe.h"
#include "tools/json_messages.h"
#include "tools/text.h"

namespace kandb::tools {

namespace {

// Whether the store has reported its load to this server. A heartbeat
// taken sets the time; figures without one are the zeros of no report.
bool Reported(const pdpb::StoreInfo& info) {
  return info.last_heartbeat_ms != 0 || info.stats != pdpb::StoreStats{};
}

std::string Age(uint64_t then_ms, uint64_t now_ms) {
  return FormatElapsed(now_ms > then_ms ? now_ms - then_ms : 0) + " ago";
}

// "80.0 GiB (85899345920 bytes)"; below a KiB the unit is exact already.
std::string ExactBytes(uint64_t bytes) {
  std::string text = FormatBytes(static_cast<double>(bytes));
  if (bytes >= 1024) text += " (" + std::to_string(bytes) + " bytes)";
  return text;
}

// One line of the page: the name padded to a column, then the value.
void Field(std::string* page, const char* name, const std::string& value) {
  std::string line = name;
  line.resize(17, ' ');
  *page += line + value + "\n";
}

}  // namespace

std::string StoreStateText(uint8_t state) {
  const char* name = StoreStateName(state);
  return *name != '\0' ? std::string(name) : "state " + std::to_string(state);
}

std::string StoreLabelsText(const std::vector<pdpb::StoreLabel>& labels) {
  if (labels.empty()) return "-";
  std::string text;
  for (const pdpb::StoreLabel& label : labels) {
    if (!text.empty()) text += ',';
    text += EscapeBytes(label.key) + "=" + EscapeBytes(label.value);
  }
  return text;
}

std::string StoreLine(const pdpb::StoreInfo& info, uint64_t now_ms) {
  std::string line = "store " + std::to_string(info.store.id) + " " + StoreStateText(info.state) + " address " +
                     Quote(info.store.address) + " labels " + StoreLabelsText(info.store.labels) + " replicas " +
                     std::to_string(info.replicas);
  if (Reported(info)) {
    line += " regions " + std::to_string(info.stats.region_count) + " leaders " +
            std::to_string(info.stats.leader_count) + " available " +
            FormatBytes(static_cast<double>(info.stats.available)) + "/" +
            FormatBytes(static_cast<double>(info.stats.capacity));
  } else {
    line += " regions - leaders - available -";
  }
  line += " heartbeat " + (info.last_heartbeat_ms == 0 ? std::string("none") : Age(info.last_heartbeat_ms, now_ms));
  return line;
}

std::string StorePage(const pdpb::StoreInfo& info, uint64_t now_ms) {
  const char* node_state = NodeStateName(info.store.node_state);
  std::string page;
  Field(&page, "store", std::to_string(info.store.id));
  Field(&page, "state", StoreStateText(info.state));
  Field(&page, "address", Quote(info.store.address));
  Field(&page, "labels", StoreLabelsText(info.store.labels));
  Field(&page, "node state",
        *node_state != '\0' ? std::string(node_state) : std::to_string(info.store.node_state));
  Field(&page, "replicas", std::to_string(info.replicas) + " in region records");
  if (Reported(info)) {
    const pdpb::StoreStats& s = info.stats;
    Field(&page, "regions",
          std::to_string(s.region_count) + " reported, leading " + std::to_string(s.leader_count));
    Field(&page, "capacity", ExactBytes(s.capacity));
    Field(&page, "available", ExactBytes(s.available));
    Field(&page, "used", ExactBytes(s.used_size));
    Field(&page, "snapshots",
          "sending " + std::to_string(s.sending_snap_count) + ", receiving " + std::to_string(s.receiving_snap_count));
  } else {
    Field(&page, "load", "not reported to this server");
  }
  Field(&page, "first heartbeat",
        info.store.first_heartbeat_ms == 0 ? std::string("none") : FormatUtcMillis(info.store.first_heartbeat_ms));
  Field(&page, "last heartbeat",
        info.last_heartbeat_ms == 0
            ? std::string("none since this server took over")
            : FormatUtcMillis(info.last_heartbeat_ms) + ", " + Age(info.last_heartbeat_ms, now_ms));
  return page;
}

}  // namespace kandb::tools
