#include "rpc/server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "pdpb/messages.h"
#include "rpc/frame.h"
#include "rpc/rpc_test_util.h"

namespace kandb::kanrpc {
namespace {

using testing::ConnectTo;
using testing::PeerClosed;
using testing::SendAllOrDie;
using testing::Socket;

// Handlers may run on worker threads that outlive the test body, so the
// state they touch is held by shared pointer.
using Counter = std::shared_ptr<std::atomic<int>>;

Frame ReadOrFail(int fd) {
  Frame answer;
  const Status s = ReadFrame(fd, &answer, 60000);
  EXPECT_TRUE(s.ok()) << s.ToString();
  return answer;
}


// The texts of a bad address and a taken port are checked through the
// binary (app/main_test.cc).
TEST(ServerTest, StartFailuresCarryExactTexts) {
  RpcServer server;
  EXPECT_EQ(server.Start(7000, "").ToString(), "InvalidArgument: invalid IPv4 bind address: ");
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());  // still startable
  EXPECT_EQ(server.Start(0, "127.0.0.1").message(), "kanrpc: server already started");
}

// Requests sent back to back are answered in order with their id and method;
// a frame that cannot be read is never answered, the connection just closes.
TEST(ServerTest, AnswersInOrderAndClosesOnUnreadableFrames) {
  RpcServer server;
  server.Register<pdpb::TsoRequest, pdpb::TsoResponse>(
      "Pd.Tso", [](const pdpb::TsoRequest& req, pdpb::TsoResponse* resp) {
        *resp = {1000, req.count};
        return Status::OK();
      });
  // One method of each kind, so that answers keep their order whichever
  // thread gives them: the loop, a worker, or another thread later.
  server.RegisterRaw(
      "Echo",
      [](const std::string& req, std::string* resp) {
        *resp = req;
        return Status::OK();
      },
      CallMode::kInline);
  server.RegisterRaw("Fail", [](const std::string& req, std::string*) {
    return Status::NotFound("region " + req + " not found");
  });
  server.RegisterTryInlineRaw(
      "Maybe",
      [](const std::string& req, std::string* resp, Status* status) {
        if (req != "fast") {
          *resp = "partial";  // must not leak into the worker's answer
          return false;
        }
        *resp = "loop";
        *status = Status::OK();
        return true;
      },
      [](const std::string& req, std::string* resp) {
        resp->append("worker:" + req);
        return Status::OK();
      });
  server.RegisterAsyncRaw("Later", [](const std::string& req, Reply reply) {
    std::thread([req, reply] {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      reply.Send(Status::OK(), "later:" + req);
    }).detach();
  });
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  const std::string big(100000, 'e');
  const struct {
    const char* method;
    std::string payload;
    FrameType type;
    std::string answer;
  } cases[] = {
      {"Pd.Tso", pdpb::Encode(pdpb::TsoRequest{7}), FrameType::kResponse,
       pdpb::Encode(pdpb::TsoResponse{1000, 7})},
      {"Pd.Tso", "abc", FrameType::kError, "InvalidArgument: bad request payload"},
      {"Fail", "7", FrameType::kError, "NotFound: region 7 not found"},
      {"pd.tso", "", FrameType::kError, "unknown method: pd.tso"},
      {"Pd.Nothing", "", FrameType::kError, "unknown method: Pd.Nothing"},
      {"Later", "1", FrameType::kResponse, "later:1"},
      {"Maybe", "slow", FrameType::kResponse, "worker:slow"},
      {"Maybe", "fast", FrameType::kResponse, "loop"},
      {"Later", "2", FrameType::kResponse, "later:2"},
      {"Echo", big, FrameType::kResponse, big},
  };
  std::string batch;
  for (uint64_t i = 0; i < std::size(cases); ++i) {
    AppendFrame(&batch, FrameType::kRequest, i + 10, cases[i].method, cases[i].payload);
  }
  Socket conn = ConnectTo(server.port());
  SendAllOrDie(conn.fd(), batch);
  for (uint64_t i = 0; i < std::size(cases); ++i) {
    const Frame answer = ReadOrFail(conn.fd());
    EXPECT_EQ(answer.request_id, i + 10);
    EXPECT_EQ(answer.method, cases[i].method);
    EXPECT_EQ(answer.type, cases[i].type);
    EXPECT_EQ(answer.payload, cases[i].answer);
  }

  std::string bad_crc = BuildFrame(FrameType::kRequest, 1, "Echo", "x");
  bad_crc.back() ^= 1;
  std::string bad_magic = bad_crc;
  bad_magic[0] = 'k';
  const std::string long_method = BuildFrame(FrameType::kRequest, 1, std::string(257, 'm'), "");
  for (const std::string& bad : {bad_crc, bad_magic, long_method}) {
    Socket fresh = ConnectTo(server.port());
    SendAllOrDie(fresh.fd(), BuildFrame(FrameType::kRequest, 1, "Echo", "a") + bad);
    EXPECT_EQ(ReadOrFail(fresh.fd()).payload, "a");
    EXPECT_TRUE(PeerClosed(fresh.fd(), 10000));
  }
}

// Stop (and the destructor) return only once no handler runs and no
// asynchronous call waits for its answer, so that what handlers use can be
// torn down right after; the call in flight still gets its answer, and the
// connection is closed after it. Stop twice is harmless.
TEST(ServerTest, StopWaitsForCallsInFlight) {
  for (int variant = 0; variant < 4; ++variant) {
    const bool destroy = variant % 2 == 1;
    const bool async = variant >= 2;
    SCOPED_TRACE(std::string(async ? "answered from another thread" : "worker thread") +
                 (destroy ? ", destroyed" : ", stopped"));
    auto server = std::make_unique<RpcServer>();
    Counter entered = std::make_shared<std::atomic<int>>(0);
    Counter release = std::make_shared<std::atomic<int>>(0);
    Counter finished = std::make_shared<std::atomic<int>>(0);
    auto hold = [entered, release, finished](const std::string& req, std::string* resp) {
      entered->store(1);
      while (release->load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
      *resp = req;
      finished->store(1);
      return Status::OK();
    };
    if (async) {
      server->RegisterAsyncRaw("Hold", [hold](const std::string& req, Reply reply) {
        std::thread([hold, req, reply] {
          std::string resp;
          const Status s = hold(req, &resp);
          reply.Send(s, resp);
        }).detach();
      });
    } else {
      server->RegisterRaw("Hold", hold);
    }
    ASSERT_TRUE(server->Start(0, "127.0.0.1").ok());
    const int port = server->port();
    Socket conn = ConnectTo(port);
    Socket idle = ConnectTo(port);
    SendAllOrDie(conn.fd(), BuildFrame(FrameType::kRequest, 2, "Hold", "held"));
    while (entered->load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::atomic<int> stopped{0};
    std::atomic<int> finished_at_stop{0};
    std::thread stopper([&] {
      if (destroy) {
        server.reset();
      } else {
        std::thread waiter([&server] { server->Wait(); });
        server->Stop();
        waiter.join();
      }
      finished_at_stop = finished->load();
      stopped = 1;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(stopped.load(), 0) << "returned while a handler was running";
    release->store(1);
    stopper.join();
    EXPECT_EQ(finished_at_stop.load(), 1);
    if (!destroy) {
      server->Stop();
      EXPECT_EQ(server->Start(0, "127.0.0.1").message(), "kanrpc: server stopped");
    }
    EXPECT_FALSE(ConnectTo(port).valid());
    EXPECT_EQ(ReadOrFail(conn.fd()).payload, "held");
    EXPECT_TRUE(PeerClosed(conn.fd(), 10000));
    EXPECT_TRUE(PeerClosed(idle.fd(), 10000));  // woken from its wait for a request
  }
  RpcServer never_started;
  never_started.Wait();
  never_started.Stop();
}

std::atomic<int> answer_hook_calls{0};

// An answer given on another thread is posted to its loop's inbox before
// the loop is woken for it. Stop's own wake-up may take that answer in
// between, send it and return, and the server be destroyed at once: the
// answering thread (the engine's commit thread, in the service) must be
// done with the loop by then. The hook holds the answering thread between
// the two steps; AddressSanitizer reports a late wake-up of a destroyed
// loop.
TEST(ServerTest, StopOutwaitsTheThreadThatAnswered) {
  std::optional<Reply> held;
  std::atomic<bool> called{false};
  auto server = std::make_unique<RpcServer>(1);
  server->RegisterAsyncRaw("Later", [&](const std::string&, Reply reply) {
    held.emplace(reply);
    called.store(true);
  });
  ASSERT_TRUE(server->Start(0, "127.0.0.1").ok());
  Socket conn = ConnectTo(server->port());
  SendAllOrDie(conn.fd(), BuildFrame(FrameType::kRequest, 3, "Later", ""));
  while (!called.load()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  answer_hook_calls.store(0);
  RpcServer::SetAnswerPostedHookForTesting(+[] {
    answer_hook_calls.fetch_add(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  });
  std::thread answerer([reply = *held] { reply.Send(Status::OK(), "late"); });
  while (answer_hook_calls.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  server.reset();
  answerer.join();
  RpcServer::SetAnswerPostedHookForTesting(nullptr);
  EXPECT_EQ(answer_hook_calls.load(), 1);
  const Frame answer = ReadOrFail(conn.fd());
  EXPECT_EQ(answer.request_id, 3u);
  EXPECT_EQ(answer.payload, "late");
  EXPECT_TRUE(PeerClosed(conn.fd(), 10000));
}

}  // namespace
}  // namespace kandb::kanrpc
