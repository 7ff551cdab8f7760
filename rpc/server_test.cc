#include "rpc/server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/test_util.h"
#include "pdpb/messages.h"
#include "rpc/frame.h"
#include "rpc/rpc_test_util.h"

namespace kandb::kanrpc {
namespace {

using testing::ConnectTo;
using testing::PeerClosed;
using testing::SendAllOrDie;
using testing::Socket;

// Handlers run on detached connection threads that may outlive a test's
// stack frame by a moment, so whatever they touch is held by shared pointer.
using Counter = std::shared_ptr<std::atomic<int>>;
Counter NewCounter() { return std::make_shared<std::atomic<int>>(0); }

// "Pd.Tso" as the service registers it (typed), and a raw "Echo".
void RegisterTestMethods(RpcServer* server, Counter tso_calls) {
  server->Register<pdpb::TsoRequest, pdpb::TsoResponse>(
      "Pd.Tso", [tso_calls](const pdpb::TsoRequest& req, pdpb::TsoResponse* resp) {
        tso_calls->fetch_add(1);
        resp->timestamp = 1000;
        resp->count = req.count == 0 ? 1 : req.count;
        return Status::OK();
      });
  server->RegisterRaw("Echo", [](const std::string& req, std::string* resp) {
    *resp = req;
    return Status::OK();
  });
  server->RegisterRaw("Fail", [](const std::string& req, std::string*) {
    return Status::NotFound("region " + req + " not found");
  });
}

Frame Call(int fd, uint64_t id, const std::string& method, const std::string& payload) {
  const std::string request = BuildFrame(FrameType::kRequest, id, method, payload);
  EXPECT_TRUE(WriteAll(fd, request.data(), request.size(), 5000).ok());
  Frame answer;
  Status s = ReadFrame(fd, &answer, 5000);
  EXPECT_TRUE(s.ok()) << s.ToString();
  return answer;
}

class ServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    RegisterTestMethods(&server_, tso_calls_);
    ASSERT_TRUE(server_.Start(0, "127.0.0.1").ok());
    port_ = server_.port();
    ASSERT_GT(port_, 0);
  }

  Counter tso_calls_ = NewCounter();
  RpcServer server_;
  int port_ = 0;
};

TEST(ServerStart, FailuresCarryExactTexts) {
  RpcServer server;
  Status s = server.Start(7000, "localhost");
  EXPECT_EQ(s.code(), 1u);
  EXPECT_EQ(s.message(), "invalid IPv4 bind address: localhost");
  s = server.Start(7000, "");
  EXPECT_EQ(s.code(), 1u);
  EXPECT_EQ(s.message(), "invalid IPv4 bind address: ");

  int busy_port = 0;
  Socket busy = testing::Listen(&busy_port);
  s = server.Start(busy_port, "127.0.0.1");
  EXPECT_EQ(s.code(), 2u);
  EXPECT_EQ(s.message(),
            "bind 127.0.0.1:" + std::to_string(busy_port) + " failed: Address already in use");

  // A failed Start leaves the server startable.
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  s = server.Start(0, "127.0.0.1");
  EXPECT_EQ(s.code(), 1u);
  EXPECT_EQ(s.message(), "kanrpc: server already started");
}

TEST(ServerStart, AnyAddressIsReachableOnLoopback) {
  RpcServer server;
  RegisterTestMethods(&server, NewCounter());
  const int port = kandb::testing::PickFreePort();
  ASSERT_TRUE(server.Start(port, "0.0.0.0").ok());
  EXPECT_EQ(server.port(), port);
  Socket conn = ConnectTo(port);
  ASSERT_TRUE(conn.valid());
  EXPECT_EQ(Call(conn.fd(), 1, "Echo", "hi").payload, "hi");
}

TEST_F(ServerTest, TypedMethodDecodesAndEncodes) {
  Socket conn = ConnectTo(port_);
  // An empty payload is a valid encoding of the default request.
  Frame answer = Call(conn.fd(), 11, "Pd.Tso", "");
  EXPECT_EQ(answer.type, FrameType::kResponse);
  EXPECT_EQ(answer.request_id, 11u);
  EXPECT_EQ(answer.method, "Pd.Tso");
  pdpb::TsoResponse resp;
  ASSERT_TRUE(pdpb::Decode(answer.payload.size(), answer.payload.data(), &resp));
  EXPECT_EQ(resp.timestamp, 1000u);
  EXPECT_EQ(resp.count, 1u);

  pdpb::TsoRequest req;
  req.count = 7;
  answer = Call(conn.fd(), 12, "Pd.Tso", pdpb::Encode(req));
  ASSERT_TRUE(pdpb::Decode(answer.payload.size(), answer.payload.data(), &resp));
  EXPECT_EQ(resp.count, 7u);
  EXPECT_EQ(tso_calls_->load(), 2);
}

TEST_F(ServerTest, UndecodablePayloadIsInvalidArgument) {
  Socket conn = ConnectTo(port_);
  Frame answer = Call(conn.fd(), 5, "Pd.Tso", "abc");
  EXPECT_EQ(answer.type, FrameType::kError);
  EXPECT_EQ(answer.request_id, 5u);
  EXPECT_EQ(answer.method, "Pd.Tso");
  EXPECT_EQ(answer.payload, "InvalidArgument: bad request payload");
  EXPECT_EQ(tso_calls_->load(), 0);
}

TEST_F(ServerTest, UnknownMethodsAnsweredWithTheirName) {
  Socket conn = ConnectTo(port_);
  for (const std::string method : {"pd.tso", "PD.TSO", "Pd.Tso ", "Pd.Nothing", ""}) {
    Frame answer = Call(conn.fd(), 99, method, "");
    EXPECT_EQ(answer.type, FrameType::kError);
    EXPECT_EQ(answer.request_id, 99u);
    EXPECT_EQ(answer.method, method);
    EXPECT_EQ(answer.payload, "unknown method: " + method);
  }
  EXPECT_EQ(tso_calls_->load(), 0);
}

TEST_F(ServerTest, HandlerFailureIsRendered) {
  Socket conn = ConnectTo(port_);
  Frame answer = Call(conn.fd(), 3, "Fail", "7");
  EXPECT_EQ(answer.type, FrameType::kError);
  EXPECT_EQ(answer.request_id, 3u);
  EXPECT_EQ(answer.payload, "NotFound: region 7 not found");
  // The connection stays usable after a failed call.
  EXPECT_EQ(Call(conn.fd(), 4, "Echo", "ok").payload, "ok");
}

// A frame that cannot be read is never answered: the server just closes.
TEST_F(ServerTest, UnreadableFrameClosesWithoutAnswer) {
  std::string bad_crc = BuildFrame(FrameType::kRequest, 1, "Echo", "x");
  bad_crc[bad_crc.size() - 1] ^= 1;
  std::string bad_magic = BuildFrame(FrameType::kRequest, 1, "Echo", "x");
  bad_magic[0] = 'k';
  std::string long_method = BuildFrame(FrameType::kRequest, 1, std::string(257, 'm'), "");
  for (const std::string& bytes : {bad_crc, bad_magic, long_method}) {
    Socket conn = ConnectTo(port_);
    // A good call first, so the failure is not confused with a refused connection.
    EXPECT_EQ(Call(conn.fd(), 1, "Echo", "a").payload, "a");
    SendAllOrDie(conn.fd(), bytes);
    EXPECT_TRUE(PeerClosed(conn.fd(), 5000));
  }
}

TEST_F(ServerTest, BackToBackRequestsAnsweredInOrder) {
  Socket conn = ConnectTo(port_);
  std::string batch;
  AppendFrame(&batch, FrameType::kRequest, 1, "Echo", "one");
  AppendFrame(&batch, FrameType::kRequest, 2, "Nope", "");
  AppendFrame(&batch, FrameType::kRequest, 3, "Fail", "3");
  AppendFrame(&batch, FrameType::kRequest, 4, "Pd.Tso", "");
  AppendFrame(&batch, FrameType::kRequest, 5, "Echo", std::string(100000, 'e'));
  SendAllOrDie(conn.fd(), batch);
  FrameReader reader(conn.fd());
  const FrameType expected_types[] = {FrameType::kResponse, FrameType::kError, FrameType::kError,
                                      FrameType::kResponse, FrameType::kResponse};
  for (uint64_t id = 1; id <= 5; ++id) {
    Frame answer;
    ASSERT_TRUE(reader.Read(&answer, 5000).ok());
    EXPECT_EQ(answer.request_id, id);
    EXPECT_EQ(answer.type, expected_types[id - 1]);
  }
}

// Every connection has a thread of its own: 500 handlers are in flight at the
// same moment, each waiting until all of them have arrived.
TEST(ServerConcurrency, FiveHundredConnectionsServedAtOnce) {
  constexpr int kConnections = 500;
  RpcServer server;
  Counter arrived = NewCounter();
  server.RegisterRaw("Gather", [arrived](const std::string& req, std::string* resp) {
    arrived->fetch_add(1);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (arrived->load() < kConnections && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    *resp = arrived->load() >= kConnections ? req : "timed out";
    return Status::OK();
  });
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());

  std::vector<Socket> conns;
  for (int i = 0; i < kConnections; ++i) {
    conns.push_back(ConnectTo(server.port()));
    ASSERT_TRUE(conns.back().valid()) << i;
    const std::string frame =
        BuildFrame(FrameType::kRequest, static_cast<uint64_t>(i), "Gather", std::to_string(i));
    SendAllOrDie(conns.back().fd(), frame);
  }
  for (int i = 0; i < kConnections; ++i) {
    Frame answer;
    Status s = ReadFrame(conns[i].fd(), &answer, 40000);
    ASSERT_TRUE(s.ok()) << i << ": " << s.ToString();
    EXPECT_EQ(answer.request_id, static_cast<uint64_t>(i));
    EXPECT_EQ(answer.payload, std::to_string(i));
  }
}

// A request held inside its handler while the server stops: the test decides
// when the handler may return, so the connection thread is known to be busy.
struct HeldCall {
  Counter entered = NewCounter();
  std::shared_ptr<std::atomic<bool>> release = std::make_shared<std::atomic<bool>>(false);

  void RegisterTo(RpcServer* server) const {
    server->RegisterRaw("Hold", [entered = entered, release = release](const std::string& req,
                                                                       std::string* resp) {
      entered->fetch_add(1);
      while (!release->load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      *resp = req;
      return Status::OK();
    });
  }
  // Sends a "Hold" request and returns once its handler runs.
  void Begin(int fd) const {
    SendAllOrDie(fd, BuildFrame(FrameType::kRequest, 2, "Hold", "held"));
    while (entered->load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
};

TEST(ServerLifecycle, StopEndsAcceptingAndIsIdempotent) {
  RpcServer server;
  RegisterTestMethods(&server, NewCounter());
  HeldCall held;
  held.RegisterTo(&server);
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  const int port = server.port();
  Socket open_conn = ConnectTo(port);
  EXPECT_EQ(Call(open_conn.fd(), 1, "Echo", "before").payload, "before");
  held.Begin(open_conn.fd());

  std::thread waiter([&server] { server.Wait(); });
  server.Stop();
  waiter.join();
  server.Stop();
  server.Wait();
  EXPECT_FALSE(ConnectTo(port).valid());

  // The request in flight across Stop is answered, then the connection closes.
  held.release->store(true);
  Frame answer;
  ASSERT_TRUE(ReadFrame(open_conn.fd(), &answer, 5000).ok());
  EXPECT_EQ(answer.payload, "held");
  EXPECT_TRUE(PeerClosed(open_conn.fd(), 5000));

  EXPECT_EQ(server.Start(0, "127.0.0.1").message(), "kanrpc: server stopped");
}

// The destructor stops and joins; a connection thread still serving goes on
// with state that outlives the server (the sanitizer builds check that it
// touches no freed memory).
TEST(ServerLifecycle, DestructorJoinsAndConnectionsOutliveTheServer) {
  auto server = std::make_unique<RpcServer>();
  HeldCall held;
  held.RegisterTo(server.get());
  ASSERT_TRUE(server->Start(0, "127.0.0.1").ok());
  const int port = server->port();
  Socket conn = ConnectTo(port);
  held.Begin(conn.fd());
  server.reset();
  EXPECT_FALSE(ConnectTo(port).valid());
  held.release->store(true);
  Frame answer;
  ASSERT_TRUE(ReadFrame(conn.fd(), &answer, 5000).ok());
  EXPECT_EQ(answer.type, FrameType::kResponse);
  EXPECT_EQ(answer.payload, "held");
  EXPECT_TRUE(PeerClosed(conn.fd(), 5000));
}

TEST(ServerLifecycle, WaitAndStopWithoutStart) {
  RpcServer server;
  server.Wait();
  server.Stop();
  server.Stop();
}

}  // namespace
}  // namespace kandb::kanrpc
