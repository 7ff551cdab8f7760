// etcd's own rate of fenced one-key transactions, the ceiling a replicated
// server that writes each upsert as its own transaction could reach: N
// threads, each looping {compare: the fence key's create_revision == R;
// success: put one key of about a region record's size}, through the same
// client the server uses (its JSON gateway over libcurl).
//
//   etcd_txn_bench --endpoints URLS [--threads N] [--seconds S] [--value_bytes B]
//
// Prints one line: threads, transactions, seconds and transactions per
// second. Writes under "kandb-txn-bench/" (at most 1000 keys per thread),
// and leaves them: it is meant for a scratch cluster.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "store/etcd_client.h"

namespace {

using kandb::Status;
using kandb::store::EtcdClient;
using kandb::store::EtcdCompare;
using kandb::store::EtcdOp;
using kandb::store::EtcdTxnResult;

constexpr char kPrefix[] = "kandb-txn-bench/";

bool Flag(const char* arg, const char* name, std::string* value) {
  const size_t n = std::strlen(name);
  if (std::strncmp(arg, name, n) != 0 || arg[n] != '=') return false;
  *value = arg + n + 1;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string endpoints;
  int threads = 16;
  double seconds = 2;
  size_t value_bytes = 96;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    // "--name value" as well as "--name=value".
    if (arg.find('=') == std::string::npos && i + 1 < argc) arg += std::string("=") + argv[++i];
    std::string v;
    if (Flag(arg.c_str(), "--endpoints", &v)) {
      endpoints = v;
    } else if (Flag(arg.c_str(), "--threads", &v)) {
      threads = std::atoi(v.c_str());
    } else if (Flag(arg.c_str(), "--seconds", &v)) {
      seconds = std::atof(v.c_str());
    } else if (Flag(arg.c_str(), "--value_bytes", &v)) {
      value_bytes = static_cast<size_t>(std::atol(v.c_str()));
    } else {
      std::fprintf(stderr, "usage: etcd_txn_bench --endpoints URLS [--threads N] [--seconds S] [--value_bytes B]\n");
      return 2;
    }
  }
  std::vector<std::string> list;
  if (endpoints.empty() || threads <= 0 || seconds <= 0 || !EtcdClient::ParseEndpoints(endpoints, &list).ok()) {
    std::fprintf(stderr, "etcd_txn_bench: --endpoints, a positive --threads and --seconds are needed\n");
    return 2;
  }
  EtcdClient client(list, 5000);
  const std::string fence = std::string(kPrefix) + "leader";
  EtcdTxnResult created;
  Status s = client.Txn({}, {EtcdOp{EtcdOp::Kind::kPut, fence, "bench", 0}}, {}, &created);
  if (!s.ok()) {
    std::fprintf(stderr, "etcd_txn_bench: %s\n", s.ToString().c_str());
    return 1;
  }
  // The put above created the key (or put it again over an earlier run's):
  // its creation revision, as every fenced write compares it.
  std::vector<kandb::store::EtcdKv> kvs;
  bool more = false;
  int64_t revision = 0;
  s = client.Range(fence, "", 0, 0, &kvs, &more, &revision);
  if (!s.ok() || kvs.empty()) {
    std::fprintf(stderr, "etcd_txn_bench: cannot read the fence key back: %s\n", s.ToString().c_str());
    return 1;
  }
  const int64_t create_revision = kvs.front().create_revision;

  std::atomic<bool> stop{false};
  std::atomic<uint64_t> done{0};
  std::atomic<uint64_t> failed{0};
  std::vector<std::thread> workers;
  const auto start = std::chrono::steady_clock::now();
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([&, t] {
      const std::string value(value_bytes, static_cast<char>('a' + t % 26));
      uint64_t n = 0;
      while (!stop.load(std::memory_order_relaxed)) {
        // A region key of its own per thread, rewritten in turn.
        const std::string key = std::string(kPrefix) + "region/" + std::to_string(t * 1000 + n % 1000);
        EtcdTxnResult result;
        const Status st = client.Txn({EtcdCompare{fence, EtcdCompare::Target::kCreate, create_revision}},
                                     {EtcdOp{EtcdOp::Kind::kPut, key, value, 0}}, {}, &result);
        if (st.ok() && result.succeeded) {
          done.fetch_add(1, std::memory_order_relaxed);
        } else {
          failed.fetch_add(1, std::memory_order_relaxed);
        }
        ++n;
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  stop.store(true);
  for (std::thread& w : workers) w.join();
  const double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("threads %d txns %llu failed %llu seconds %.2f txns/s %.0f\n", threads,
              static_cast<unsigned long long>(done.load()), static_cast<unsigned long long>(failed.load()), took,
              static_cast<double>(done.load()) / took);
  return failed.load() == 0 ? 0 : 1;
}
