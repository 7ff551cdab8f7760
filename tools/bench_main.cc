// kandb-meta-bench: a closed-loop load generator for the placement-driver
// server. Each connection is one thread with its own client that sends the
// next request as soon as the previous answer arrived. Every answer is
// checked: timestamps increase, identifier ranges never overlap, the routed
// region covers the key. It prints a progress line each second on standard
// error and a final report (or --json) on standard output, and exits with
// status 1 when any call failed or any answer was wrong.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "pdpb/messages.h"
#include "rpc/client.h"
#include "tools/command_line.h"
#include "tools/latency.h"
#include "tools/text.h"

namespace kandb::tools {
namespace {

constexpr char kProgram[] = "kandb-meta-bench";
// Region records per preload request: large enough to load 100,000 regions
// in a hundred calls, small enough to stay far below the frame limit.
constexpr size_t kPreloadBatch = 1000;
// The store that the bench bootstraps the cluster with and names in its
// regions and heartbeats.
constexpr uint64_t kBenchStoreId = 1;
constexpr char kBenchStoreAddress[] = "127.0.0.1:20160";
constexpr size_t kKeptMessages = 5;

enum Method { kTso, kAllocId, kGetRegion, kUpsertRegion, kHeartbeat, kMethodCount };
const char* const kMethodNames[kMethodCount] = {"tso", "alloc-id", "get-region", "upsert-region", "heartbeat"};
const char* const kRpcNames[kMethodCount] = {"Pd.Tso", "Pd.AllocId", "Pd.GetRegion", "Pd.UpsertRegion",
                                             "Pd.RegionHeartbeat"};
// Share of each method in --method mix, in percent.
const int kMixWeights[kMethodCount] = {30, 15, 30, 15, 10};

struct Config {
  std::string addr = "127.0.0.1:2379";
  std::string method = "tso";
  uint64_t conns = 1;
  std::string duration;
  uint64_t requests = 0;
  uint64_t preload = 0;
  uint64_t count = 1;
  uint64_t timeout_ms = 5000;
  bool json = false;
  int64_t duration_ms = 10000;
  bool mix = false;
  Method single = kTso;
};

std::string TileKey(uint64_t i) {
  char key[32];
  std::snprintf(key, sizeof(key), "bench/%010llu", static_cast<unsigned long long>(i));
  return key;
}

// The regions the bench routes and rewrites: either `tiles` regions that
// cut the key space into disjoint ranges in key order (region i covers
// [TileKey(i), TileKey(i+1)), the first from -inf, the last to +inf), or,
// without preload, the one region that covers everything.
struct Regions {
  uint64_t first_id = 0;
  uint64_t tiles = 0;

  pdpb::Region Tile(uint64_t i, uint64_t version) const {
    pdpb::Region region;
    region.id = first_id + i;
    if (i > 0) region.start_key = TileKey(i);
    if (i + 1 < tiles) region.end_key = TileKey(i + 1);
    region.epoch = {1, version};
    // Peer ids follow the region ids in the same allocated block.
    region.peers.push_back(pdpb::Peer{first_id + tiles + i, kBenchStoreId, 0});
    return region;
  }
};

// What all connections share while the load runs.
struct Shared {
  std::atomic<bool> stop{false};
  std::atomic<int64_t> budget{0};  // requests left to claim with --requests
  std::atomic<uint64_t> done{0};
  std::atomic<uint64_t> errors{0};
  std::atomic<uint64_t> check_failures{0};
  // The largest timestamp of any answer received so far: an answer to a
  // request sent after it was received must be above it.
  std::atomic<uint64_t> tso_high{0};
  std::mutex mu;
  std::vector<std::string> messages;  // the first few errors and check failures

  void Keep(const std::string& message) {
    std::lock_guard<std::mutex> lock(mu);
    if (messages.size() < kKeptMessages) messages.push_back(message);
  }
};

struct MethodStats {
  LatencyHistogram latency;
  uint64_t errors = 0;
};

// One connection: its client, its own tallies, and what it checks.
class Connection {
 public:
  Connection(const Config& config, const Regions& regions, Shared* shared, uint64_t seed)
      : config_(config), regions_(regions), shared_(shared), random_(seed) {
    kanrpc::RpcClientOptions options;
    options.timeout_ms = static_cast<int32_t>(config.timeout_ms);
    options.attempts = 1;
    client_ = std::make_unique<kanrpc::RpcClient>(config.addr, options);
  }

  // A region of its own for upsert-region without preloaded regions.
  void set_own_region(uint64_t id) { own_region_ = id; }

  void Run() {
    std::uniform_int_distribution<int> percent(0, 99);
    while (!shared_->stop.load(std::memory_order_relaxed)) {
      if (config_.requests > 0 && shared_->budget.fetch_sub(1) <= 0) break;
      Method method = config_.single;
      if (config_.mix) {
        int roll = percent(random_);
        int m = 0;
        while (roll >= kMixWeights[m]) roll -= kMixWeights[m++];
        method = static_cast<Method>(m);
      }
      const auto start = std::chrono::steady_clock::now();
      Status s = Issue(method);
      const auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() - start);
      stats_[method].latency.Record(static_cast<uint64_t>(nanos.count()));
      shared_->done.fetch_add(1, std::memory_order_relaxed);
      if (!s.ok()) {
        stats_[method].errors++;
        shared_->errors.fetch_add(1, std::memory_order_relaxed);
        shared_->Keep(std::string(kMethodNames[method]) + ": " + s.message());
        // A server that is gone would otherwise be hammered in a tight loop.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    }
  }

  const MethodStats& stats(Method m) const { return stats_[m]; }
  const std::vector<std::pair<uint64_t, uint64_t>>& id_ranges() const { return id_ranges_; }

 private:
  void CheckFailed(const std::string& what) {
    shared_->check_failures.fetch_add(1, std::memory_order_relaxed);
    shared_->Keep("check: " + what);
  }

  Status Issue(Method method) {
    switch (method) {
      case kTso:
        return Tso();
      case kAllocId:
        return AllocId();
      case kGetRegion:
        return GetRegion();
      case kUpsertRegion:
        return UpsertRegion();
      case kHeartbeat:
        return Heartbeat();
      case kMethodCount:
        break;
    }
    return Status::OK();
  }

  Status Tso() {
    pdpb::TsoRequest request{static_cast<uint32_t>(config_.count)};
    const uint64_t seen_before = shared_->tso_high.load();
    pdpb::TsoResponse response;
    Status s = client_->Call(kRpcNames[kTso], request, &response);
    if (!s.ok()) return s;
    const uint64_t n = std::max<uint64_t>(1, config_.count);
    if (response.count != n) CheckFailed("tso answered count " + std::to_string(response.count));
    if (response.timestamp <= last_timestamp_) {
      CheckFailed("timestamp " + std::to_string(response.timestamp) + " not above this connection's previous " +
                  std::to_string(last_timestamp_));
    }
    if (response.timestamp <= seen_before) {
      CheckFailed("timestamp " + std::to_string(response.timestamp) + " not above " +
                  std::to_string(seen_before) + ", answered before the request was sent");
    }
    last_timestamp_ = response.timestamp + n - 1;
    uint64_t high = shared_->tso_high.load();
    while (high < last_timestamp_ && !shared_->tso_high.compare_exchange_weak(high, last_timestamp_)) {
    }
    return Status::OK();
  }

  Status AllocId() {
    pdpb::AllocIdRequest request{static_cast<uint32_t>(config_.count)};
    pdpb::AllocIdResponse response;
    Status s = client_->Call(kRpcNames[kAllocId], request, &response);
    if (!s.ok()) return s;
    const uint64_t n = std::max<uint64_t>(1, config_.count);
    if (response.count != n) CheckFailed("alloc-id answered count " + std::to_string(response.count));
    // Overlaps across connections are found at the end, when all ranges are known.
    id_ranges_.emplace_back(response.first_id, response.count);
    return Status::OK();
  }

  std::string RandomKey() {
    if (regions_.tiles > 0) {
      std::uniform_int_distribution<uint64_t> tile(0, regions_.tiles - 1);
      // Inside a tile: its start key with a suffix, so that keys fall both on
      // and between region boundaries.
      std::string key = TileKey(tile(random_));
      if (random_() % 2 == 0) key += "/" + std::to_string(random_() % 1000);
      return key;
    }
    return "bench/key/" + std::to_string(random_());
  }

  Status GetRegion() {
    pdpb::GetRegionRequest request{RandomKey()};
    pdpb::GetRegionResponse response;
    Status s = client_->Call(kRpcNames[kGetRegion], request, &response);
    if (!s.ok()) return s;
    const pdpb::Region& r = response.region;
    const bool covers = (r.start_key.empty() || r.start_key <= request.key) &&
                        (r.end_key.empty() || request.key < r.end_key);
    if (!covers) CheckFailed("region " + std::to_string(r.id) + " does not cover key " + EscapeBytes(request.key));
    if (!r.peers.empty() && !(response.leader == r.peers[0])) {
      CheckFailed("leader of region " + std::to_string(r.id) + " is not its first peer");
    }
    return Status::OK();
  }

  Status UpsertRegion() {
    pdpb::UpsertRegionRequest request;
    if (regions_.tiles > 0) {
      // Rewrites a tile with the same range and a later version, so that
      // routing stays as preloaded while the records keep changing.
      std::uniform_int_distribution<uint64_t> tile(0, regions_.tiles - 1);
      request.regions.push_back(regions_.Tile(tile(random_), ++version_));
    } else {
      pdpb::Region region;
      region.id = own_region_;
      region.start_key = "bench/own/" + std::to_string(own_region_) + "/";
      region.end_key = "bench/own/" + std::to_string(own_region_) + "0";
      region.epoch = {1, ++version_};
      region.peers.push_back(pdpb::Peer{own_region_ + 1, kBenchStoreId, 0});
      request.regions.push_back(std::move(region));
    }
    pdpb::UpsertRegionResponse response;
    return client_->Call(kRpcNames[kUpsertRegion], request, &response);
  }

  Status Heartbeat() {
    pdpb::RegionHeartbeatRequest request;
    request.store_id = kBenchStoreId;
    pdpb::RegionHeartbeatEntry entry;
    uint64_t region_id = regions_.first_id;
    if (regions_.tiles > 0) region_id += random_() % regions_.tiles;
    entry.region_id = region_id;
    entry.member_store_ids = {kBenchStoreId};
    request.regions.push_back(entry);
    pdpb::RegionHeartbeatResponse response;
    Status s = client_->Call(kRpcNames[kHeartbeat], request, &response);
    if (!s.ok()) return s;
    for (const pdpb::ScheduleCommand& command : response.commands) {
      if (command.region_id != region_id) {
        CheckFailed("heartbeat for region " + std::to_string(region_id) + " answered a command for region " +
                    std::to_string(command.region_id));
      }
    }
    return Status::OK();
  }

  const Config& config_;
  const Regions& regions_;
  Shared* const shared_;
  std::mt19937_64 random_;
  std::unique_ptr<kanrpc::RpcClient> client_;
  MethodStats stats_[kMethodCount];
  uint64_t last_timestamp_ = 0;
  uint64_t version_ = 1;
  uint64_t own_region_ = 0;
  std::vector<std::pair<uint64_t, uint64_t>> id_ranges_;  // first id, count
};

Status AllocIds(kanrpc::RpcClient* client, uint64_t count, uint64_t* first) {
  pdpb::AllocIdResponse response;
  Status s = client->Call("Pd.AllocId", pdpb::AllocIdRequest{static_cast<uint32_t>(count)}, &response);
  if (s.ok()) *first = response.first_id;
  return s;
}

// Bootstraps the cluster unless it exists, and preloads the regions.
Status Prepare(const Config& config, bool needs_cluster, Regions* regions) {
  kanrpc::RpcClientOptions options;
  options.timeout_ms = static_cast<int32_t>(std::max<uint64_t>(config.timeout_ms, 60000));
  options.attempts = 1;
  kanrpc::RpcClient client(config.addr, options);
  pdpb::TsoResponse tso;
  Status s = client.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
  if (!s.ok()) return s;
  if (!needs_cluster && config.preload == 0) return Status::OK();

  // Ids for the regions and, right after them, their peers.
  regions->tiles = config.preload;
  const uint64_t wanted = config.preload > 0 ? 2 * config.preload : 2;
  if (wanted > UINT32_MAX) return Status::InvalidArgument("too many regions to preload");
  s = AllocIds(&client, wanted, &regions->first_id);
  if (!s.ok()) return s;

  pdpb::GetRegionResponse probe;
  s = client.Call("Pd.GetRegion", pdpb::GetRegionRequest{""}, &probe);
  const bool bootstrapped = s.ok() || s.message().find("cluster not bootstrapped") == std::string::npos;
  if (!bootstrapped) {
    pdpb::BootstrapRequest request;
    request.store = pdpb::Store{kBenchStoreId, kBenchStoreAddress, 0};
    if (regions->tiles > 0) {
      request.region = regions->Tile(0, 1);
    } else {
      request.region.id = regions->first_id;
      request.region.epoch = {1, 1};
      request.region.peers.push_back(pdpb::Peer{regions->first_id + 1, kBenchStoreId, 0});
    }
    pdpb::BootstrapResponse response;
    s = client.Call("Pd.Bootstrap", request, &response);
    if (!s.ok()) return s;
  }
  const auto start = std::chrono::steady_clock::now();
  for (uint64_t i = 0; i < regions->tiles; i += kPreloadBatch) {
    pdpb::UpsertRegionRequest request;
    for (uint64_t j = i; j < std::min(regions->tiles, i + kPreloadBatch); ++j) {
      request.regions.push_back(regions->Tile(j, 1));
    }
    pdpb::UpsertRegionResponse response;
    s = client.Call("Pd.UpsertRegion", request, &response);
    if (!s.ok()) return s;
  }
  if (regions->tiles > 0) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::fprintf(stderr, "preloaded %llu regions (ids %llu..%llu) in %.2f s\n",
                 static_cast<unsigned long long>(regions->tiles), static_cast<unsigned long long>(regions->first_id),
                 static_cast<unsigned long long>(regions->first_id + regions->tiles - 1), seconds);
  }
  return Status::OK();
}

// Identifier ranges of all connections must be pairwise disjoint.
uint64_t CountOverlaps(std::vector<std::pair<uint64_t, uint64_t>> ranges, Shared* shared) {
  std::sort(ranges.begin(), ranges.end());
  uint64_t overlaps = 0;
  for (size_t i = 1; i < ranges.size(); ++i) {
    const auto& prev = ranges[i - 1];
    if (ranges[i].first < prev.first + prev.second) {
      if (overlaps++ == 0) {
        shared->Keep("check: identifier ranges overlap: " + std::to_string(prev.first) + "+" +
                     std::to_string(prev.second) + " and " + std::to_string(ranges[i].first) + "+" +
                     std::to_string(ranges[i].second));
      }
    }
  }
  return overlaps;
}

double Ms(uint64_t nanos) { return static_cast<double>(nanos) / 1e6; }

nlohmann::json LatencyJson(const LatencyHistogram& h) {
  return nlohmann::json{{"p50", Ms(h.Percentile(0.50))},  {"p90", Ms(h.Percentile(0.90))},
                        {"p99", Ms(h.Percentile(0.99))},  {"p999", Ms(h.Percentile(0.999))},
                        {"max", Ms(h.max())}};
}

std::string LatencyText(const LatencyHistogram& h) {
  char text[160];
  std::snprintf(text, sizeof(text), "p50 %.3f ms  p90 %.3f ms  p99 %.3f ms  p999 %.3f ms  max %.3f ms",
                Ms(h.Percentile(0.50)), Ms(h.Percentile(0.90)), Ms(h.Percentile(0.99)), Ms(h.Percentile(0.999)),
                Ms(h.max()));
  return text;
}

int Main(int argc, char** argv) {
  Config config;
  CommandLine cl(kProgram, "A closed-loop load generator for the kandb-meta server; checks every answer.");
  cl.AddString("addr", &config.addr, "server address HOST:PORT, or the servers of a replicated cluster H1:P1,H2:P2,... (default 127.0.0.1:2379)");
  cl.AddString("method", &config.method,
               "tso, alloc-id, get-region, upsert-region, heartbeat or mix (default tso)");
  cl.AddUint("conns", &config.conns, 4096, "connections, one thread each (default 1)");
  cl.AddString("duration", &config.duration, "how long to run, e.g. 500ms, 3s, 2m (default 10s)");
  cl.AddUint("requests", &config.requests, INT64_MAX, "stop after this many requests in all instead");
  cl.AddUint("preload-regions", &config.preload, UINT32_MAX / 2,
             "bootstrap if needed and write N regions with disjoint ranges first, in batches of 1000");
  cl.AddUint("count", &config.count, UINT32_MAX, "timestamps or identifiers per request (default 1)");
  cl.AddUint("timeout-ms", &config.timeout_ms, INT32_MAX, "time-out of every wait, in milliseconds (default 5000)");
  cl.AddSwitch("json", &config.json, "print the final report as JSON");
  cl.SetEpilogue(
      "get-region, upsert-region, heartbeat and mix bootstrap the cluster when it is not\n"
      "(store 1, one region over all keys, or the first preloaded region). With preloaded\n"
      "regions, get-region routes keys inside them, upsert-region rewrites them with a later\n"
      "version, and heartbeat reports them. Exit status: 0 no error and no wrong answer,\n"
      "1 some call failed or an answer was wrong, 2 bad command line or the setup failed.\n");
  std::vector<std::string> args(argv + 1, argv + argc);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  auto usage_error = [](const std::string& message) {
    std::fprintf(stderr, "%s: %s\n(see %s --help)\n", kProgram, message.c_str(), kProgram);
    return kExitUsage;
  };
  if (config.method == "mix") {
    config.mix = true;
  } else {
    auto it = std::find_if(std::begin(kMethodNames), std::end(kMethodNames),
                           [&](const char* name) { return config.method == name; });
    if (it == std::end(kMethodNames)) return usage_error("unknown method '" + config.method + "'");
    config.single = static_cast<Method>(it - std::begin(kMethodNames));
  }
  if (config.conns == 0) return usage_error("--conns must be at least 1");
  if (!config.duration.empty() && config.requests > 0) return usage_error("give --duration or --requests, not both");
  if (!config.duration.empty()) {
    Status s = ParseDurationMillis(config.duration, &config.duration_ms);
    if (!s.ok()) return usage_error("--duration: " + s.message());
  }

  const bool needs_cluster = config.mix || config.single == kGetRegion || config.single == kUpsertRegion ||
                             config.single == kHeartbeat;
  Regions regions;
  Status s = Prepare(config, needs_cluster, &regions);
  if (!s.ok()) {
    std::fprintf(stderr, "%s: setup failed: %s\n", kProgram, s.message().c_str());
    return kExitUsage;
  }

  Shared shared;
  shared.budget = static_cast<int64_t>(config.requests);
  std::vector<std::unique_ptr<Connection>> connections;
  std::random_device seed_source;
  const uint64_t seed = (static_cast<uint64_t>(seed_source()) << 32) | seed_source();
  for (uint64_t i = 0; i < config.conns; ++i) {
    connections.push_back(std::make_unique<Connection>(config, regions, &shared, seed + i));
  }
  if ((config.mix || config.single == kUpsertRegion) && regions.tiles == 0) {
    // Each connection rewrites a region of its own: a narrow range, with a
    // peer id right after the region id.
    uint64_t first = 0;
    kanrpc::RpcClient client(config.addr, kanrpc::RpcClientOptions{});
    s = AllocIds(&client, 2 * config.conns, &first);
    if (!s.ok()) {
      std::fprintf(stderr, "%s: setup failed: %s\n", kProgram, s.message().c_str());
      return kExitUsage;
    }
    for (uint64_t i = 0; i < config.conns; ++i) connections[i]->set_own_region(first + 2 * i);
  }

  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (auto& c : connections) threads.emplace_back([conn = c.get()] { conn->Run(); });

  // Progress once a second until the duration is over or the request budget
  // is used up.
  std::atomic<int> running{static_cast<int>(threads.size())};
  std::thread waiter([&] {
    for (std::thread& t : threads) t.join();
    running = 0;
  });
  uint64_t last_done = 0;
  int second = 0;
  while (running.load() > 0) {
    const auto next = start + std::chrono::seconds(second + 1);
    while (running.load() > 0 && std::chrono::steady_clock::now() < next) {
      const auto elapsed = std::chrono::steady_clock::now() - start;
      if (config.requests == 0 && elapsed >= std::chrono::milliseconds(config.duration_ms)) shared.stop = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (running.load() == 0) break;
    ++second;
    const uint64_t done = shared.done.load();
    std::fprintf(stderr, "[%4ds] %8llu req/s  total %llu  errors %llu  wrong answers %llu\n", second,
                 static_cast<unsigned long long>(done - last_done), static_cast<unsigned long long>(done),
                 static_cast<unsigned long long>(shared.errors.load()),
                 static_cast<unsigned long long>(shared.check_failures.load()));
    last_done = done;
  }
  waiter.join();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  LatencyHistogram all;
  LatencyHistogram per_method[kMethodCount];
  uint64_t method_errors[kMethodCount] = {};
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  for (const auto& c : connections) {
    for (int m = 0; m < kMethodCount; ++m) {
      per_method[m].Merge(c->stats(static_cast<Method>(m)).latency);
      all.Merge(c->stats(static_cast<Method>(m)).latency);
      method_errors[m] += c->stats(static_cast<Method>(m)).errors;
    }
    ranges.insert(ranges.end(), c->id_ranges().begin(), c->id_ranges().end());
  }
  shared.check_failures += CountOverlaps(std::move(ranges), &shared);
  const uint64_t errors = shared.errors.load();
  const uint64_t wrong = shared.check_failures.load();
  const double throughput = seconds > 0 ? static_cast<double>(all.count()) / seconds : 0;

  if (config.json) {
    nlohmann::json report{{"method", config.method},
                          {"addr", config.addr},
                          {"conns", config.conns},
                          {"preloaded_regions", regions.tiles},
                          {"seconds", seconds},
                          {"requests", all.count()},
                          {"throughput", throughput},
                          {"latency_ms", LatencyJson(all)},
                          {"errors", errors},
                          {"wrong_answers", wrong},
                          {"messages", shared.messages}};
    if (config.mix) {
      for (int m = 0; m < kMethodCount; ++m) {
        report["per_method"][kMethodNames[m]] = {{"requests", per_method[m].count()},
                                                 {"errors", method_errors[m]},
                                                 {"latency_ms", LatencyJson(per_method[m])}};
      }
    }
    std::printf("%s\n", report.dump(2).c_str());
  } else {
    std::printf("%s: %s against %s, %llu connections, %llu preloaded regions, %.2f s\n", kProgram,
                config.method.c_str(), config.addr.c_str(), static_cast<unsigned long long>(config.conns),
                static_cast<unsigned long long>(regions.tiles), seconds);
    std::printf("requests       %llu\nthroughput     %.0f req/s\nlatency        %s\n",
                static_cast<unsigned long long>(all.count()), throughput, LatencyText(all).c_str());
    if (config.mix) {
      for (int m = 0; m < kMethodCount; ++m) {
        std::printf("  %-13s %8llu requests, %llu errors, %s\n", kMethodNames[m],
                    static_cast<unsigned long long>(per_method[m].count()),
                    static_cast<unsigned long long>(method_errors[m]), LatencyText(per_method[m]).c_str());
      }
    }
    std::printf("errors         %llu\nwrong answers  %llu\n", static_cast<unsigned long long>(errors),
                static_cast<unsigned long long>(wrong));
    for (const std::string& message : shared.messages) std::printf("  %s\n", message.c_str());
  }
  return errors == 0 && wrong == 0 ? kExitOk : kExitFailure;
}

}  // namespace
}  // namespace kandb::tools

int main(int argc, char** argv) { return kandb::tools::Main(argc, argv); }
