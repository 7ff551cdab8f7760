#include "tools/stats_view.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <vector>

#include "tools/text.h"

namespace kandb::tools {

namespace {

// The method column: wide enough for the longest method name, and never
// narrower than it always was.
int NameWidth(const pdpb::StatsResponse& s) {
  size_t w = 20;
  for (const pdpb::MethodStats& m : s.methods) w = std::max(w, m.method.size());
  return static_cast<int>(w);
}

std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* format, ...) {
  char buffer[512];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(buffer, sizeof(buffer), format, args);
  va_end(args);
  return std::string(buffer, n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), sizeof(buffer) - 1));
}

// "850ns", "12.3us", "4.56ms", "1.23s".
std::string Duration(double nanos) {
  if (nanos < 1e3) return Format("%.0fns", nanos);
  if (nanos < 1e6) return Format("%.1fus", nanos / 1e3);
  if (nanos < 1e9) return Format("%.2fms", nanos / 1e6);
  return Format("%.2fs", nanos / 1e9);
}

std::string Mean(uint64_t sum_nanos, uint64_t count) {
  return count == 0 ? "-" : Duration(static_cast<double>(sum_nanos) / static_cast<double>(count));
}

// The bound of the bucket in which the `q` quantile falls: "<=16us", or
// ">4.19s" past the last bound; "-" when empty. The buckets are powers of
// two, so this tells the order of magnitude, not the exact figure.
std::string Quantile(const pdpb::LatencyHistogram& h, double q) {
  uint64_t total = 0;
  for (uint64_t c : h.counts) total += c;
  if (total == 0) return "-";
  const uint64_t rank = std::max<uint64_t>(1, static_cast<uint64_t>(q * static_cast<double>(total) + 0.999999));
  uint64_t seen = 0;
  for (size_t i = 0; i < h.counts.size(); ++i) {
    seen += h.counts[i];
    if (seen < rank) continue;
    if (i < h.bounds_micros.size()) return "<=" + Duration(static_cast<double>(h.bounds_micros[i]) * 1e3);
    break;
  }
  if (h.bounds_micros.empty()) return "-";
  return ">" + Duration(static_cast<double>(h.bounds_micros.back()) * 1e3);
}

uint64_t ErrorTotal(const pdpb::MethodStats& m) {
  uint64_t total = 0;
  for (const pdpb::ErrorCount& e : m.errors) total += e.count;
  return total;
}

// "NotFound 3, Corruption 1", or "" without errors.
std::string ErrorsByCode(const pdpb::MethodStats& m) {
  std::string out;
  for (const pdpb::ErrorCount& e : m.errors) {
    if (!out.empty()) out += ", ";
    out += Format("%s %" PRIu64, StatusCodeName(e.code), e.count);
  }
  return out;
}

// `now` less `before`, counter by counter; a histogram of another layout
// (another server version) is not subtracted.
pdpb::LatencyHistogram Minus(const pdpb::LatencyHistogram& now, const pdpb::LatencyHistogram& before) {
  pdpb::LatencyHistogram out = now;
  if (before.counts.size() != now.counts.size()) return out;
  for (size_t i = 0; i < out.counts.size(); ++i) out.counts[i] -= std::min(out.counts[i], before.counts[i]);
  out.count -= std::min(out.count, before.count);
  out.sum_nanos -= std::min(out.sum_nanos, before.sum_nanos);
  return out;
}

// ---- Prometheus ----

class Exposition {
 public:
  // Starts a family: its HELP and TYPE lines.
  void Family(const std::string& name, const char* type, const char* help) {
    name_ = "kandb_meta_" + name;
    text_ += "# HELP " + name_ + " " + help + "\n# TYPE " + name_ + " " + type + "\n";
  }
  // One sample of the current family; `labels` is "" or `a="x",b="y"`.
  void Sample(const std::string& labels, uint64_t value, const char* suffix = "") {
    Line(suffix, labels, Format("%" PRIu64, value));
  }
  void SampleSeconds(const std::string& labels, uint64_t nanos, const char* suffix = "") {
    Line(suffix, labels, Format("%.9f", static_cast<double>(nanos) / 1e9));
  }
  // The samples of a histogram family: cumulative buckets, sum and count.
  void Histogram(const std::string& labels, const pdpb::LatencyHistogram& h) {
    const std::string comma = labels.empty() ? "" : labels + ",";
    uint64_t cumulative = 0;
    for (size_t i = 0; i < h.bounds_micros.size() && i < h.counts.size(); ++i) {
      cumulative += h.counts[i];
      Line("_bucket", comma + Format("le=\"%.6f\"", static_cast<double>(h.bounds_micros[i]) / 1e6),
           Format("%" PRIu64, cumulative));
    }
    for (size_t i = h.bounds_micros.size(); i < h.counts.size(); ++i) cumulative += h.counts[i];
    // The count is taken from the buckets, so that +Inf and _count agree
    // with them even where the server read its count a moment apart.
    Line("_bucket", comma + "le=\"+Inf\"", Format("%" PRIu64, cumulative));
    SampleSeconds(labels, h.sum_nanos, "_sum");
    Sample(labels, cumulative, "_count");
  }
  const std::string& text() const { return text_; }

 private:
  void Line(const char* suffix, const std::string& labels, const std::string& value) {
    text_ += name_ + suffix;
    if (!labels.empty()) text_ += "{" + labels + "}";
    text_ += " " + value + "\n";
  }

  std::string name_;
  std::string text_;
};

// A label value with backslash, double quote and newline escaped, the only
// escapes the format has; any other byte outside printable ASCII (a fault
// text may name a path in any encoding) becomes '?', so the value is
// always valid UTF-8.
std::string LabelValue(std::string_view value) {
  std::string out;
  for (char c : value) {
    if (c == '\\' || c == '"') {
      out += '\\';
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c < ' ' || c > '~') {
      out += '?';
    } else {
      out += c;
    }
  }
  return out;
}

// The scheduler's figures, in the order every view lists them: how the
// readable pages name them, and the label value of the Prometheus sample.
struct SchedulingFigure {
  const char* text;
  const char* label;
  uint64_t pdpb::SchedulingStats::*field;
};

constexpr SchedulingFigure kStoresByState[] = {
    {"up", "up", &pdpb::SchedulingStats::stores_up},
    {"disconnected", "disconnected", &pdpb::SchedulingStats::stores_disconnected},
    {"down", "down", &pdpb::SchedulingStats::stores_down},
    {"offline", "offline", &pdpb::SchedulingStats::stores_offline},
    {"tombstone", "tombstone", &pdpb::SchedulingStats::stores_tombstone},
    {"unknown", "unknown", &pdpb::SchedulingStats::stores_unknown},
};

constexpr SchedulingFigure kCommandsByKind[] = {
    {"promote learner", "promote_learner", &pdpb::SchedulingStats::promote_learner},
    {"add peer", "add_peer", &pdpb::SchedulingStats::add_peer},
    {"remove peer", "remove_peer", &pdpb::SchedulingStats::remove_peer},
    {"destroy stale replica", "destroy_stale_replica", &pdpb::SchedulingStats::destroy_stale_replica},
    {"transfer leader", "transfer_leader", &pdpb::SchedulingStats::transfer_leader},
};

// The stores and regions lines, the same on both readable pages: they are
// the state of the moment, not counters.
std::string SchedulingState(const pdpb::SchedulingStats& g) {
  std::string out = "stores        ";
  for (const SchedulingFigure& f : kStoresByState) {
    if (&f != kStoresByState) out += ", ";
    out += Format("%s %" PRIu64, f.text, g.*f.field);
  }
  out += Format("\nregions       %" PRIu64 " missing a replica, %" PRIu64 " on a down store, %" PRIu64
                " on an offline store\n",
                g.regions_missing_replica, g.regions_on_down_store, g.regions_on_offline_store);
  return out;
}

std::string MethodLabel(const pdpb::MethodStats& m) { return "method=\"" + LabelValue(m.method) + "\""; }

}  // namespace

const char* StatusCodeName(uint32_t code) {
  switch (code) {
    case 1: return "InvalidArgument";
    case 2: return "Corruption";
    case 3: return "NotFound";
    case 4: return "Unavailable";
    default: return "Unknown";
  }
}

std::string StatsText(const pdpb::StatsResponse& s) {
  std::string out;
  out += Format("uptime        %s\n", FormatElapsed(s.uptime_ms).c_str());
  out += Format("connections   open %" PRIu64 ", accepted %" PRIu64 ", failed accepts %" PRIu64 "%s\n",
                s.connections.open, s.connections.accepted, s.connections.failed_accepts,
                s.connections.tls_refused > 0
                    ? Format(", TLS refused %" PRIu64, s.connections.tls_refused).c_str()
                    : "");
  const int w = NameWidth(s);
  out += Format("\n%-*s %12s %8s %9s %9s %9s\n", w, "method", "requests", "errors", "mean", "p50", "p99");
  for (const pdpb::MethodStats& m : s.methods) {
    out += Format("%-*s %12" PRIu64 " %8" PRIu64 " %9s %9s %9s\n", w, m.method.c_str(), m.requests, ErrorTotal(m),
                  Mean(m.latency.sum_nanos, m.latency.count).c_str(), Quantile(m.latency, 0.5).c_str(),
                  Quantile(m.latency, 0.99).c_str());
  }
  out += Format("%-*s %12" PRIu64 "\n", w, "(unknown methods)", s.unknown_method_requests);
  for (const pdpb::MethodStats& m : s.methods) {
    if (!m.errors.empty()) out += Format("errors of %s: %s\n", m.method.c_str(), ErrorsByCode(m).c_str());
  }

  out += "\n";
  if (!s.has_engine) {
    out += "engine        none of its own (the store lies on etcd)\n";
  } else {
    const pdpb::EngineStats& e = s.engine;
    const double per_group =
        e.write_groups == 0 ? 0.0 : static_cast<double>(e.batches) / static_cast<double>(e.write_groups);
    out += Format("write groups  %" PRIu64 ", batches %" PRIu64 " (%.2f per group, at most %" PRIu64 ")\n",
                  e.write_groups, e.batches, per_group, e.max_group_size);
    out += Format("log           %s written, %" PRIu64 " fdatasyncs, mean %s, p99 %s\n",
                  FormatBytes(static_cast<double>(e.log_bytes)).c_str(), e.syncs,
                  Mean(e.sync_latency.sum_nanos, e.sync_latency.count).c_str(),
                  Quantile(e.sync_latency, 0.99).c_str());
    out += Format("memtables     %s, %" PRIu64 " waiting for flush\n",
                  FormatBytes(static_cast<double>(e.memtable_bytes)).c_str(), e.immutable_memtables);
    out += Format("table files   %" PRIu64 ", %s\n", e.table_files, FormatBytes(static_cast<double>(e.table_bytes)).c_str());
    out += Format("flushes       %" PRIu64 " in %s, compactions %" PRIu64 " in %s\n", e.flushes,
                  Duration(static_cast<double>(e.flush_nanos)).c_str(), e.compactions,
                  Duration(static_cast<double>(e.compaction_nanos)).c_str());
    out += Format("faults        disk full %" PRIu64 ", failed syncs %" PRIu64 ", other %" PRIu64 "\n",
                  e.disk_full_faults, e.sync_faults, e.other_faults);
    if (!e.last_fault.empty()) out += "last fault    " + e.last_fault + "\n";
  }
  out += Format("routing       %" PRIu64 " regions in the index; lookups by index %" PRIu64 ", by walk %" PRIu64 "\n",
                s.routing.index_regions, s.routing.index_lookups, s.routing.walk_lookups);
  out += SchedulingState(s.scheduling);
  out += "scheduled     ";
  for (const SchedulingFigure& f : kCommandsByKind) {
    if (&f != kCommandsByKind) out += ", ";
    out += Format("%s %" PRIu64, f.text, s.scheduling.*f.field);
  }
  out += "\n";
  return out;
}

std::string StatsPrometheus(const pdpb::StatsResponse& s) {
  Exposition x;
  x.Family("uptime_seconds", "gauge", "Seconds since the server started.");
  x.SampleSeconds("", s.uptime_ms * 1000000);

  x.Family("requests_total", "counter", "Requests answered, failures included, by method.");
  for (const pdpb::MethodStats& m : s.methods) x.Sample(MethodLabel(m), m.requests);
  x.Family("request_errors_total", "counter", "Failed requests by method and status code.");
  for (const pdpb::MethodStats& m : s.methods) {
    for (const pdpb::ErrorCount& e : m.errors) {
      x.Sample(MethodLabel(m) + ",code=\"" + StatusCodeName(e.code) + "\"", e.count);
    }
  }
  x.Family("request_duration_seconds", "histogram",
           "Time from reading a request to writing its answer, by method.");
  for (const pdpb::MethodStats& m : s.methods) x.Histogram(MethodLabel(m), m.latency);
  x.Family("unknown_method_requests_total", "counter", "Requests naming a method the server does not have.");
  x.Sample("", s.unknown_method_requests);

  x.Family("connections_open", "gauge", "Client connections being served.");
  x.Sample("", s.connections.open);
  x.Family("connections_accepted_total", "counter", "Client connections accepted.");
  x.Sample("", s.connections.accepted);
  x.Family("accept_failures_total", "counter",
           "Failed accepts, and calls refused for want of a worker thread.");
  x.Sample("", s.connections.failed_accepts);
  x.Family("tls_refused_total", "counter",
           "TLS clients refused during their handshake: certificate or name not let in, no TLS, too slow.");
  x.Sample("", s.connections.tls_refused);

  x.Family("engine_present", "gauge", "1 when the metadata store has a storage engine of its own, 0 on etcd.");
  x.Sample("", s.has_engine ? 1 : 0);
  if (s.has_engine) {
    const pdpb::EngineStats& e = s.engine;
    x.Family("engine_write_groups_total", "counter", "Write groups logged, each with one log write.");
    x.Sample("", e.write_groups);
    x.Family("engine_batches_total", "counter", "Write batches logged in those groups.");
    x.Sample("", e.batches);
    x.Family("engine_max_group_size", "gauge", "Most batches in one write group since start.");
    x.Sample("", e.max_group_size);
    x.Family("engine_syncs_total", "counter", "fdatasync calls on the write-ahead log.");
    x.Sample("", e.syncs);
    x.Family("engine_sync_duration_seconds", "histogram", "Duration of the write-ahead log's fdatasync calls.");
    x.Histogram("", e.sync_latency);
    x.Family("engine_log_written_bytes_total", "counter", "Bytes appended to write-ahead logs.");
    x.Sample("", e.log_bytes);
    x.Family("engine_memtable_bytes", "gauge", "Approximate bytes held in memtables.");
    x.Sample("", e.memtable_bytes);
    x.Family("engine_immutable_memtables", "gauge", "Full memtables waiting for flush.");
    x.Sample("", e.immutable_memtables);
    x.Family("engine_table_files", "gauge", "Live table files.");
    x.Sample("", e.table_files);
    x.Family("engine_table_bytes", "gauge", "Bytes in live table files.");
    x.Sample("", e.table_bytes);
    x.Family("engine_flushes_total", "counter", "Memtables flushed to table files.");
    x.Sample("", e.flushes);
    x.Family("engine_flush_seconds_total", "counter", "Time spent flushing.");
    x.SampleSeconds("", e.flush_nanos);
    x.Family("engine_compactions_total", "counter", "Merges of every table file into one.");
    x.Sample("", e.compactions);
    x.Family("engine_compaction_seconds_total", "counter", "Time spent compacting.");
    x.SampleSeconds("", e.compaction_nanos);
    x.Family("engine_faults_total", "counter", "Storage faults survived, by kind.");
    x.Sample("kind=\"disk_full\"", e.disk_full_faults);
    x.Sample("kind=\"sync\"", e.sync_faults);
    x.Sample("kind=\"other\"", e.other_faults);
    if (!e.last_fault.empty()) {
      x.Family("engine_last_fault_info", "gauge", "The text of the latest storage fault, as a label.");
      x.Sample("text=\"" + LabelValue(e.last_fault) + "\"", 1);
    }
  }

  x.Family("routing_index_regions", "gauge", "Region records in the routing index.");
  x.Sample("", s.routing.index_regions);
  x.Family("routing_lookups_total", "counter", "Routing requests, by what answered them.");
  x.Sample("answered_by=\"index\"", s.routing.index_lookups);
  x.Sample("answered_by=\"walk\"", s.routing.walk_lookups);

  const pdpb::SchedulingStats& g = s.scheduling;
  x.Family("stores", "gauge", "Stores by the state the scheduler sees them in.");
  for (const SchedulingFigure& f : kStoresByState) x.Sample(std::string("state=\"") + f.label + "\"", g.*f.field);
  x.Family("regions_missing_replica", "gauge",
           "Regions with fewer members than the replica target, as their leaders last reported them.");
  x.Sample("", g.regions_missing_replica);
  x.Family("regions_on_down_store", "gauge", "Regions with a member on a down store.");
  x.Sample("", g.regions_on_down_store);
  x.Family("regions_on_offline_store", "gauge", "Regions with a member on an offline store.");
  x.Sample("", g.regions_on_offline_store);
  x.Family("schedule_commands_total", "counter", "Scheduling commands issued in heartbeat answers, by kind.");
  for (const SchedulingFigure& f : kCommandsByKind) x.Sample(std::string("kind=\"") + f.label + "\"", g.*f.field);
  return x.text();
}

std::string StatsRates(const pdpb::StatsResponse& before_in, const pdpb::StatsResponse& now) {
  static const pdpb::StatsResponse kNone;
  const pdpb::StatsResponse& before = before_in.uptime_ms <= now.uptime_ms ? before_in : kNone;
  const double seconds = static_cast<double>(now.uptime_ms - before.uptime_ms) / 1e3;
  auto rate = [seconds](uint64_t now_value, uint64_t before_value) {
    if (seconds <= 0 || now_value < before_value) return 0.0;
    return static_cast<double>(now_value - before_value) / seconds;
  };

  std::string out;
  out += Format("uptime %s, rates over the last %.1f s\n", FormatElapsed(now.uptime_ms).c_str(), seconds);
  out += Format("connections   open %" PRIu64 ", accepted %.1f/s, failed accepts %.1f/s\n", now.connections.open,
                rate(now.connections.accepted, before.connections.accepted),
                rate(now.connections.failed_accepts, before.connections.failed_accepts));
  const int w = NameWidth(now);
  out += Format("\n%-*s %11s %9s %9s %9s %9s\n", w, "method", "requests/s", "errors/s", "mean", "p50", "p99");
  for (const pdpb::MethodStats& m : now.methods) {
    const pdpb::MethodStats* old = nullptr;
    for (const pdpb::MethodStats& b : before.methods) {
      if (b.method == m.method) old = &b;
    }
    const pdpb::MethodStats zero;
    if (old == nullptr) old = &zero;
    const pdpb::LatencyHistogram latency = Minus(m.latency, old->latency);
    out += Format("%-*s %11.1f %9.1f %9s %9s %9s\n", w, m.method.c_str(), rate(m.requests, old->requests),
                  rate(ErrorTotal(m), ErrorTotal(*old)), Mean(latency.sum_nanos, latency.count).c_str(),
                  Quantile(latency, 0.5).c_str(), Quantile(latency, 0.99).c_str());
  }
  out += Format("%-*s %11.1f\n", w, "(unknown methods)",
                rate(now.unknown_method_requests, before.unknown_method_requests));

  out += "\n";
  if (!now.has_engine) {
    out += "engine        none of its own (the store lies on etcd)\n";
  } else {
    const pdpb::EngineStats& e = now.engine;
    const pdpb::EngineStats& b = before.engine;
    const uint64_t groups = e.write_groups - std::min(e.write_groups, b.write_groups);
    const uint64_t batches = e.batches - std::min(e.batches, b.batches);
    const pdpb::LatencyHistogram sync = Minus(e.sync_latency, b.sync_latency);
    out += Format("write groups  %.1f/s, batches %.1f/s (%.2f per group)\n", rate(e.write_groups, b.write_groups),
                  rate(e.batches, b.batches),
                  groups == 0 ? 0.0 : static_cast<double>(batches) / static_cast<double>(groups));
    out += Format("log           %s/s, fdatasyncs %.1f/s, mean %s, p99 %s\n",
                  FormatBytes(rate(e.log_bytes, b.log_bytes)).c_str(), rate(e.syncs, b.syncs),
                  Mean(sync.sum_nanos, sync.count).c_str(), Quantile(sync, 0.99).c_str());
    out += Format("memtables     %s, %" PRIu64 " waiting; table files %" PRIu64 ", %s\n",
                  FormatBytes(static_cast<double>(e.memtable_bytes)).c_str(), e.immutable_memtables, e.table_files,
                  FormatBytes(static_cast<double>(e.table_bytes)).c_str());
    out += Format("faults        %" PRIu64 " new (%" PRIu64 " since start)\n",
                  (e.disk_full_faults + e.sync_faults + e.other_faults) -
                      std::min(e.disk_full_faults + e.sync_faults + e.other_faults,
                               b.disk_full_faults + b.sync_faults + b.other_faults),
                  e.disk_full_faults + e.sync_faults + e.other_faults);
    if (!e.last_fault.empty()) out += "last fault    " + e.last_fault + "\n";
  }
  out += Format("routing       %" PRIu64 " regions in the index; lookups by index %.1f/s, by walk %.1f/s\n",
                now.routing.index_regions, rate(now.routing.index_lookups, before.routing.index_lookups),
                rate(now.routing.walk_lookups, before.routing.walk_lookups));
  out += SchedulingState(now.scheduling);
  out += "scheduled     ";
  for (const SchedulingFigure& f : kCommandsByKind) {
    if (&f != kCommandsByKind) out += ", ";
    out += Format("%s %.1f/s", f.text, rate(now.scheduling.*f.field, before.scheduling.*f.field));
  }
  out += "\n";
  return out;
}

}  // namespace kandb::tools
