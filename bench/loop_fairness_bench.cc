// loop_fairness_bench: how long a caller of "Pd.Tso" waits for its answer
// while another connection streams frames back to back, without waiting
// for their answers (it reads them on a thread of its own, so that its
// socket never fills). The probing side calls one timestamp at a time
// and records each call's latency.
//
//   loop_fairness_bench --addr=HOST:PORT --kind=KIND [--seconds=S]
//                       [--bulk-mib=N] [--probe-conns=N] [--probe-gap-us=U] [--header]
//
// KIND is what the streaming connection sends:
//   idle                nothing: the probes alone, the machine's own noise
//   tso                 Pd.Tso for one timestamp (answered on the loop)
//   undecodable-upsert  Pd.UpsertRegion with a payload that does not decode
//                       (answered on the loop at once)
//   empty-upsert        Pd.UpsertRegion with no region (an empty batch)
//   upsert              Pd.UpsertRegion of one small region (ids 1..1000)
//   bulk-upsert         Pd.UpsertRegion of 4 regions with 64 KiB end keys
//                       (ids 1..256), until --bulk-mib MiB were sent, so
//                       that the engine flushes memtables and merges tables
//                       while it runs
//
// A server has one event loop per two processors and hands connections to
// them in turn; the probes use one connection per loop of a server on this
// machine (--probe-conns), opened before the streaming one, so that one of
// them shares its loop. The probe gap is the pause between two calls.
//
// Prints one line per run: probes, their p50, p99 and maximum latency,
// the streamed answers per second, and from "Pd.Stats" the engine's
// flushes and compactions during the run and the upper bound of the
// histogram bucket of its slowest log sync (a write group led on the
// probe's loop holds the probe up for that long); --header prints the
// column names first. Every kind but bulk-upsert streams for --seconds
// (default 5). bench/loop_fairness.sh starts a fresh server for each kind.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/status.h"
#include "pdpb/messages.h"
#include "pdpb/stats.h"
#include "rpc/client.h"
#include "rpc/frame.h"

namespace kandb::kanrpc {
namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  std::string addr;
  std::string kind;
  double seconds = 5.0;
  uint64_t bulk_mib = 1280;
  int probe_conns = static_cast<int>(std::max(1u, std::thread::hardware_concurrency() / 2));
  int probe_gap_us = 1000;
  bool header = false;
};

bool ParseArgs(int argc, char** argv, Options* options) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&arg](const char* name) -> const char* {
      const std::string prefix = std::string(name) + "=";
      return arg.rfind(prefix, 0) == 0 ? arg.c_str() + prefix.size() : nullptr;
    };
    if (const char* v = value("--addr")) {
      options->addr = v;
    } else if (const char* v = value("--kind")) {
      options->kind = v;
    } else if (const char* v = value("--seconds")) {
      options->seconds = std::atof(v);
    } else if (const char* v = value("--bulk-mib")) {
      options->bulk_mib = std::strtoull(v, nullptr, 10);
    } else if (const char* v = value("--probe-conns")) {
      options->probe_conns = std::atoi(v);
    } else if (const char* v = value("--probe-gap-us")) {
      options->probe_gap_us = std::atoi(v);
    } else if (arg == "--header") {
      options->header = true;
    } else {
      std::fprintf(stderr, "loop_fairness_bench: unknown argument %s\n", arg.c_str());
      return false;
    }
  }
  return !options->addr.empty() && !options->kind.empty() && options->seconds > 0 &&
         options->probe_conns > 0 && options->probe_gap_us >= 0;
}

// What the streaming connection sends, and what each answer must be.
struct StreamKind {
  std::string method;
  // The payload of the request with sequence number n.
  std::string (*payload)(uint64_t n);
  FrameType answer_type;
  // Frames built per send (the last one sent whole before the next batch).
  int frames_per_batch;
  bool bulk;
  // Frames sent and not yet answered, at most: enough that the server
  // never runs out of frames, few enough that a run ends soon after its
  // time (the socket buffers alone would hold minutes of small upserts).
  uint64_t window;
};

std::string TsoPayload(uint64_t) { return pdpb::Encode(pdpb::TsoRequest{1}); }
std::string UndecodablePayload(uint64_t) { return "abc"; }
std::string EmptyUpsertPayload(uint64_t) { return pdpb::Encode(pdpb::UpsertRegionRequest{}); }

pdpb::Region SmallRegion(uint64_t id) {
  pdpb::Region region;
  region.id = id;
  region.start_key = "r" + std::to_string(id);
  region.end_key = "r" + std::to_string(id) + "~";
  region.epoch = {1, 1};
  region.peers.push_back(pdpb::Peer{id + 100000, 1, 0});
  return region;
}

std::string UpsertPayload(uint64_t n) {
  pdpb::UpsertRegionRequest req;
  req.regions.push_back(SmallRegion(1 + n % 1000));
  return pdpb::Encode(req);
}

std::string BulkUpsertPayload(uint64_t n) {
  pdpb::UpsertRegionRequest req;
  for (uint64_t i = 0; i < 4; ++i) {
    pdpb::Region region = SmallRegion(1 + (n * 4 + i) % 256);
    region.end_key.append(64 << 10, static_cast<char>('a' + n % 26));
    req.regions.push_back(std::move(region));
  }
  return pdpb::Encode(req);
}

bool KindNamed(const std::string& name, StreamKind* kind) {
  if (name == "idle") {
    *kind = {"", nullptr, FrameType::kResponse, 0, false, 0};
  } else if (name == "tso") {
    *kind = {"Pd.Tso", TsoPayload, FrameType::kResponse, 256, false, 8192};
  } else if (name == "undecodable-upsert") {
    *kind = {"Pd.UpsertRegion", UndecodablePayload, FrameType::kError, 256, false, 8192};
  } else if (name == "empty-upsert") {
    *kind = {"Pd.UpsertRegion", EmptyUpsertPayload, FrameType::kResponse, 256, false, 1024};
  } else if (name == "upsert") {
    *kind = {"Pd.UpsertRegion", UpsertPayload, FrameType::kResponse, 64, false, 1024};
  } else if (name == "bulk-upsert") {
    *kind = {"Pd.UpsertRegion", BulkUpsertPayload, FrameType::kResponse, 1, true, 16};
  } else {
    return false;
  }
  return true;
}

int ConnectStream(const std::string& addr) {
  std::string host, port;
  if (!ParseTarget(addr, &host, &port)) return -1;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(std::atoi(port.c_str())));
  if (host == "localhost") host = "127.0.0.1";
  if (inet_pton(AF_INET, host.c_str(), &sa.sin_addr) != 1 ||
      connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof(sa)) != 0) {
    close(fd);
    return -1;
  }
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  return fd;
}

// One pipelining connection: a writer thread that sends frames back to back
// until told to stop (or, for bulk, until its volume is sent), and a reader
// thread that takes every answer and checks its type.
class Streamer {
 public:
  // Streams until `end`, or for bulk until `bulk_bytes` were sent.
  Streamer(int fd, StreamKind kind, Clock::time_point end, uint64_t bulk_bytes)
      : fd_(fd), kind_(std::move(kind)), end_(end), bulk_bytes_(bulk_bytes) {}
  ~Streamer() {
    if (writer_.joinable()) writer_.join();
    if (reader_.joinable()) reader_.join();
    close(fd_);
  }

  void Start() {
    writer_ = std::thread([this] { Write(); });
    reader_ = std::thread([this] { Read(); });
  }
  // Waits for the writer to end and for the answers to what it sent.
  void Finish() {
    writer_.join();
    reader_.join();
  }
  bool writing() const { return !write_done_.load(); }
  uint64_t answered() const { return answered_.load(); }
  uint64_t bad_answers() const { return bad_answers_.load(); }
  const std::string& first_bad() const { return first_bad_; }
  // Valid after Finish.
  std::string failure() const { return write_failure_.empty() ? read_failure_ : write_failure_; }

 private:
  void Write() {
    std::string batch;
    uint64_t n = 0;
    uint64_t bytes = 0;
    if (kind_.method.empty()) {
      std::this_thread::sleep_until(end_);
      write_done_.store(true);
      return;
    }
    // The writer ends on its own: a probe starved by the stream must not
    // hold the stream up.
    for (;;) {
      if (kind_.bulk ? bytes >= bulk_bytes_ : Clock::now() >= end_) break;
      if (n > answered_.load(std::memory_order_relaxed) + kind_.window) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
        continue;
      }
      batch.clear();
      for (int i = 0; i < kind_.frames_per_batch; ++i, ++n) {
        AppendFrame(&batch, FrameType::kRequest, n + 1, kind_.method, kind_.payload(n));
      }
      const Status s = WriteAll(fd_, batch.data(), batch.size(), 60000);
      if (!s.ok()) {
        write_failure_ = "stream write: " + s.ToString();
        break;
      }
      bytes += batch.size();
      sent_.store(n, std::memory_order_release);
    }
    write_done_.store(true);
  }

  // Polls with a short wait, so that it sees the writer end even when
  // every answer was already in.
  void Read() {
    FrameReader reader(fd_);
    Frame answer;
    uint64_t got = 0;
    auto last_answer = Clock::now();
    while (!write_done_.load(std::memory_order_acquire) || got < sent_.load(std::memory_order_acquire)) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) {
        if (Clock::now() - last_answer > std::chrono::seconds(120)) {
          read_failure_ = "stream read: no answer for 120 s";
          return;
        }
        continue;
      }
      for (;;) {
        bool have = false;
        const Status s = reader.ReadAvailable(&answer, &have);
        if (!s.ok()) {
          read_failure_ = "stream read: " + s.ToString();
          return;
        }
        if (!have) break;
        if (answer.type != kind_.answer_type && bad_answers_.fetch_add(1) == 0) first_bad_ = answer.payload;
        answered_.store(++got, std::memory_order_relaxed);
        last_answer = Clock::now();
      }
    }
  }

  const int fd_;
  const StreamKind kind_;
  const Clock::time_point end_;
  const uint64_t bulk_bytes_;
  std::thread writer_;
  std::thread reader_;
  std::atomic<bool> write_done_{false};
  std::atomic<uint64_t> sent_{0};
  std::atomic<uint64_t> answered_{0};
  std::atomic<uint64_t> bad_answers_{0};
  // Each written by one thread, read after Finish joined both.
  std::string first_bad_;
  std::string write_failure_;
  std::string read_failure_;
};

bool ReadStats(RpcClient* client, pdpb::StatsResponse* stats) {
  const Status s = client->Call("Pd.Stats", pdpb::StatsRequest{}, stats);
  if (!s.ok()) std::fprintf(stderr, "loop_fairness_bench: Pd.Stats: %s\n", s.ToString().c_str());
  return s.ok();
}

double Ms(uint64_t nanos) { return static_cast<double>(nanos) / 1e6; }

// The upper bound, in ms, of the highest bucket that gained a sample
// between the two histograms; 0 when none did, infinity past the last bound.
double SlowestMs(const pdpb::LatencyHistogram& before, const pdpb::LatencyHistogram& after) {
  for (size_t i = after.counts.size(); i-- > 0;) {
    const uint64_t earlier = i < before.counts.size() ? before.counts[i] : 0;
    if (after.counts[i] <= earlier) continue;
    if (i >= after.bounds_micros.size()) return std::numeric_limits<double>::infinity();
    return static_cast<double>(after.bounds_micros[i]) / 1e3;
  }
  return 0;
}

int Run(const Options& options) {
  StreamKind kind;
  if (!KindNamed(options.kind, &kind)) {
    std::fprintf(stderr, "loop_fairness_bench: unknown kind %s\n", options.kind.c_str());
    return 2;
  }
  RpcClientOptions client_options;
  client_options.timeout_ms = 120000;  // a starved probe still gets its answer
  client_options.attempts = 1;
  std::vector<std::unique_ptr<RpcClient>> probes;
  const pdpb::TsoRequest tso{1};
  pdpb::TsoResponse tso_answer;
  // Connected first, in order, so that every loop has one.
  for (int i = 0; i < options.probe_conns; ++i) {
    probes.push_back(std::make_unique<RpcClient>(options.addr, client_options));
    const Status s = probes.back()->Call("Pd.Tso", tso, &tso_answer);
    if (!s.ok()) {
      std::fprintf(stderr, "loop_fairness_bench: probe: %s\n", s.ToString().c_str());
      return 1;
    }
  }
  RpcClient stats_client(options.addr, client_options);
  pdpb::StatsResponse before, after;
  if (!ReadStats(&stats_client, &before)) return 1;

  const int fd = ConnectStream(options.addr);
  if (fd < 0) {
    std::fprintf(stderr, "loop_fairness_bench: cannot connect to %s\n", options.addr.c_str());
    return 1;
  }
  const auto start = Clock::now();
  Streamer streamer(fd, kind, start + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(options.seconds)),
                    options.bulk_mib << 20);
  streamer.Start();
  // The probes begin once the stream is flowing.
  while (!kind.method.empty() && streamer.answered() == 0 && streamer.writing()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }

  std::vector<uint64_t> latencies;
  uint64_t failures = 0;
  for (size_t next = 0; streamer.writing(); next = (next + 1) % probes.size()) {
    const auto began = Clock::now();
    const Status s = probes[next]->Call("Pd.Tso", tso, &tso_answer);
    const auto took = Clock::now() - began;
    if (s.ok()) {
      latencies.push_back(static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(took).count()));
    } else if (failures++ == 0) {
      std::fprintf(stderr, "loop_fairness_bench: probe: %s\n", s.ToString().c_str());
    }
    if (options.probe_gap_us > 0) std::this_thread::sleep_for(std::chrono::microseconds(options.probe_gap_us));
  }
  streamer.Finish();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (!streamer.failure().empty()) {
    std::fprintf(stderr, "loop_fairness_bench: %s\n", streamer.failure().c_str());
    return 1;
  }
  if (streamer.bad_answers() > 0) {
    std::fprintf(stderr, "loop_fairness_bench: %llu unexpected answers, the first: %s\n",
                 static_cast<unsigned long long>(streamer.bad_answers()), streamer.first_bad().c_str());
    return 1;
  }
  if (!ReadStats(&stats_client, &after)) return 1;

  std::sort(latencies.begin(), latencies.end());
  auto percentile = [&latencies](double q) -> double {
    if (latencies.empty()) return 0;
    return Ms(latencies[std::min(latencies.size() - 1, static_cast<size_t>(q * latencies.size()))]);
  };
  std::printf("%-19s %7zu %9.3f %9.3f %9.3f %11.0f %8llu %11llu %9.1f %8llu\n", options.kind.c_str(),
              latencies.size(), percentile(0.50), percentile(0.99),
              latencies.empty() ? 0.0 : Ms(latencies.back()), static_cast<double>(streamer.answered()) / seconds,
              static_cast<unsigned long long>(after.engine.flushes - before.engine.flushes),
              static_cast<unsigned long long>(after.engine.compactions - before.engine.compactions),
              SlowestMs(before.engine.sync_latency, after.engine.sync_latency),
              static_cast<unsigned long long>(failures));
  std::fflush(stdout);
  return failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace kandb::kanrpc

int main(int argc, char** argv) {
  kandb::kanrpc::Options options;
  if (!kandb::kanrpc::ParseArgs(argc, argv, &options)) {
    std::fprintf(stderr,
                 "usage: loop_fairness_bench --addr=HOST:PORT --kind=idle|tso|undecodable-upsert|empty-upsert|"
                 "upsert|bulk-upsert [--seconds=S] [--bulk-mib=N] [--probe-conns=N] [--probe-gap-us=U] [--header]\n");
    return 2;
  }
  if (options.header) {
    std::printf("%-19s %7s %9s %9s %9s %11s %8s %11s %9s %8s\n", "kind", "probes", "p50_ms", "p99_ms", "max_ms",
                "streamed/s", "flushes", "compactions", "sync<=ms", "failures");
  }
  return kandb::kanrpc::Run(options);
}
