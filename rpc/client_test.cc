#include "rpc/client.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/test_util.h"
#include "rpc/frame.h"
#include "rpc/rpc_test_util.h"
#include "rpc/server.h"

namespace kandb::kanrpc {
namespace {

using testing::ExpectStatus;

// Every failure is retried after a pause 20 ms longer than the previous one;
// a remote failure keeps the server's text.
TEST(ClientTest, FailuresAndPausesBetweenAttempts) {
  RpcServer server;
  auto calls = std::make_shared<std::atomic<int>>(0);
  server.RegisterRaw("Fail", [calls](const std::string& req, std::string*) {
    calls->fetch_add(1);
    return Status::NotFound("region " + req + " not found");
  });
  ASSERT_TRUE(server.Start(0, "127.0.0.1").ok());
  const std::string unreachable = "127.0.0.1:" + std::to_string(kandb::testing::PickFreePort());
  const struct {
    std::string target;
    int32_t attempts;
    std::vector<int64_t> pauses;
    std::string message;
  } cases[] = {
      {unreachable, 3, {20000, 40000}, "cannot connect to " + unreachable},
      {unreachable, 1, {}, "cannot connect to " + unreachable},
      {unreachable, 0, {}, "cannot connect to " + unreachable},
      {"[]:7000", 2, {20000}, "cannot connect to []:7000"},
      {"127.0.0.1:" + std::to_string(server.port()), 3, {20000, 40000}, "remote: NotFound: region 7 not found"},
  };
  for (const auto& c : cases) {
    RpcClient client(c.target, RpcClientOptions{1000, c.attempts});
    auto pauses = std::make_shared<std::vector<int64_t>>();
    client.SetPauseForTesting([pauses](int64_t micros) { pauses->push_back(micros); });
    std::string out = "untouched";
    ExpectStatus(client.CallRaw("Fail", "7", &out), 2, c.message);
    EXPECT_EQ(*pauses, c.pauses) << c.target;
    EXPECT_EQ(out, "untouched");
  }
  EXPECT_EQ(calls->load(), 3);
}

// A cluster list: a dead server is passed over, a follower's "leader at"
// answer is followed at once, "no leader yet" moves to the next server with
// a pause, and a leader's own refusal stays with it.
TEST(ClientTest, ClusterListFollowsLeaderAndPassesOverDeadServers) {
  RpcServer leader, follower, lost;
  auto led = std::make_shared<std::atomic<int>>(0);
  leader.RegisterRaw("M", [led](const std::string& req, std::string* resp) {
    led->fetch_add(1);
    if (req == "refuse") return Status::NotFound("nothing");
    *resp = "led";
    return Status::OK();
  });
  ASSERT_TRUE(leader.Start(0, "127.0.0.1").ok());
  const std::string leader_addr = "127.0.0.1:" + std::to_string(leader.port());
  follower.RegisterRaw("M", [leader_addr](const std::string&, std::string*) {
    return Status::Unavailable("not leader; leader at " + leader_addr);
  });
  lost.RegisterRaw("M", [](const std::string&, std::string*) {
    return Status::Unavailable("not leader; no leader yet");
  });
  ASSERT_TRUE(follower.Start(0, "127.0.0.1").ok());
  ASSERT_TRUE(lost.Start(0, "127.0.0.1").ok());
  const std::string dead = "127.0.0.1:" + std::to_string(kandb::testing::PickFreePort());
  const std::string follower_addr = "127.0.0.1:" + std::to_string(follower.port());
  const std::string lost_addr = "127.0.0.1:" + std::to_string(lost.port());

  const struct {
    std::string targets;
    int32_t attempts;
    std::string request;
    std::vector<int64_t> pauses;
    std::string outcome;
  } cases[] = {
      {dead + "," + follower_addr, 2, "x", {20000}, "led"},
      {follower_addr + "," + dead, 1, "x", {}, "led"},
      {lost_addr + "," + leader_addr, 2, "x", {20000}, "led"},
      {lost_addr + "," + dead, 2, "x", {20000}, "cannot connect to " + dead},
      {leader_addr + "," + follower_addr, 2, "refuse", {20000}, "remote: NotFound: nothing"},
  };
  for (const auto& c : cases) {
    RpcClient client(c.targets, RpcClientOptions{1000, c.attempts});
    auto pauses = std::make_shared<std::vector<int64_t>>();
    client.SetPauseForTesting([pauses](int64_t micros) { pauses->push_back(micros); });
    std::string out;
    Status s = client.CallRaw("M", c.request, &out);
    EXPECT_EQ(s.ok() ? out : s.message(), c.outcome) << c.targets;
    EXPECT_EQ(*pauses, c.pauses) << c.targets;
  }
  // The refused request went to the leader both times, never to the follower.
  EXPECT_EQ(led->load(), 5);
}

// The first connection answers with a foreign id; the client drops it and
// its next call runs on a new connection, which answers properly.
TEST(ClientTest, RequestIdMismatchThenReconnect) {
  int port = 0;
  testing::Socket listener = testing::Listen(&port);
  std::thread peer([&listener] {
    for (uint64_t shift : {1000, 0}) {
      testing::Socket conn(accept(listener.fd(), nullptr, nullptr));
      Frame req;
      if (!ReadFrame(conn.fd(), &req, 10000).ok()) return;
      testing::SendAllOrDie(conn.fd(), BuildFrame(FrameType::kResponse, req.request_id + shift,
                                                  req.method, req.payload));
      (void)ReadFrame(conn.fd(), &req, 10000);  // until the client drops the connection
    }
  });
  {
    RpcClient client("127.0.0.1:" + std::to_string(port), RpcClientOptions{5000, 1});
    std::string out = "untouched";
    ExpectStatus(client.CallRaw("Echo", "x", &out), 2, "kanrpc: request id mismatch");
    EXPECT_EQ(out, "untouched");
    EXPECT_TRUE(client.CallRaw("Echo", "y", &out).ok());
    EXPECT_EQ(out, "y");
  }
  peer.join();
}

// Calls rotate over the clients; concurrent callers each get their own answer.
TEST(ClientTest, PoolRoundRobin) {
  RpcServer servers[3];
  std::vector<std::unique_ptr<RpcClient>> clients;
  for (int i = 0; i < 3; ++i) {
    servers[i].RegisterRaw("Who", [i](const std::string& req, std::string* resp) {
      *resp = req + std::to_string(i);
      return Status::OK();
    });
    ASSERT_TRUE(servers[i].Start(0, "127.0.0.1").ok());
    clients.push_back(std::make_unique<RpcClient>("127.0.0.1:" + std::to_string(servers[i].port()), RpcClientOptions{5000, 1}));
  }
  RpcClientPool pool(std::move(clients));
  std::string order, out;
  for (int i = 0; i < 7; ++i) {
    ASSERT_TRUE(pool.CallRaw("Who", "", &out).ok());
    order += out;
  }
  EXPECT_EQ(order, "0120120");

  std::atomic<int> wrong{0};
  std::vector<std::thread> callers;
  for (int t = 0; t < 8; ++t) {
    callers.emplace_back([&pool, &wrong, t] {
      for (int i = 0; i < 50; ++i) {
        const std::string mine = std::to_string(t) + "/" + std::to_string(i) + "@";
        std::string answer;
        if (!pool.CallRaw("Who", mine, &answer).ok() || answer.rfind(mine, 0) != 0) ++wrong;
      }
    });
  }
  for (std::thread& c : callers) c.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
}  // namespace kandb::kanrpc
