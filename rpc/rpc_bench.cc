// rpc_bench: requests per second and latency percentiles of a trivial typed
// method ("Pd.Tso" answering a fixed timestamp) over loopback, with 1, 16,
// 64 and 256 connections, one calling thread and one RpcClient each.
//
//   rpc_bench [--seconds=S] [--connections=1,16,64,256]
//       serves and calls in one process
//   rpc_bench --serve=PORT
//       only serves, until killed (to watch the server alone, e.g. its
//       system calls)
//   rpc_bench --target=HOST:PORT [--seconds=S] [--connections=...]
//       only calls a server started elsewhere

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "common/status.h"
#include "pdpb/messages.h"
#include "rpc/client.h"
#include "rpc/server.h"

namespace kandb::kanrpc {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  double seconds = 2.0;
  std::vector<int> connections = {1, 16, 64, 256};
  int serve_port = -1;
  std::string target;
};

bool ParseArgs(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&arg](const char* name) -> const char* {
      const std::string prefix = std::string(name) + "=";
      return arg.rfind(prefix, 0) == 0 ? arg.c_str() + prefix.size() : nullptr;
    };
    if (const char* v = value("--seconds")) {
      options->seconds = std::atof(v);
    } else if (const char* v = value("--serve")) {
      options->serve_port = std::atoi(v);
    } else if (const char* v = value("--target")) {
      options->target = v;
    } else if (const char* v = value("--connections")) {
      options->connections.clear();
      std::stringstream list(v);
      std::string item;
      while (std::getline(list, item, ',')) options->connections.push_back(std::atoi(item.c_str()));
    } else {
      std::fprintf(stderr, "rpc_bench: unknown argument %s\n", arg.c_str());
      return false;
    }
  }
  return options->seconds > 0 && !options->connections.empty();
}

void RegisterBenchMethod(RpcServer* server) {
  server->Register<pdpb::TsoRequest, pdpb::TsoResponse>(
      "Pd.Tso", [](const pdpb::TsoRequest& req, pdpb::TsoResponse* resp) {
        resp->timestamp = 1;
        resp->count = req.count;
        return Status::OK();
      });
}

struct Point {
  uint64_t requests = 0;
  uint64_t failures = 0;
  double seconds = 0;
  std::vector<uint64_t> latencies_ns;
};

// Runs `connections` calling threads against `target` for `seconds`.
Point Measure(const std::string& target, int connections, double seconds) {
  std::vector<std::unique_ptr<RpcClient>> clients;
  for (int i = 0; i < connections; ++i) {
    clients.push_back(std::make_unique<RpcClient>(target, RpcClientOptions{5000, 1}));
  }
  pdpb::TsoRequest req;
  req.count = 1;
  // Connect every client before the clock starts.
  for (auto& c : clients) {
    pdpb::TsoResponse resp;
    Status s = c->Call("Pd.Tso", req, &resp);
    if (!s.ok()) {
      std::fprintf(stderr, "rpc_bench: %s\n", s.ToString().c_str());
      std::exit(1);
    }
  }

  std::atomic<bool> go{false};
  std::atomic<bool> done{false};
  std::vector<std::vector<uint64_t>> latencies(connections);
  std::vector<uint64_t> failures(connections, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < connections; ++i) {
    latencies[i].reserve(1 << 16);
    threads.emplace_back([&, i] {
      while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
      pdpb::TsoResponse resp;
      while (!done.load(std::memory_order_relaxed)) {
        const auto start = Clock::now();
        Status s = clients[i]->Call("Pd.Tso", req, &resp);
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
        if (s.ok()) {
          latencies[i].push_back(static_cast<uint64_t>(ns.count()));
        } else {
          ++failures[i];
        }
      }
    });
  }
  const auto start = Clock::now();
  go.store(true, std::memory_order_release);
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  done.store(true);
  for (auto& t : threads) t.join();

  Point point;
  point.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  for (int i = 0; i < connections; ++i) {
    point.latencies_ns.insert(point.latencies_ns.end(), latencies[i].begin(), latencies[i].end());
    point.failures += failures[i];
  }
  point.requests = point.latencies_ns.size();
  std::sort(point.latencies_ns.begin(), point.latencies_ns.end());
  return point;
}

double PercentileUs(const std::vector<uint64_t>& sorted, double q) {
  if (sorted.empty()) return 0;
  const size_t index = std::min(sorted.size() - 1, static_cast<size_t>(q * sorted.size()));
  return static_cast<double>(sorted[index]) / 1000.0;
}

int Run(const Options& options) {
  std::unique_ptr<RpcServer> server;
  std::string target = options.target;
  if (target.empty()) {
    server = std::make_unique<RpcServer>();
    RegisterBenchMethod(server.get());
    Status s = server->Start(0, "127.0.0.1");
    if (!s.ok()) {
      std::fprintf(stderr, "rpc_bench: %s\n", s.ToString().c_str());
      return 1;
    }
    target = "127.0.0.1:" + std::to_string(server->port());
  }
  std::printf("rpc_bench: Pd.Tso against %s, %.1f s per point, %u hardware threads\n",
              target.c_str(), options.seconds, std::thread::hardware_concurrency());
  std::printf("%11s %12s %10s %10s %10s %9s\n", "connections", "requests/s", "p50 us", "p99 us",
              "p999 us", "failures");
  for (int connections : options.connections) {
    const Point p = Measure(target, connections, options.seconds);
    std::printf("%11d %12.0f %10.1f %10.1f %10.1f %9llu\n", connections,
                static_cast<double>(p.requests) / p.seconds, PercentileUs(p.latencies_ns, 0.50),
                PercentileUs(p.latencies_ns, 0.99), PercentileUs(p.latencies_ns, 0.999),
                static_cast<unsigned long long>(p.failures));
    std::fflush(stdout);
  }
  return 0;
}

int Serve(int port) {
  RpcServer server;
  RegisterBenchMethod(&server);
  Status s = server.Start(port, "127.0.0.1");
  if (!s.ok()) {
    std::fprintf(stderr, "rpc_bench: %s\n", s.ToString().c_str());
    return 1;
  }
  std::printf("rpc_bench serving on 127.0.0.1:%d\n", server.port());
  std::fflush(stdout);
  server.Wait();
  return 0;
}

}  // namespace
}  // namespace kandb::kanrpc

int main(int argc, char** argv) {
  kandb::kanrpc::Options options;
  if (!kandb::kanrpc::ParseArgs(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: rpc_bench [--seconds=S] [--connections=1,16,64,256] "
                 "[--serve=PORT | --target=HOST:PORT]\n");
    return 2;
  }
  if (options.serve_port >= 0) return kandb::kanrpc::Serve(options.serve_port);
  return kandb::kanrpc::Run(options);
}
