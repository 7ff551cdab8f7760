// kandb-meta-sim: simulated stores against a real kandb-meta server, to
// watch the placement driver repair the cluster after stores die, join or
// leave. Progress goes to standard error every few seconds, the summary to
// standard output (or --json). Exit status: 0 the simulation ran (healthy
// or not: the summary says), 1 the setup or the connection failed, 2 a bad
// command line.

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "rpc/client.h"
#include "tools/command_line.h"
#include "tools/sim.h"
#include "tools/text.h"

namespace kandb::tools {
namespace {

constexpr char kProgram[] = "kandb-meta-sim";

int Main(int argc, char** argv) {
  sim::SimOptions options;
  std::string addr = "127.0.0.1:2379";
  std::string events_text;
  uint64_t region_hb = static_cast<uint64_t>(options.region_heartbeat_ms);
  uint64_t store_hb = static_cast<uint64_t>(options.store_heartbeat_ms);
  uint64_t snapshot_ms = 0;
  uint64_t duration_s = 300;
  uint64_t grace_ms = 0;
  uint64_t progress_ms = 5000;
  uint64_t timeout_ms = 60000;
  bool json = false;

  CommandLine cl(kProgram, "Simulated stores against a kandb-meta server: failures, and the server's repair.");
  cl.AddString("addr", &addr, "server address HOST:PORT, or the servers of a replicated cluster H1:P1,H2:P2,... (default 127.0.0.1:2379)");
  cl.AddUint("stores", &options.stores, 100000, "simulated stores (default 6)");
  cl.AddUint("zones", &options.zones, 100000, "zones the stores are spread over, z0, z1, ... (default 3)");
  cl.AddUint("hosts-per-zone", &options.hosts_per_zone, 100000, "hosts per zone, shared by its stores (default 0: one host per store)");
  cl.AddUint("racks-per-zone", &options.racks_per_zone, 100000, "racks per zone; labels stores with a rack when given (default 0)");
  cl.AddUint("regions", &options.regions, 10000000, "regions, over evenly split keys (default 1000)");
  cl.AddUint("replicas", &options.replicas, 15, "replicas per region (default 3)");
  cl.AddUint("region-heartbeat-ms", &region_hb, 3600000, "interval of every store's region heartbeats (default 2000)");
  cl.AddUint("store-heartbeat-ms", &store_hb, 3600000, "interval of store heartbeats (default 1000)");
  cl.AddUint("region-size-mb", &options.region_size_mb, 1 << 20, "size of every region (default 96)");
  cl.AddUint("snapshot-ms", &snapshot_ms, 3600000, "time to ship one region's snapshot (default: 10 ms per MB of region)");
  cl.AddUint("snapshot-concurrency", &options.snapshot_concurrency, 1024, "snapshots one store receives at once; more wait (default 3)");
  cl.AddString("events", &events_text, "scripted events, e.g. kill:3@10s,add:2@60s,remove:5@90s,zone-down:z1@10s,drain-leaders:0@5s,split:500@5s");
  cl.AddUint("duration-s", &duration_s, 86400, "longest run, in seconds (default 300)");
  cl.AddUint("grace-ms", &grace_ms, 3600000, "how long the cluster stays healthy after the last event before the run ends (default: 3 region heartbeats)");
  cl.AddUint("progress-ms", &progress_ms, 3600000, "interval of the progress lines, 0 for none (default 5000)");
  cl.AddUint("timeout-ms", &timeout_ms, INT32_MAX, "time-out of every wait for the server, in milliseconds (default 60000)");
  cl.AddUint("seed", &options.seed, UINT64_MAX, "seed of the elections' choices (default 1)");
  cl.AddUint("safe-point-services", &options.safe_point_services, 1000, "services updating GC safe points beside the stores, one of them falling silent past its time to live (default 0)");
  cl.AddUint("safe-point-ttl-s", &options.safe_point_ttl_s, 86400, "time to live of their safe points, in seconds (default 10)");
  cl.AddSwitch("json", &json, "print the summary as JSON");
  cl.SetEpilogue(
      "Events: kill:N kills store N (creation order, from 0), add:N adds N empty stores,\n"
      "remove:N asks the server to remove store N, zone-down:ZONE kills every store of the\n"
      "zone, drain-leaders:N moves every leadership off store N (as a restart does),\n"
      "split:N splits the region in the middle of the key space into N regions (a hot\n"
      "range); @T is the time after setup (500ms, 10s, 2m). The server must be fresh (not\n"
      "bootstrapped) and should run with --target_replicas equal to --replicas. The run\n"
      "ends once every region has its replicas and no replica or leader moved for the\n"
      "grace time.\n");
  std::vector<std::string> args(argv + 1, argv + argc);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  auto usage_error = [](const std::string& message) {
    std::fprintf(stderr, "%s: %s\n(see %s --help)\n", kProgram, message.c_str(), kProgram);
    return kExitUsage;
  };
  std::vector<sim::SimEvent> events;
  if (Status s = sim::ParseEvents(events_text, &events); !s.ok()) return usage_error("--events: " + s.message());
  if (options.replicas == 0) return usage_error("--replicas must be at least 1");
  if (options.stores < options.replicas) return usage_error("--stores must be at least --replicas");
  if (options.regions == 0) return usage_error("--regions must be at least 1");
  if (options.zones == 0) return usage_error("--zones must be at least 1");
  if (region_hb == 0 || store_hb == 0) return usage_error("heartbeat intervals must be at least 1 ms");
  if (options.snapshot_concurrency == 0) return usage_error("--snapshot-concurrency must be at least 1");
  options.region_heartbeat_ms = static_cast<int64_t>(region_hb);
  options.store_heartbeat_ms = static_cast<int64_t>(store_hb);
  options.snapshot_ms =
      static_cast<int64_t>(cl.Given("snapshot-ms") ? snapshot_ms : options.region_size_mb * 10);
  if (!cl.Given("grace-ms")) grace_ms = 3 * region_hb;

  kanrpc::RpcClientOptions client_options;
  client_options.timeout_ms = static_cast<int32_t>(timeout_ms);
  client_options.attempts = 3;
  kanrpc::RpcClient client(addr, client_options);
  sim::Simulation simulation(options, events, &client);
  std::fprintf(stderr, "%s: setting up %llu stores and %llu regions against %s\n", kProgram,
               static_cast<unsigned long long>(options.stores), static_cast<unsigned long long>(options.regions),
               addr.c_str());
  const auto setup_start = std::chrono::steady_clock::now();
  if (Status s = simulation.Setup(); !s.ok()) {
    std::fprintf(stderr, "%s: setup failed: %s\n", kProgram, s.message().c_str());
    return kExitFailure;
  }
  std::fprintf(stderr, "%s: setup took %.2f s\n", kProgram,
               std::chrono::duration<double>(std::chrono::steady_clock::now() - setup_start).count());
  const Status run = simulation.Run(static_cast<int64_t>(duration_s) * 1000, static_cast<int64_t>(grace_ms),
                 static_cast<int64_t>(progress_ms),
                 [](const std::string& line) { std::fprintf(stderr, "%s\n", line.c_str()); });
  const sim::SimSummary summary = simulation.Summary();
  if (json) {
    std::printf("%s\n", sim::SummaryJson(summary).dump(2).c_str());
  } else {
    std::printf("%s: %llu stores, %llu regions, %llu replicas, against %s\n%s", kProgram,
                static_cast<unsigned long long>(options.stores), static_cast<unsigned long long>(options.regions),
                static_cast<unsigned long long>(options.replicas), addr.c_str(), sim::SummaryText(summary).c_str());
  }
  if (!run.ok()) {
    std::fprintf(stderr, "%s: %s\n", kProgram, run.message().c_str());
    return kExitFailure;
  }
  return kExitOk;
}

}  // namespace
}  // namespace kandb::tools

int main(int argc, char** argv) { return kandb::tools::Main(argc, argv); }
