#include "rpc/client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/mutex.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "rpc/frame.h"
#include "rpc/rpc_test_util.h"
#include "rpc/server.h"

namespace kandb::kanrpc {
namespace {

using Clock = std::chrono::steady_clock;

// A scripted peer: accepts connections one at a time and answers every
// request frame with whatever `answer` makes of it (or nothing, when it
// returns false), until the client closes. Counts accepted connections and
// records every request id seen.
class FakeServer {
 public:
  using Answer = std::function<bool(int connection, const Frame& request, Frame* reply)>;

  explicit FakeServer(Answer answer) : answer_(std::move(answer)) {
    listener_ = testing::Listen(&port_);
    thread_ = std::thread([this] { Run(); });
  }
  ~FakeServer() {
    shutdown(listener_.fd(), SHUT_RDWR);
    thread_.join();
  }

  std::string target() const { return "127.0.0.1:" + std::to_string(port_); }
  int accepted() const { return accepted_.load(); }
  std::vector<uint64_t> ids() {
    MutexLock lock(&mu_);
    return ids_;
  }

 private:
  void Run() {
    for (;;) {
      testing::Socket conn(accept(listener_.fd(), nullptr, nullptr));
      if (!conn.valid()) {
        if (errno == EINTR) continue;
        return;
      }
      const int index = accepted_.fetch_add(1);
      Frame request;
      while (ReadFrame(conn.fd(), &request, -1).ok()) {
        {
          MutexLock lock(&mu_);
          ids_.push_back(request.request_id);
        }
        Frame reply;
        if (!answer_(index, request, &reply)) continue;
        const std::string bytes = BuildFrame(reply.type, reply.request_id, reply.method, reply.payload);
        if (!WriteAll(conn.fd(), bytes.data(), bytes.size(), 5000).ok()) break;
      }
    }
  }

  const Answer answer_;
  testing::Socket listener_;
  int port_ = 0;
  std::atomic<int> accepted_{0};
  Mutex mu_;
  std::vector<uint64_t> ids_ GUARDED_BY(mu_);
  std::thread thread_;
};

// Answers every request as a successful echo of its payload.
bool Echo(int, const Frame& request, Frame* reply) {
  *reply = request;
  reply->type = FrameType::kResponse;
  return true;
}

// Records the pauses a client would sleep instead of sleeping them.
struct PauseLog {
  std::shared_ptr<std::vector<int64_t>> pauses = std::make_shared<std::vector<int64_t>>();
  std::function<void(int64_t)> Hook() const {
    auto p = pauses;
    return [p](int64_t micros) { p->push_back(micros); };
  }
};

void ExpectStatus(const Status& s, uint32_t code, const std::string& message) {
  EXPECT_EQ(s.code(), code) << s.ToString();
  EXPECT_EQ(s.message(), message);
}

TEST(ClientConnect, UnreachableTargetPausesTwentyThenFortyMilliseconds) {
  const std::string target = "127.0.0.1:" + std::to_string(kandb::testing::PickFreePort());
  RpcClient client(target, RpcClientOptions{1000, 3});
  std::string out = "untouched";
  const auto start = Clock::now();
  Status s = client.CallRaw("Echo", "", &out);
  const auto elapsed = Clock::now() - start;
  ExpectStatus(s, 2, "cannot connect to " + target);
  EXPECT_EQ(out, "untouched");
  // A lower bound: both pauses were actually slept.
  EXPECT_GE(elapsed, std::chrono::milliseconds(60));
}

// Each attempt reaches a peer that never answers, so a short time-out ends
// it; the pauses between attempts grow by 20 ms, every failed attempt drops
// its connection, and zero or negative attempts behave as one.
TEST(ClientConnect, AttemptsAndPauses) {
  FakeServer peer([](int, const Frame&, Frame*) { return false; });
  struct Case {
    int32_t attempts;
    int connections;
    std::vector<int64_t> pauses;
  };
  const Case cases[] = {{1, 1, {}},
                        {0, 1, {}},
                        {-4, 1, {}},
                        {2, 2, {20000}},
                        {4, 4, {20000, 40000, 60000}}};
  int total = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE("attempts " + std::to_string(c.attempts));
    RpcClient client(peer.target(), RpcClientOptions{20, c.attempts});
    PauseLog log;
    client.SetPauseForTesting(log.Hook());
    std::string out;
    ExpectStatus(client.CallRaw("Echo", "", &out), 2, "kanrpc: io timeout");
    EXPECT_EQ(*log.pauses, c.pauses);
    total += c.connections;
    // Each failed try closed its connection; wait until the peer has seen them all.
    for (int i = 0; i < 500 && peer.accepted() < total; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(peer.accepted(), total);
  }
}

TEST(ClientConnect, MalformedTargetsCannotConnect) {
  for (const std::string target : {"", "nocolon", "host:", ":7000", "[]:7000"}) {
    RpcClient client(target, RpcClientOptions{1000, 1});
    std::string out;
    ExpectStatus(client.CallRaw("Echo", "", &out), 2, "cannot connect to " + target);
  }
}

TEST(ClientConnect, HostNameIsResolved) {
  RpcServer server;
  server.RegisterRaw("Echo", [](const std::string& req, std::string* resp) {
    *resp = req;
    return Status::OK();
  });
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  // "localhost" may resolve to ::1 first, where nothing listens; the next
  // address is tried.
  RpcClient client("localhost:" + std::to_string(server.port()), RpcClientOptions{5000, 1});
  std::string out;
  ASSERT_TRUE(client.CallRaw("Echo", "via name", &out).ok());
  EXPECT_EQ(out, "via name");
}

TEST(ClientCall, ConnectionIsCachedAndIdsIncrease) {
  FakeServer peer(Echo);
  RpcClient client(peer.target(), RpcClientOptions{5000, 1});
  for (int i = 0; i < 5; ++i) {
    std::string out;
    ASSERT_TRUE(client.CallRaw("Echo", std::to_string(i), &out).ok());
    EXPECT_EQ(out, std::to_string(i));
  }
  EXPECT_EQ(peer.accepted(), 1);
  EXPECT_EQ(peer.ids(), (std::vector<uint64_t>{1, 2, 3, 4, 5}));
}

// The first connection answers with a foreign id; the client drops it and the
// next attempt runs on a new connection.
TEST(ClientCall, RequestIdMismatchDropsTheConnection) {
  FakeServer peer([](int connection, const Frame& request, Frame* reply) {
    Echo(connection, request, reply);
    if (connection == 0) reply->request_id += 1000;
    return true;
  });
  {
    RpcClient client(peer.target(), RpcClientOptions{5000, 1});
    std::string out = "untouched";
    ExpectStatus(client.CallRaw("Echo", "x", &out), 2, "kanrpc: request id mismatch");
    EXPECT_EQ(out, "untouched");
    ASSERT_TRUE(client.CallRaw("Echo", "y", &out).ok());
    EXPECT_EQ(out, "y");
    EXPECT_EQ(peer.accepted(), 2);
  }
  FakeServer retried([](int connection, const Frame& request, Frame* reply) {
    Echo(connection, request, reply);
    if (connection == 0) reply->request_id = 0;
    return true;
  });
  RpcClient client(retried.target(), RpcClientOptions{5000, 2});
  PauseLog log;
  client.SetPauseForTesting(log.Hook());
  std::string out;
  ASSERT_TRUE(client.CallRaw("Echo", "z", &out).ok());
  EXPECT_EQ(out, "z");
  EXPECT_EQ(retried.accepted(), 2);
  EXPECT_EQ(*log.pauses, std::vector<int64_t>{20000});
}

TEST(ClientCall, UnexpectedFrameTypeIsRejected) {
  FakeServer peer([](int connection, const Frame& request, Frame* reply) {
    Echo(connection, request, reply);
    reply->type = static_cast<FrameType>(request.payload == "request" ? 0 : 9);
    return true;
  });
  RpcClient client(peer.target(), RpcClientOptions{5000, 1});
  std::string out;
  ExpectStatus(client.CallRaw("Echo", "request", &out), 2, "kanrpc: bad frame type");
  ExpectStatus(client.CallRaw("Echo", "nine", &out), 2, "kanrpc: bad frame type");
}

class ClientWithServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    auto calls = failing_calls_;
    server_.RegisterRaw("Fail", [calls](const std::string& req, std::string*) {
      calls->fetch_add(1);
      return Status::NotFound("region " + req + " not found");
    });
    server_.Register<pdpb::TsoRequest, pdpb::TsoResponse>(
        "Pd.Tso", [](const pdpb::TsoRequest& req, pdpb::TsoResponse* resp) {
          resp->timestamp = 424242;
          resp->count = req.count;
          return Status::OK();
        });
    // Answers that no response message decodes from.
    server_.RegisterRaw("Pd.Garbled", [](const std::string&, std::string* resp) {
      *resp = "\x01";
      return Status::OK();
    });
    ASSERT_TRUE(server_.Start(0, "127.0.0.1").ok());
    target_ = "127.0.0.1:" + std::to_string(server_.port());
  }

  std::shared_ptr<std::atomic<int>> failing_calls_ = std::make_shared<std::atomic<int>>(0);
  RpcServer server_;
  std::string target_;
};

// A remote failure keeps only its text, behind "remote: ", under code 2, and
// is retried like any other failure.
TEST_F(ClientWithServerTest, RemoteFailureIsCode2WithTheServerText) {
  RpcClient client(target_, RpcClientOptions{5000, 3});
  PauseLog log;
  client.SetPauseForTesting(log.Hook());
  std::string out;
  ExpectStatus(client.CallRaw("Fail", "7", &out), 2, "remote: NotFound: region 7 not found");
  EXPECT_EQ(failing_calls_->load(), 3);
  EXPECT_EQ(*log.pauses, (std::vector<int64_t>{20000, 40000}));
}

TEST_F(ClientWithServerTest, TypedCall) {
  RpcClient client(target_, RpcClientOptions{5000, 1});
  pdpb::TsoRequest req;
  req.count = 3;
  pdpb::TsoResponse resp;
  ASSERT_TRUE(client.Call("Pd.Tso", req, &resp).ok());
  EXPECT_EQ(resp.timestamp, 424242u);
  EXPECT_EQ(resp.count, 3u);

  pdpb::TsoResponse untouched;
  untouched.timestamp = 5;
  ExpectStatus(client.Call("Pd.Garbled", req, &untouched), 2, "kanrpc: bad response payload");
  EXPECT_EQ(untouched.timestamp, 5u);
}

TEST(ClientPool, RotatesRoundRobin) {
  std::vector<std::unique_ptr<RpcServer>> servers;
  std::vector<std::unique_ptr<RpcClient>> clients;
  for (int i = 0; i < 3; ++i) {
    servers.push_back(std::make_unique<RpcServer>());
    servers.back()->RegisterRaw("Who", [i](const std::string&, std::string* resp) {
      *resp = std::to_string(i);
      return Status::OK();
    });
    ASSERT_TRUE(servers.back()->Start(0, "127.0.0.1").ok());
    clients.push_back(std::make_unique<RpcClient>(
        "127.0.0.1:" + std::to_string(servers.back()->port()), RpcClientOptions{5000, 1}));
  }
  RpcClientPool pool(std::move(clients));
  ASSERT_EQ(pool.size(), 3u);
  std::string order;
  for (int i = 0; i < 7; ++i) {
    std::string out;
    ASSERT_TRUE(pool.CallRaw("Who", "", &out).ok());
    order += out;
  }
  EXPECT_EQ(order, "0120120");
}

// Many threads share a pool; each client's mutex keeps its one connection to
// a single outstanding request, so every caller gets its own answer.
TEST(ClientPool, ConcurrentCallersGetTheirOwnAnswers) {
  RpcServer server;
  server.RegisterRaw("Echo", [](const std::string& req, std::string* resp) {
    *resp = req;
    return Status::OK();
  });
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  RpcClientPool pool("127.0.0.1:" + std::to_string(server.port()), RpcClientOptions{5000, 1}, 3);
  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 8; ++t) {
    callers.emplace_back([&pool, &wrong, t] {
      for (int i = 0; i < 100; ++i) {
        const std::string mine = std::to_string(t) + "/" + std::to_string(i);
        std::string out;
        if (!pool.CallRaw("Echo", mine, &out).ok() || out != mine) wrong.fetch_add(1);
      }
    });
  }
  for (auto& c : callers) c.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace kandb::kanrpc
