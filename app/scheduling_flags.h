#ifndef KANDB_APP_SCHEDULING_FLAGS_H_
#define KANDB_APP_SCHEDULING_FLAGS_H_

// The scheduling flags both servers share: store liveness, failure domains
// and change limits. Defined by each entry point after its own flags, so
// that they follow them in the usage text.

#include <cstdint>
#include <cstdio>
#include <string>

#include "common/flags.h"
#include "meta/scheduler.h"

namespace kandb::app {

struct SchedulingFlags {
  std::string* max_store_down_time;
  std::string* location_labels;
  int64_t* store_limit;
};

inline SchedulingFlags DefineSchedulingFlags() {
  SchedulingFlags flags;
  flags.max_store_down_time = DefineStringFlag(
      "max_store_down_time", "30m",
      "silence after which a store that sends store heartbeats is Down and its replicas are replaced "
      "(e.g. 30m, 90s, 500ms)");
  flags.location_labels = DefineStringFlag(
      "location_labels", "",
      "comma-separated store label keys naming the failure domains, widest first (e.g. zone,rack,host); "
      "a region's replicas go to distinct ones");
  flags.store_limit = DefineInt64Flag(
      "store_limit", 60, "replicas added to or removed from one store per minute, at most, by repair and placement");
  return flags;
}

// The scheduler's options from the flags; false, after printing what is
// wrong as flag errors are printed, when a value is not valid.
inline bool SchedulingOptionsFromFlags(const SchedulingFlags& flags, meta::Scheduler::Options* out) {
  if (!meta::ParseDurationMs(*flags.max_store_down_time, &out->max_store_down_ms) || out->max_store_down_ms <= 0) {
    std::fprintf(stderr, "bad value for --max_store_down_time: '%s'\n", flags.max_store_down_time->c_str());
    return false;
  }
  if (*flags.store_limit <= 0 || *flags.store_limit > meta::Scheduler::kMaxStoreLimit) {
    std::fprintf(stderr, "bad value for --store_limit: '%lld'\n", static_cast<long long>(*flags.store_limit));
    return false;
  }
  out->store_limit = *flags.store_limit;
  out->location_labels.clear();
  const std::string& text = *flags.location_labels;
  size_t start = 0;
  while (start <= text.size() && !text.empty()) {
    const size_t comma = text.find(',', start);
    const size_t end = comma == std::string::npos ? text.size() : comma;
    if (end > start) out->location_labels.push_back(text.substr(start, end - start));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return true;
}

}  // namespace kandb::app

#endif  // KANDB_APP_SCHEDULING_FLAGS_H_
