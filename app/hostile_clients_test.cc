// Hostile and heavy clients against the real server, all at once:
//   - a thousand connections doing requests concurrently;
//   - a thousand connections that announce a 64 MiB payload, send a little
//     of it and stall;
//   - connections that connect and never send;
//   - garbage bytes, frames with a length over its limit or a bad checksum,
//     and frames cut short followed by a close;
//   - one legal request of the largest size.
// Throughout, a probe client keeps calling and every well-behaved call must
// be answered; the server's memory must stay bounded (a stalled 64 MiB
// announcement may cost only what actually arrived), and once the clients
// are gone its connection threads must be gone too.
//
// The counts are scaled down under sanitizers, where every thread and byte
// costs several times more; the plain build runs the full counts.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "app/stress_test_util.h"
#include "common/coding.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "pdpb/wire.h"
#include "rpc/client.h"
#include "rpc/frame.h"

namespace kandb {
namespace {

using Clock = std::chrono::steady_clock;
using kanrpc::FrameType;
using testing::kSanitizedBuild;
using testing::MetaServer;
using testing::ProcessStatus;

constexpr int kBusyClients = kSanitizedBuild ? 200 : 1000;
constexpr int kRequestsPerBusyClient = kSanitizedBuild ? 10 : 20;
constexpr int kStalledAnnouncements = kSanitizedBuild ? 200 : 1000;
constexpr int kIdleConnections = kSanitizedBuild ? 50 : 200;
constexpr int kGarbageConnections = kSanitizedBuild ? 100 : 400;
constexpr int kHostileThreads = 4;
// What each stalled announcement sends of its 64 MiB payload: more than a
// connection's first read buffer, so that the buffer has to grow.
constexpr size_t kStalledPayloadSent = 64 * 1024;
// Every wait of a well-behaved call; generous for a loaded machine.
constexpr int kCallTimeoutMs = 60000;
// A generous ceiling on the server's resident memory at its peak. The
// largest legal request alone costs a few times 64 MiB while it is read and
// decoded; the thousands of connections cost their stacks' touched pages
// and small read buffers. Sanitizers add their shadow memory and the
// quarantine of freed blocks.
constexpr int64_t kPeakResidentCeilingKiB = (kSanitizedBuild ? 2048 : 1024) * 1024;

// A plain TCP connection to the server, for clients that do not follow the
// protocol. Sends and reads go through the frame layer's own socket I/O.
class RawConnection {
 public:
  RawConnection() = default;
  ~RawConnection() { Close(); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  bool Connect(int port) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return false;
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(fd_, reinterpret_cast<const struct sockaddr*>(&addr), sizeof(addr)) == 0;
  }

  // Sends everything; the server may close early on a hostile stream, so
  // the result is only a hint.
  bool Send(const std::string& bytes) {
    return kanrpc::WriteAll(fd_, bytes.data(), bytes.size(), kCallTimeoutMs).ok();
  }
  void ShutdownWrite() { shutdown(fd_, SHUT_WR); }

  // True when the server ends the connection (close or reset) within
  // timeout_ms without sending a single byte.
  bool EndedWithoutAnswer(int timeout_ms, std::string* why) {
    char byte;
    Status s = kanrpc::ReadExact(fd_, &byte, 1, timeout_ms);
    if (s.ok()) {
      *why = "the server answered";
      return false;
    }
    if (s.message() == "kanrpc: io timeout") {
      *why = "the server kept the connection open";
      return false;
    }
    return true;
  }

  int fd() const { return fd_; }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
};

// Samples the server's /proc status until stopped and keeps the peaks.
class Monitor {
 public:
  explicit Monitor(pid_t pid) : pid_(pid), thread_([this] { Run(); }) {}
  ~Monitor() { Stop(); }

  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  int64_t peak_rss_kib() const { return peak_rss_kib_; }
  int64_t peak_threads() const { return peak_threads_; }

 private:
  void Run() {
    while (!stop_) {
      const ProcessStatus now = testing::ReadProcessStatus(pid_);
      peak_rss_kib_ = std::max<int64_t>(peak_rss_kib_, now.rss_kib);
      peak_threads_ = std::max<int64_t>(peak_threads_, now.threads);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  const pid_t pid_;
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> peak_rss_kib_{0};
  std::atomic<int64_t> peak_threads_{0};
  std::thread thread_;
};

// A well-behaved client that calls Tso every few milliseconds until stopped
// and records every failure and the slowest answer.
class Probe {
 public:
  explicit Probe(const std::string& target)
      : client_(target, kanrpc::RpcClientOptions{kCallTimeoutMs, 1}), thread_([this] { Run(); }) {}
  ~Probe() { Stop(); }

  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  int64_t calls() const { return calls_; }
  int64_t failures() const { return failures_; }
  double slowest_ms() const { return slowest_ms_; }

 private:
  void Run() {
    while (!stop_) {
      const auto start = Clock::now();
      pdpb::TsoResponse resp;
      if (!client_.Call("Pd.Tso", pdpb::TsoRequest{1}, &resp).ok()) failures_++;
      calls_++;
      const double ms = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
      slowest_ms_ = std::max(slowest_ms_.load(), ms);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  kanrpc::RpcClient client_;
  std::atomic<bool> stop_{false};
  std::atomic<int64_t> calls_{0};
  std::atomic<int64_t> failures_{0};
  std::atomic<double> slowest_ms_{0};
  std::thread thread_;
};

std::string TsoFrame(uint64_t request_id) {
  return kanrpc::BuildFrame(FrameType::kRequest, request_id, "Pd.Tso",
                            pdpb::Encode(pdpb::TsoRequest{1}));
}

// The largest legal request: a Tso request whose payload is filled up to
// 64 MiB by one field of an unknown number, which the decoder skips.
std::string LargestLegalTsoFrame() {
  std::string payload = pdpb::Encode(pdpb::TsoRequest{3});
  const size_t filler = kanrpc::kMaxPayloadLength - payload.size() - pdpb::kFieldHeaderSize;
  const std::string bytes(filler, 'f');
  pdpb::AppendField(&payload, 999, bytes.size(), bytes.data());
  return kanrpc::BuildFrame(FrameType::kRequest, 77, "Pd.Tso", payload);
}

// One hostile connection of a random kind. Returns an empty string when the
// server behaved, else what went wrong.
std::string RunHostileConnection(int port, std::mt19937_64* rng, uint64_t* answered_first) {
  RawConnection conn;
  if (!conn.Connect(port)) return "cannot connect";
  std::string why;
  const std::string good = TsoFrame(5);
  switch ((*rng)() % 6) {
    case 0: {  // garbage that does not start with the magic
      std::string bytes(1 + (*rng)() % 65536, '\0');
      for (char& c : bytes) c = static_cast<char>((*rng)());
      bytes[0] = 'X';
      conn.Send(bytes);
      conn.ShutdownWrite();
      break;
    }
    case 1: {  // the magic, then garbage
      std::string bytes = "KRPC";
      bytes.resize(4 + (*rng)() % 65536);
      for (size_t i = 4; i < bytes.size(); i++) bytes[i] = static_cast<char>((*rng)());
      conn.Send(bytes);
      conn.ShutdownWrite();
      break;
    }
    case 2: {  // a method name over its limit: refused before it arrives
      std::string header = good.substr(0, kanrpc::kFrameHeaderSize);
      EncodeFixed16(header.data() + 13, static_cast<uint16_t>(kanrpc::kMaxMethodLength + 1));
      conn.Send(header);
      break;
    }
    case 3: {  // a payload over its limit: refused before it arrives
      std::string head = good.substr(0, kanrpc::kFrameHeaderSize + 6 + 4);
      EncodeFixed32(head.data() + head.size() - 4, kanrpc::kMaxPayloadLength + 1);
      conn.Send(head);
      break;
    }
    case 4: {  // a whole frame with a damaged checksum
      std::string frame = good;
      frame.back() ^= 0x40;
      conn.Send(frame);
      break;
    }
    default: {  // a good frame, then a frame cut short, then a close
      conn.Send(good);
      kanrpc::Frame answer;
      Status s = kanrpc::ReadFrame(conn.fd(), &answer, kCallTimeoutMs);
      if (!s.ok()) return "no answer to a good frame: " + s.ToString();
      if (answer.type != FrameType::kResponse || answer.request_id != 5) return "wrong answer";
      (*answered_first)++;
      conn.Send(good.substr(0, 1 + (*rng)() % (good.size() - 1)));
      conn.ShutdownWrite();
      break;
    }
  }
  if (!conn.EndedWithoutAnswer(kCallTimeoutMs, &why)) return why;
  return "";
}

TEST(HostileClientsTest, WellBehavedClientsKeepGettingAnswersWithBoundedMemory) {
  // The test's own client sockets need more descriptors than the common
  // soft limit; the server is started with that common limit of 1024 all
  // the same, and must raise its own.
  const int64_t needed_files =
      kBusyClients + kStalledAnnouncements + kIdleConnections + kHostileThreads + 256;
  ASSERT_GE(testing::RaiseOpenFileLimit(2 * needed_files), needed_files)
      << "the open-file limit is too low for this test";
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);

  const std::string dir = testing::MakeTempDir("kandb-hostile");
  MetaServer server;
  server.set_open_file_limit(1024, limit.rlim_max);
  ASSERT_TRUE(server.Start(dir + "/state"));
  const pid_t pid = server.child()->pid();
  {
    pdpb::BootstrapRequest req;
    req.store = {1, "127.0.0.1:20160", 1};
    req.region.id = 2;
    req.region.peers = {{3, 1, 0}};
    pdpb::BootstrapResponse resp;
    ASSERT_TRUE(server.NewClient()->Call("Pd.Bootstrap", req, &resp).ok());
  }

  // What the server costs before anyone connects; the bootstrap client's
  // connection thread is given a moment to end.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const ProcessStatus baseline = testing::ReadProcessStatus(pid);
  Monitor monitor(pid);
  auto probe = std::make_unique<Probe>(server.target());

  std::vector<std::unique_ptr<RawConnection>> idle;
  for (int i = 0; i < kIdleConnections; i++) {
    idle.push_back(std::make_unique<RawConnection>());
    ASSERT_TRUE(idle.back()->Connect(server.port()));
  }

  // A thousand clients connect and wait together, then all call at once.
  const ProcessStatus before_busy = testing::ReadProcessStatus(pid);
  std::atomic<int> connected{0};
  std::atomic<bool> go{false};
  std::atomic<int64_t> busy_failures{0};
  std::atomic<int64_t> busy_answers{0};
  std::vector<std::thread> busy;
  // Releases and joins the busy clients on every way out of the test, so
  // that a failed assertion never leaves them waiting.
  struct ReleaseAndJoin {
    std::atomic<bool>* go;
    std::vector<std::thread>* threads;
    ~ReleaseAndJoin() {
      go->store(true);
      go->notify_all();
      for (std::thread& t : *threads) {
        if (t.joinable()) t.join();
      }
    }
  } release_and_join{&go, &busy};
  for (int i = 0; i < kBusyClients; i++) {
    busy.emplace_back([&, i] {
      kanrpc::RpcClient client(server.target(), kanrpc::RpcClientOptions{kCallTimeoutMs, 1});
      pdpb::TsoResponse tso;
      if (!client.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso).ok()) busy_failures++;
      connected++;
      go.wait(false);
      for (int r = 0; r < kRequestsPerBusyClient; r++) {
        Status s;
        switch ((i + r) % 3) {
          case 0: {
            pdpb::TsoResponse resp;
            s = client.Call("Pd.Tso", pdpb::TsoRequest{1}, &resp);
            break;
          }
          case 1: {
            pdpb::AllocIdResponse resp;
            s = client.Call("Pd.AllocId", pdpb::AllocIdRequest{1}, &resp);
            break;
          }
          default: {
            pdpb::GetRegionResponse resp;
            s = client.Call("Pd.GetRegion", pdpb::GetRegionRequest{std::string("k").append(std::to_string(i))}, &resp);
            if (s.ok() && resp.region.id != 2) s = Status::Corruption("routed to the wrong region");
            break;
          }
        }
        if (s.ok()) {
          busy_answers++;
        } else {
          busy_failures++;
          ADD_FAILURE() << "busy client " << i << ": " << s.ToString();
        }
      }
    });
  }
  while (connected < kBusyClients) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  const ProcessStatus with_busy = testing::ReadProcessStatus(pid);

  // The stalled announcements: each costs a connection thread and what it
  // sent, not the 64 MiB it announced.
  const std::string announcement =
      kanrpc::BuildFrame(FrameType::kRequest, 9, "Pd.Tso", std::string(kanrpc::kMaxPayloadLength, 's'))
          .substr(0, kanrpc::kFrameHeaderSize + 6 + 4 + kStalledPayloadSent);
  std::vector<std::unique_ptr<RawConnection>> stalled;
  for (int i = 0; i < kStalledAnnouncements; i++) {
    stalled.push_back(std::make_unique<RawConnection>());
    ASSERT_TRUE(stalled.back()->Connect(server.port()));
    ASSERT_TRUE(stalled.back()->Send(announcement));
  }
  const int64_t expected_threads = with_busy.threads + kStalledAnnouncements;
  const auto settle_deadline = Clock::now() + std::chrono::seconds(60);
  while (testing::ReadProcessStatus(pid).threads < expected_threads && Clock::now() < settle_deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const ProcessStatus with_stalled = testing::ReadProcessStatus(pid);
  EXPECT_GE(with_stalled.threads, expected_threads);

  // Address space says what was allocated even where it was never touched:
  // a connection thread costs its stack, and a stalled announcement must
  // cost about as much, not 64 MiB more. (Sanitizers reserve address space
  // of their own, so the comparison holds in the plain build only.)
  const double per_thread_kib =
      static_cast<double>(with_busy.vm_size_kib - before_busy.vm_size_kib) /
      static_cast<double>(std::max<int64_t>(1, with_busy.threads - before_busy.threads));
  const double per_stalled_kib =
      static_cast<double>(with_stalled.vm_size_kib - with_busy.vm_size_kib) / kStalledAnnouncements;
  if (!kSanitizedBuild) {
    EXPECT_LT(per_stalled_kib, per_thread_kib + 16 * 1024)
        << "a stalled announcement reserves " << per_stalled_kib << " KiB, a thread "
        << per_thread_kib << " KiB";
  }

  // The largest legal request is read, decoded and answered meanwhile.
  {
    RawConnection heavy;
    ASSERT_TRUE(heavy.Connect(server.port()));
    ASSERT_TRUE(heavy.Send(LargestLegalTsoFrame()));
    kanrpc::Frame answer;
    Status s = kanrpc::ReadFrame(heavy.fd(), &answer, kCallTimeoutMs);
    ASSERT_TRUE(s.ok()) << s.ToString();
    EXPECT_EQ(answer.type, FrameType::kResponse);
    pdpb::TsoResponse tso;
    ASSERT_TRUE(pdpb::Decode(answer.payload.size(), answer.payload.data(), &tso));
    EXPECT_EQ(tso.count, 3u);
  }

  // Everyone at once: the busy clients call while hostile connections come
  // and go.
  go = true;
  go.notify_all();
  std::atomic<int64_t> hostile_done{0};
  std::atomic<uint64_t> answered_before_cut{0};
  std::vector<std::thread> hostile;
  for (int t = 0; t < kHostileThreads; t++) {
    hostile.emplace_back([&, t] {
      std::mt19937_64 rng{std::random_device{}() + static_cast<uint64_t>(t)};
      uint64_t answered = 0;
      for (int i = t; i < kGarbageConnections; i += kHostileThreads) {
        const std::string problem = RunHostileConnection(server.port(), &rng, &answered);
        if (!problem.empty()) ADD_FAILURE() << "hostile connection " << i << ": " << problem;
        hostile_done++;
      }
      answered_before_cut += answered;
    });
  }
  for (std::thread& t : hostile) t.join();
  for (std::thread& t : busy) t.join();
  const ProcessStatus at_peak = testing::ReadProcessStatus(pid);

  EXPECT_EQ(busy_failures.load(), 0);
  EXPECT_EQ(busy_answers.load(), int64_t{kBusyClients} * kRequestsPerBusyClient);
  EXPECT_EQ(hostile_done.load(), kGarbageConnections);

  // The stalled and idle connections are still held open, unanswered.
  for (RawConnection* held : {stalled.front().get(), idle.front().get()}) {
    std::string why;
    EXPECT_FALSE(held->EndedWithoutAnswer(0, &why));
    EXPECT_EQ(why, "the server kept the connection open");
  }

  // Once every client has gone, the probe included, so have the server's
  // connection threads.
  probe->Stop();
  const int64_t probe_calls = probe->calls();
  const int64_t probe_failures = probe->failures();
  const double probe_slowest_ms = probe->slowest_ms();
  probe.reset();
  stalled.clear();
  idle.clear();
  const auto drain_deadline = Clock::now() + std::chrono::seconds(60);
  while (testing::ReadProcessStatus(pid).threads > baseline.threads && Clock::now() < drain_deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const ProcessStatus drained = testing::ReadProcessStatus(pid);
  EXPECT_LE(drained.threads, baseline.threads);
  monitor.Stop();

  // Still serving, and nothing was said on standard error.
  pdpb::TsoResponse tso;
  EXPECT_TRUE(server.NewClient()->Call("Pd.Tso", pdpb::TsoRequest{1}, &tso).ok());
  EXPECT_EQ(probe_failures, 0);
  EXPECT_GT(probe_calls, 0);
  EXPECT_EQ(server.child()->Stderr(), "");

  const int64_t peak_kib = std::max(monitor.peak_rss_kib(), at_peak.hwm_kib);
  EXPECT_LT(peak_kib, kPeakResidentCeilingKiB);
  std::printf(
      "hostile clients%s: %d busy connections answered %" PRId64 " calls, %d stalled 64 MiB "
      "announcements, %d idle connections, %d hostile connections (%" PRIu64
      " answered before a cut frame), one 64 MiB request\n"
      "  server at the peak: %.1f MiB resident (VmHWM %.1f MiB), %" PRId64
      " threads; %.1f MiB resident with everyone connected; %" PRId64 " threads before and %" PRId64
      " after\n"
      "  address space: %.2f MiB per connection thread, %.2f MiB per stalled announcement\n"
      "  probe: %" PRId64 " calls, %" PRId64 " failed, slowest %.1f ms\n",
      kSanitizedBuild ? " (sanitizer counts)" : "", kBusyClients, busy_answers.load(),
      kStalledAnnouncements, kIdleConnections, kGarbageConnections, answered_before_cut.load(),
      static_cast<double>(monitor.peak_rss_kib()) / 1024, static_cast<double>(at_peak.hwm_kib) / 1024,
      monitor.peak_threads(), static_cast<double>(with_stalled.rss_kib) / 1024, baseline.threads,
      drained.threads, per_thread_kib / 1024, per_stalled_kib / 1024,
      probe_calls, probe_failures, probe_slowest_ms);

  server.Kill();
  testing::RemoveTree(dir);
}

// A client can run the server out of descriptors: twice its limit in
// connections at once. Accept then fails until descriptors free up; the
// server must pause, say so, and serve again, never end.
TEST(HostileClientsTest, RunningOutOfDescriptorsNeverEndsTheServer) {
  constexpr int kLimit = 64;
  const std::string dir = testing::MakeTempDir("kandb-descriptors");
  MetaServer server;
  server.set_open_file_limit(kLimit, kLimit);
  ASSERT_TRUE(server.Start(dir + "/state"));
  const std::string report = "accept: accept failed: Too many open files (retrying in ";
  for (int round = 0; round < 2; round++) {
    std::vector<std::unique_ptr<RawConnection>> flood;
    for (int i = 0; i < 2 * kLimit; i++) {
      flood.push_back(std::make_unique<RawConnection>());
      ASSERT_TRUE(flood.back()->Connect(server.port()));
    }
    // Held open until the server has met the limit and said so.
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (server.child()->Stderr().find(report) == std::string::npos && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_NE(server.child()->Stderr().find(report), std::string::npos) << server.child()->Stderr();
    EXPECT_EQ(server.child()->Wait(0), -1) << "the server ended";
    flood.clear();
    pdpb::TsoResponse tso;
    kanrpc::RpcClient client(server.target(), kanrpc::RpcClientOptions{kCallTimeoutMs, 20});
    Status s = client.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
    EXPECT_TRUE(s.ok()) << s.ToString();
    EXPECT_EQ(server.child()->Wait(0), -1) << "the server ended";
  }
  server.Kill();
  testing::RemoveTree(dir);
}

}  // namespace
}  // namespace kandb
