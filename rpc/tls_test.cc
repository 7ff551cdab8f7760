// The RPC port over TLS, with certificates made by the openssl command:
// who is let in and who is not, what a refused or stalled client costs the
// server, and calls over sessions (pipelined, concurrent, across a reload).

#include "rpc/tls.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "common/test_certs.h"
#include "common/test_util.h"
#include "rpc/client.h"
#include "rpc/frame.h"
#include "rpc/rpc_test_util.h"
#include "rpc/server.h"

namespace kandb::kanrpc {
namespace {

using testing::ConnectTo;
using testing::Socket;

std::shared_ptr<const TlsClientContext> ClientContext(const kandb::testing::CertFiles& client, const std::string& ca,
                                                      const std::string& server_name = "") {
  std::shared_ptr<const TlsClientContext> context;
  const Status s = TlsClientContext::Load({client.cert, client.key, ca, server_name}, &context);
  EXPECT_TRUE(s.ok()) << s.ToString();
  return context;
}

class TlsTest : public ::testing::Test {
 protected:
  TlsTest()
      : dir_(kandb::testing::MakeTempDir("kandb-tls")),
        pki_(dir_, "cluster"),
        other_pki_(dir_, "stranger") {}
  ~TlsTest() override {
    server_.Stop();
    kandb::testing::RemoveTree(dir_);
  }

  // A server on `tls` answering "Echo" on the loop, "Slow" on a worker and
  // "Later" from another thread.
  void StartServer(const TlsServerConfig& config, int handshake_timeout_ms = RpcServer::kHandshakeTimeoutMs) {
    ASSERT_TRUE(pki_.ok()) << pki_.error();
    ASSERT_TRUE(TlsServerContext::Load(config, &tls_).ok());
    server_.RegisterRaw(
        "Echo",
        [](const std::string& req, std::string* resp) {
          *resp = req;
          return Status::OK();
        },
        CallMode::kInline);
    server_.RegisterRaw("Slow", [](const std::string& req, std::string* resp) {
      *resp = req + "!";
      return Status::OK();
    });
    server_.RegisterAsyncRaw("Later", [](const std::string& req, Reply reply) {
      std::thread([req, reply] { reply.Send(Status::OK(), req + "?"); }).detach();
    });
    server_.SetTls(tls_);
    server_.SetHandshakeTimeoutMs(handshake_timeout_ms);
    ASSERT_TRUE(server_.Start(0, "127.0.0.1").ok());
  }
  // Mutual TLS with an allow-list: server.pem for 127.0.0.1, clients
  // "store-1" (by common name) and "store-2" (by DNS alternative name).
  TlsServerConfig MutualConfig() {
    server_files_ = pki_.Server("server");
    return {server_files_.cert, server_files_.key, pki_.ca().cert, {"store-1", "store-2"}};
  }
  std::string target() const { return "127.0.0.1:" + std::to_string(server_.port()); }
  std::unique_ptr<RpcClient> Client(std::shared_ptr<const TlsClientContext> tls) const {
    return std::make_unique<RpcClient>(target(), RpcClientOptions{5000, 1, std::move(tls)});
  }
  // Waits (without a time limit of its own beyond a generous one) until the
  // server counts `open` connections.
  bool WaitOpenConnections(uint64_t open) {
    return WaitStats([open](const ServerStats& s) { return s.open_connections == open; });
  }
  template <class Predicate>
  bool WaitStats(Predicate done) {
    return kandb::testing::WaitFor(30000, [&] { return done(server_.Stats()); }, 10);
  }

  const std::string dir_;
  kandb::testing::TestPki pki_;
  kandb::testing::TestPki other_pki_;
  kandb::testing::CertFiles server_files_;
  std::shared_ptr<TlsServerContext> tls_;
  RpcServer server_;
};

std::string Call(RpcClient* client, const std::string& method, const std::string& request) {
  std::string response;
  const Status s = client->CallRaw(method, request, &response);
  return s.ok() ? response : s.ToString();
}

// Every way of being refused ends in a closed connection that the server
// forgets at once, and none of them disturbs a session already set up.
TEST_F(TlsTest, RefusedClientsCostNothingThatLasts) {
  StartServer(MutualConfig());
  const auto member = pki_.Issue("store-1", "store-1", "");
  const auto by_dns_name = pki_.Issue("store-2", "node-7", "DNS:store-2");
  const auto not_listed = pki_.Issue("store-9", "store-9", "DNS:store-9.example");
  const auto expired = pki_.Issue("expired", "store-1", "", 0);
  const auto stranger = other_pki_.Issue("stranger", "store-1", "");
  ASSERT_TRUE(other_pki_.ok()) << other_pki_.error();
  // Let the expired certificate's only second pass.
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));

  std::unique_ptr<RpcClient> established = Client(ClientContext(member, pki_.ca().cert));
  ASSERT_EQ(Call(established.get(), "Echo", "hello"), "hello");
  EXPECT_EQ(Call(Client(ClientContext(by_dns_name, pki_.ca().cert)).get(), "Slow", "dns"), "dns!");

  const std::string ca = pki_.ca().cert;
  struct Refusal {
    const char* what;
    std::shared_ptr<const TlsClientContext> tls;
  };
  const Refusal refusals[] = {
      {"plain frames on the TLS port", nullptr},
      {"no client certificate", ClientContext({}, ca)},
      {"a certificate from another CA", ClientContext(stranger, ca)},
      {"an expired certificate", ClientContext(expired, ca)},
      {"a name not on the list", ClientContext(not_listed, ca)},
  };
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.what);
    std::unique_ptr<RpcClient> client = Client(refusal.tls);
    std::string ignored;
    const Status s = client->CallRaw("Echo", "x", &ignored);
    EXPECT_FALSE(s.ok());
    EXPECT_TRUE(s.message().find("kanrpc") == 0) << s.ToString();
    client.reset();
    EXPECT_TRUE(WaitOpenConnections(1));
    EXPECT_EQ(Call(established.get(), "Later", "still"), "still?");
  }
  // Garbage where a ClientHello belongs, and a client that stops half-way.
  for (const std::string& bytes : {std::string(300, '\x16'), std::string("\x16\x03\x01\x02\x00\x01", 6)}) {
    Socket raw = ConnectTo(server_.port());
    testing::SendAllOrDie(raw.fd(), bytes);
    if (bytes.size() == 300) {
      EXPECT_TRUE(testing::PeerClosed(raw.fd(), 10000));
    }
  }
  EXPECT_EQ(Call(established.get(), "Echo", "after"), "after");
  // Five refused certificates or protocols, the garbage, and the client
  // that hung up half-way through its hello (which the server may not even
  // have accepted yet: hence a wait, not a look).
  EXPECT_TRUE(WaitStats([](const ServerStats& s) { return s.tls_refused == 7 && s.open_connections == 1; }))
      << server_.Stats().tls_refused;

  // The client checks the server too: a name the certificate does not carry.
  std::string ignored;
  const Status s = Client(ClientContext(member, ca, "pd.example"))->CallRaw("Echo", "x", &ignored);
  EXPECT_NE(s.message().find("hostname mismatch"), std::string::npos) << s.ToString();
}

// Sessions that are never set up are dropped after the handshake time-out,
// while the loop goes on serving a thousand idle sessions and an active one.
TEST_F(TlsTest, StalledHandshakesAndIdleSessions) {
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_cur < 2300) GTEST_SKIP() << "needs 2300 descriptors";
  StartServer(MutualConfig(), /*handshake_timeout_ms=*/1500);
  const auto member = pki_.Issue("store-1", "store-1", "");
  const auto context = ClientContext(member, pki_.ca().cert);
  std::unique_ptr<RpcClient> active = Client(context);
  ASSERT_EQ(Call(active.get(), "Echo", "a"), "a");

  std::vector<Socket> stalled;
  for (int i = 0; i < 100; ++i) stalled.push_back(ConnectTo(server_.port()));

  constexpr int kIdle = 1000;
  std::vector<Socket> sockets;
  std::vector<std::unique_ptr<Transport>> idle;
  for (int i = 0; i < kIdle; ++i) {
    sockets.push_back(ConnectTo(server_.port()));
    std::unique_ptr<Transport> session;
    ASSERT_TRUE(context->Handshake(sockets.back().fd(), "127.0.0.1", 10000, &session).ok());
    idle.push_back(std::move(session));
    if (i % 100 == 0) {
      ASSERT_EQ(Call(active.get(), "Slow", "b"), "b!");
    }
  }
  // The stalled ones go once their time is up; the idle ones stay.
  EXPECT_TRUE(WaitOpenConnections(1 + kIdle));
  for (const Socket& socket : stalled) EXPECT_TRUE(testing::PeerClosed(socket.fd(), 10000));
  EXPECT_EQ(server_.Stats().tls_refused, 100u);
  EXPECT_EQ(Call(active.get(), "Later", "c"), "c?");
  // An idle session still answers.
  std::string frame = BuildFrame(FrameType::kRequest, 9, "Echo", "idle");
  ASSERT_TRUE(SendAll(idle[kIdle / 2].get(), frame.data(), frame.size(), 10000).ok());
  FrameReader reader(idle[kIdle / 2].get());
  Frame answer;
  ASSERT_TRUE(reader.Read(&answer, 10000).ok());
  EXPECT_EQ(answer.payload, "idle");
}

// Hundreds of hellos that arrive together: the loop takes them a budget at
// a time, with the established session served in between, and every one
// of them is set up in the end (none is forgotten on the list of those
// left for the next round).
TEST_F(TlsTest, HandshakeFloodIsTakenInTurns) {
  StartServer(MutualConfig());
  const auto context = ClientContext(pki_.Issue("store-1", "store-1", ""), pki_.ca().cert);
  std::unique_ptr<RpcClient> established = Client(context);
  ASSERT_EQ(Call(established.get(), "Echo", "a"), "a");

  constexpr int kFlood = 20 * RpcServer::kHandshakesPerTurn;
  std::vector<Socket> sockets;
  std::vector<std::unique_ptr<Transport>> sessions;
  std::vector<bool> done(kFlood, false);
  for (int i = 0; i < kFlood; ++i) {
    sockets.push_back(ConnectTo(server_.port()));
    ASSERT_TRUE(sockets.back().valid());
    ASSERT_EQ(fcntl(sockets.back().fd(), F_SETFL, O_NONBLOCK), 0);
    std::unique_ptr<Transport> session;
    ASSERT_TRUE(context->Connect(sockets.back().fd(), "127.0.0.1", &session).ok());
    bool set_up = false;
    ASSERT_TRUE(session->Handshake(&set_up).ok());  // sends the hello
    sessions.push_back(std::move(session));
  }
  // Each round of the flood is interleaved with a call on the established
  // session; the clients finish their side as their answers come in.
  for (int remaining = kFlood, rounds = 0; remaining > 0; ++rounds) {
    ASSERT_LT(rounds, 100000) << remaining << " handshakes never finished";
    ASSERT_EQ(Call(established.get(), "Echo", "b"), "b");
    for (int i = 0; i < kFlood; ++i) {
      if (done[i]) continue;
      bool set_up = false;
      ASSERT_TRUE(sessions[i]->Handshake(&set_up).ok());
      if (set_up) {
        done[i] = true;
        --remaining;
      }
    }
  }
  // Set up on both sides: each answers a call.
  for (int i = 0; i < kFlood; i += 37) {
    std::string frame = BuildFrame(FrameType::kRequest, i, "Echo", std::to_string(i));
    ASSERT_TRUE(SendAll(sessions[i].get(), frame.data(), frame.size(), 10000).ok());
    FrameReader reader(sessions[i].get());
    Frame answer;
    ASSERT_TRUE(reader.Read(&answer, 10000).ok());
    EXPECT_EQ(answer.payload, std::to_string(i));
  }
  EXPECT_EQ(server_.Stats().tls_refused, 0u);
}

// Frames sent back to back on one session are answered in order, across
// the three ways a call is run; sessions in parallel do not mix, and a new
// session per call works as well as a long-lived one.
TEST_F(TlsTest, PipelinedAndConcurrentCalls) {
  StartServer(MutualConfig());
  const auto context = ClientContext(pki_.Issue("store-1", "store-1", ""), pki_.ca().cert);
  Socket socket = ConnectTo(server_.port());
  std::unique_ptr<Transport> session;
  ASSERT_TRUE(context->Handshake(socket.fd(), "127.0.0.1", 10000, &session).ok());
  const char* const methods[] = {"Echo", "Slow", "Later"};
  const char* const suffixes[] = {"", "!", "?"};
  std::string burst;
  constexpr int kFrames = 300;  // several times the per-round budget
  for (int i = 0; i < kFrames; ++i) {
    AppendFrame(&burst, FrameType::kRequest, i, methods[i % 3], std::string(i * 37 % 5000, 'p') + std::to_string(i));
  }
  ASSERT_TRUE(SendAll(session.get(), burst.data(), burst.size(), 10000).ok());
  FrameReader reader(session.get());
  for (int i = 0; i < kFrames; ++i) {
    Frame answer;
    ASSERT_TRUE(reader.Read(&answer, 10000).ok());
    EXPECT_EQ(answer.request_id, static_cast<uint64_t>(i));
    EXPECT_EQ(answer.payload, std::string(i * 37 % 5000, 'p') + std::to_string(i) + suffixes[i % 3]);
  }

  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      std::unique_ptr<RpcClient> client = Client(context);
      for (int i = 0; i < 200; ++i) {
        const std::string request = std::to_string(t) + "/" + std::to_string(i);
        const int m = (t + i) % 3;
        // Every fifth call on a session of its own.
        std::unique_ptr<RpcClient> fresh = i % 5 == 0 ? Client(context) : nullptr;
        if (Call(fresh ? fresh.get() : client.get(), methods[m], request) != request + suffixes[m]) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong.load(), 0);
}

// A reload swaps the certificate for new sessions only: one set up before
// keeps answering, a client that trusts only the new CA gets in, one that
// trusts only the old one no longer does, and a reload of broken files
// keeps the certificate in use.
TEST_F(TlsTest, ReloadRotatesForNewSessionsOnly) {
  const TlsServerConfig config = MutualConfig();
  StartServer(config);
  kandb::testing::TestPki next(dir_, "next");
  ASSERT_TRUE(next.ok()) << next.error();
  const auto member = pki_.Issue("store-1", "store-1", "");
  // Clients present certificates of the old CA, which the server keeps
  // trusting: only the server's own certificate changes.
  std::unique_ptr<RpcClient> before = Client(ClientContext(member, pki_.ca().cert));
  ASSERT_EQ(Call(before.get(), "Echo", "1"), "1");

  std::atomic<bool> stop{false};
  std::atomic<int> failures{0};
  std::thread connecting([&] {
    // New sessions throughout the swap, trusting both CAs.
    const std::string both = dir_ + "/both.pem";
    kandb::testing::WriteFileOrDie(both, kandb::testing::ReadFileOrEmpty(pki_.ca().cert) +
                                             kandb::testing::ReadFileOrEmpty(next.ca().cert));
    const auto context = ClientContext(member, both);
    while (!stop.load()) {
      if (Call(Client(context).get(), "Echo", "x") != "x") ++failures;
    }
  });
  const auto rotated = next.Server("rotated");
  kandb::testing::WriteFileOrDie(config.cert, kandb::testing::ReadFileOrEmpty(rotated.cert));
  kandb::testing::WriteFileOrDie(config.key, kandb::testing::ReadFileOrEmpty(rotated.key));
  ASSERT_TRUE(tls_->Reload().ok());
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  stop = true;
  connecting.join();
  EXPECT_EQ(failures.load(), 0);

  EXPECT_EQ(Call(before.get(), "Slow", "2"), "2!");
  EXPECT_EQ(Call(Client(ClientContext(member, next.ca().cert)).get(), "Echo", "3"), "3");
  EXPECT_NE(Call(Client(ClientContext(member, pki_.ca().cert)).get(), "Echo", "4"), "4");

  kandb::testing::WriteFileOrDie(config.key, "broken\n");
  const Status s = tls_->Reload();
  EXPECT_EQ(s.ToString(), "InvalidArgument: tls: cannot load key " + config.key + ": unsupported");
  EXPECT_EQ(Call(Client(ClientContext(member, next.ca().cert)).get(), "Echo", "5"), "5");
}

TEST(TlsNamesTest, SplitNamesDropsBlanksAndEmptyEntries) {
  EXPECT_EQ(SplitNames(" a, b ,,c,\t"), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(SplitNames(""), std::vector<std::string>{});
}

}  // namespace
}  // namespace kandb::kanrpc
