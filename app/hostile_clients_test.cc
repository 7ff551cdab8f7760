// Hostile and heavy clients against the real server, all at once: a
// thousand connections calling concurrently, a thousand that announce a
// 64 MiB payload and stall, idle connections, garbage, frames over their
// limits or with a bad checksum, frames cut short, and the largest legal
// request. Every well-behaved call must be answered; the server's memory
// stays bounded (a stalled announcement costs only what arrived), and the
// connections cost no thread each: the server's threads stay few and go
// back to what they were once the clients are gone. Counts are scaled down under
// sanitizers.

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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
#include "rpc/rpc_test_util.h"

namespace kandb {
namespace {

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

// Raw connections, for clients that do not follow the protocol.
using Connection = kanrpc::testing::Socket;
using kanrpc::testing::ConnectTo;

// Sends everything; the server may close early on a hostile stream, so the
// result is only a hint.
bool Send(const Connection& conn, const std::string& bytes) {
  return kanrpc::WriteAll(conn.fd(), bytes.data(), bytes.size(), kCallTimeoutMs).ok();
}

// True when the server ends the connection (close or reset) within
// timeout_ms without sending a single byte; else says why not.
bool EndedWithoutAnswer(const Connection& conn, int timeout_ms, std::string* why) {
  char byte;
  Status s = kanrpc::ReadExact(conn.fd(), &byte, 1, timeout_ms);
  if (s.ok()) *why = "the server answered";
  if (s.message() == "kanrpc: io timeout") *why = "the server kept the connection open";
  return !s.ok() && why->empty();
}

// Until stopped: a well-behaved client calling Tso every few milliseconds,
// counting calls and failures, and the server's peak resident memory.
class Probe {
 public:
  Probe(const std::string& target, pid_t pid)
      : client_(target, kanrpc::RpcClientOptions{kCallTimeoutMs, 1}), pid_(pid), thread_([this] { Run(); }) {}
  ~Probe() { Stop(); }
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  std::atomic<int64_t> calls{0}, failures{0}, peak_rss_kib{0};

 private:
  void Run() {
    while (!stop_) {
      pdpb::TsoResponse resp;
      if (!client_.Call("Pd.Tso", pdpb::TsoRequest{1}, &resp).ok()) failures++;
      calls++;
      peak_rss_kib = std::max<int64_t>(peak_rss_kib, testing::ReadProcessStatus(pid_).rss_kib);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  kanrpc::RpcClient client_;
  const pid_t pid_;
  std::atomic<bool> stop_{false};
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
std::string RunHostileConnection(int port, std::mt19937_64* rng) {
  Connection conn = ConnectTo(port);
  if (!conn.valid()) return "cannot connect";
  std::string why;
  const std::string good = TsoFrame(5);
  switch ((*rng)() % 6) {
    case 0: {  // garbage that does not start with the magic
      std::string bytes(1 + (*rng)() % 65536, '\0');
      for (char& c : bytes) c = static_cast<char>((*rng)());
      bytes[0] = 'X';
      Send(conn, bytes);
      shutdown(conn.fd(), SHUT_WR);
      break;
    }
    case 1: {  // the magic, then garbage
      std::string bytes = "KRPC";
      bytes.resize(4 + (*rng)() % 65536);
      for (size_t i = 4; i < bytes.size(); i++) bytes[i] = static_cast<char>((*rng)());
      Send(conn, bytes);
      shutdown(conn.fd(), SHUT_WR);
      break;
    }
    case 2: {  // a method name over its limit: refused before it arrives
      std::string header = good.substr(0, kanrpc::kFrameHeaderSize);
      EncodeFixed16(header.data() + 13, static_cast<uint16_t>(kanrpc::kMaxMethodLength + 1));
      Send(conn, header);
      break;
    }
    case 3: {  // a payload over its limit: refused before it arrives
      std::string head = good.substr(0, kanrpc::kFrameHeaderSize + 6 + 4);
      EncodeFixed32(head.data() + head.size() - 4, kanrpc::kMaxPayloadLength + 1);
      Send(conn, head);
      break;
    }
    case 4: {  // a whole frame with a damaged checksum
      std::string frame = good;
      frame.back() ^= 0x40;
      Send(conn, frame);
      break;
    }
    default: {  // a good frame, then a frame cut short, then a close
      Send(conn, good);
      kanrpc::Frame answer;
      Status s = kanrpc::ReadFrame(conn.fd(), &answer, kCallTimeoutMs);
      if (!s.ok()) return "no answer to a good frame: " + s.ToString();
      if (answer.type != FrameType::kResponse || answer.request_id != 5) return "wrong answer";
      Send(conn, good.substr(0, 1 + (*rng)() % (good.size() - 1)));
      shutdown(conn.fd(), SHUT_WR);
      break;
    }
  }
  if (!EndedWithoutAnswer(conn, kCallTimeoutMs, &why)) return why;
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
  const testing::ScratchDir dir("kandb-hostile");
  MetaServer server;
  server.set_open_file_limit(1024, limit.rlim_max);
  ASSERT_TRUE(server.Start(dir.File("state")));
  const pid_t pid = server.child()->pid();
  pdpb::BootstrapResponse booted;
  ASSERT_TRUE(server.NewClient()
                  ->Call("Pd.Bootstrap", pdpb::BootstrapRequest{{1, "127.0.0.1:20160", 1}, {2, "", "", {}, {{3, 1, 0}}}, {}},
                         &booted)
                  .ok());

  // What the server costs before anyone connects; the bootstrap client's
  // connection is given a moment to close.
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const ProcessStatus baseline = testing::ReadProcessStatus(pid);
  auto probe = std::make_unique<Probe>(server.target(), pid);

  std::vector<Connection> idle;
  for (int i = 0; i < kIdleConnections; i++) {
    idle.push_back(ConnectTo(server.port()));
    ASSERT_TRUE(idle.back().valid());
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
        pdpb::AllocIdResponse id;
        pdpb::GetRegionResponse region;
        if ((i + r) % 3 == 0) {
          s = client.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
        } else if ((i + r) % 3 == 1) {
          s = client.Call("Pd.AllocId", pdpb::AllocIdRequest{1}, &id);
        } else {
          s = client.Call("Pd.GetRegion", pdpb::GetRegionRequest{"k" + std::to_string(i)}, &region);
          if (s.ok() && region.region.id != 2) s = Status::Corruption("routed to the wrong region");
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

  // The stalled announcements: each costs what it sent, not the 64 MiB it
  // announced.
  const std::string announcement =
      kanrpc::BuildFrame(FrameType::kRequest, 9, "Pd.Tso", std::string(kanrpc::kMaxPayloadLength, 's'))
          .substr(0, kanrpc::kFrameHeaderSize + 6 + 4 + kStalledPayloadSent);
  std::vector<Connection> stalled;
  for (int i = 0; i < kStalledAnnouncements; i++) {
    stalled.push_back(ConnectTo(server.port()));
    ASSERT_TRUE(Send(stalled.back(), announcement));
  }
  // Nothing tells when the server has read them all; a moment will do.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const ProcessStatus with_stalled = testing::ReadProcessStatus(pid);
  // The event loops serve every connection: a thousand connections and a
  // thousand stalled ones add no thread (workers run only blocking calls).
  EXPECT_LT(with_stalled.threads, baseline.threads + 64);

  // Address space counts what was allocated even if never touched: a
  // stalled announcement must cost about what arrived, not 64 MiB. Sanitizers
  // reserve address space of their own: plain build only.
  const double per_connection_kib =
      static_cast<double>(with_busy.vm_size_kib - before_busy.vm_size_kib) / kBusyClients;
  const double per_stalled_kib =
      static_cast<double>(with_stalled.vm_size_kib - with_busy.vm_size_kib) / kStalledAnnouncements;
  if (!kSanitizedBuild) {
    EXPECT_LT(per_stalled_kib, 1024) << "a stalled announcement reserves " << per_stalled_kib << " KiB";
  }

  // The largest legal request is read, decoded and answered meanwhile.
  {
    Connection heavy = ConnectTo(server.port());
    ASSERT_TRUE(Send(heavy, LargestLegalTsoFrame()));
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
  std::vector<std::thread> hostile;
  for (int t = 0; t < kHostileThreads; t++) {
    hostile.emplace_back([&, t] {
      std::mt19937_64 rng{std::random_device{}() + static_cast<uint64_t>(t)};
      for (int i = t; i < kGarbageConnections; i += kHostileThreads) {
        const std::string problem = RunHostileConnection(server.port(), &rng);
        if (!problem.empty()) ADD_FAILURE() << "hostile connection " << i << ": " << problem;
        hostile_done++;
      }
    });
  }
  for (std::thread& t : hostile) t.join();
  for (std::thread& t : busy) t.join();
  const ProcessStatus at_peak = testing::ReadProcessStatus(pid);

  EXPECT_EQ(busy_failures.load(), 0);
  EXPECT_EQ(busy_answers.load(), int64_t{kBusyClients} * kRequestsPerBusyClient);
  EXPECT_EQ(hostile_done.load(), kGarbageConnections);

  // The stalled and idle connections are still held open, unanswered.
  for (const Connection* held : {&stalled.front(), &idle.front()}) {
    std::string why;
    EXPECT_FALSE(EndedWithoutAnswer(*held, 0, &why));
    EXPECT_EQ(why, "the server kept the connection open");
  }

  // Once every client has gone, the probe included, so have the worker
  // threads that their blocking calls started.
  probe->Stop();
  const int64_t probe_calls = probe->calls, probe_failures = probe->failures, probe_peak_kib = probe->peak_rss_kib;
  probe.reset();  // its connection too
  stalled.clear();
  idle.clear();
  EXPECT_TRUE(testing::WaitFor(60000, [&] { return testing::ReadProcessStatus(pid).threads <= baseline.threads; }, 20))
      << testing::ReadProcessStatus(pid).threads << " threads, " << baseline.threads << " before";

  // Still serving, and nothing was said on standard error.
  pdpb::TsoResponse tso;
  EXPECT_TRUE(server.NewClient()->Call("Pd.Tso", pdpb::TsoRequest{1}, &tso).ok());
  EXPECT_EQ(probe_failures, 0);
  EXPECT_GT(probe_calls, 0);
  EXPECT_EQ(server.child()->Stderr(), "");
  const int64_t peak_kib = std::max<int64_t>(probe_peak_kib, at_peak.hwm_kib);
  EXPECT_LT(peak_kib, kPeakResidentCeilingKiB);
  std::printf("hostile clients%s: peak %.1f MiB resident, %lld threads with every client connected; "
              "address space %.1f KiB per connection, %.1f KiB per stalled announcement\n",
              kSanitizedBuild ? " (sanitizer counts)" : "", static_cast<double>(peak_kib) / 1024,
              static_cast<long long>(with_stalled.threads), per_connection_kib, per_stalled_kib);

  server.Kill();
}

// A client can run the server out of descriptors: twice its limit in
// connections at once. Accept then fails until descriptors free up; the
// server must pause, say so, and serve again, never end.
TEST(HostileClientsTest, RunningOutOfDescriptorsNeverEndsTheServer) {
  constexpr int kLimit = 64;
  const testing::ScratchDir dir("kandb-descriptors");
  MetaServer server;
  server.set_open_file_limit(kLimit, kLimit);
  ASSERT_TRUE(server.Start(dir.File("state")));
  const std::string report = "accept: accept failed: Too many open files (retrying in ";
  for (int round = 0; round < 2; round++) {
    std::vector<Connection> flood;
    for (int i = 0; i < 2 * kLimit; i++) {
      flood.push_back(ConnectTo(server.port()));
      ASSERT_TRUE(flood.back().valid());
    }
    // Held open until the server has met the limit and said so.
    EXPECT_TRUE(testing::WaitFor(60000, [&] { return server.child()->Stderr().find(report) != std::string::npos; }, 10))
        << server.child()->Stderr();
    EXPECT_EQ(server.child()->Wait(0), -1) << "the server ended: " << server.child()->Stderr();
    flood.clear();
    pdpb::TsoResponse tso;
    kanrpc::RpcClient client(server.target(), kanrpc::RpcClientOptions{kCallTimeoutMs, 20});
    Status s = client.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
    EXPECT_TRUE(s.ok()) << s.ToString();
    EXPECT_EQ(server.child()->Wait(0), -1) << "the server ended: " << server.child()->Stderr();
  }
  server.Kill();
}

}  // namespace
}  // namespace kandb
