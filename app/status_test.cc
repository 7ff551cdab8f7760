// The HTTP status port of the real kandb-meta binary: every view against
// what kandb-meta-ctl reports from the same server, the failures a client
// of the views sees, and the port over mutual TLS.

#include <httplib.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "app/meta_server_test_util.h"
#include "common/test_certs.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "pdpb/stats.h"
#include "rpc/client.h"
#include "rpc/rpc_test_util.h"

namespace kandb {
namespace {

using nlohmann::json;
using testing::MetaServer;

json Parse(const std::string& text) {
  json parsed = json::parse(text, nullptr, /*allow_exceptions=*/false);
  EXPECT_FALSE(parsed.is_discarded()) << text;
  return parsed;
}

class StatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = testing::MakeTempDir("kandb-status");
    status_port_ = testing::PickFreePort();
  }
  void TearDown() override {
    signal(SIGPIPE, SIG_DFL);
    server_.Kill();
    testing::RemoveTree(dir_);
  }

  void StartServer(std::vector<std::string> flags = {}) {
    flags.push_back("--status_addr=127.0.0.1:" + std::to_string(status_port_));
    ASSERT_TRUE(server_.Start(dir_ + "/state", flags));
  }

  // GET on the plain status port: the status code and the body.
  std::pair<int, std::string> Get(const std::string& path) {
    httplib::Client http("127.0.0.1", status_port_);
    auto res = http.Get(path);
    if (!res) return {0, "no answer: " + httplib::to_string(res.error())};
    return {res->status, res->body};
  }
  json GetJson(const std::string& path, int want_status = 200) {
    auto [status, body] = Get(path);
    EXPECT_EQ(status, want_status) << path << ": " << body;
    return Parse(body);
  }

  // kandb-meta-ctl's --json answer for the same server.
  json Ctl(std::vector<std::string> args) {
    args.insert(args.begin(), KANDB_META_CTL_BINARY);
    args.push_back("--addr=" + server_.target());
    args.push_back("--json");
    const testing::ProgramResult r = testing::RunProgram(args);
    EXPECT_EQ(r.status, 0) << r.err;
    return Parse(r.out);
  }

  // A cluster of three stores and regions split at "b", "d" and "f".
  void Populate() {
    auto client = server_.NewClient();
    pdpb::BootstrapRequest boot;
    boot.store = pdpb::Store{1, "127.0.0.1:20161"};
    boot.region.id = 10;
    boot.region.end_key = "b";
    boot.region.peers = {pdpb::Peer{11, 1}};
    const char* bounds[] = {"b", "d", "f", ""};
    for (uint64_t i = 0; i < 3; ++i) {
      pdpb::Region region;
      region.id = 20 + i;
      region.start_key = bounds[i];
      region.end_key = bounds[i + 1];
      region.peers = {pdpb::Peer{30 + i, 1}};
      boot.extra_regions.push_back(region);
    }
    pdpb::BootstrapResponse booted;
    ASSERT_TRUE(client->Call("Pd.Bootstrap", boot, &booted).ok());
    for (uint64_t id : {2, 3}) {
      pdpb::BootstrapRequest join;
      join.store = pdpb::Store{id, "127.0.0.1:2016" + std::to_string(id)};
      ASSERT_TRUE(client->Call("Pd.Bootstrap", join, &booted).ok());
    }
  }

  std::string dir_;
  int status_port_ = 0;
  MetaServer server_;
};

// Every view holds what the command-line client shows of the same server,
// key escapes included, and /metrics has every family of `stats
// --prometheus` plus the process's own.
TEST_F(StatusTest, ViewsHoldWhatTheClientReports) {
  StartServer();
  Populate();

  EXPECT_EQ(GetJson("/health"), (json{{"status", "ok"}, {"server", "kandb-meta"}, {"role", "standalone"}}));
  EXPECT_EQ(GetJson("/api/v1/stores"), Ctl({"stores"}));
  EXPECT_EQ(GetJson("/api/v1/regions?key=c"), Ctl({"get-region", "c"}));
  EXPECT_EQ(GetJson("/api/v1/regions?key=%5Cx00"), Ctl({"get-region", "\\x00"}));
  EXPECT_EQ(GetJson("/api/v1/regions?id=21"), Ctl({"region", "--id", "21"}));
  EXPECT_EQ(GetJson("/api/v1/regions?start=c&end=f&limit=2"),
            Ctl({"regions", "--start", "c", "--end", "f", "--limit", "2"}));
  EXPECT_EQ(GetJson("/api/v1/regions"), Ctl({"regions"}));

  const json cluster = GetJson("/api/v1/cluster");
  EXPECT_EQ(cluster["regions"], 4);
  EXPECT_EQ(cluster["stores"]["unknown"], 3);
  EXPECT_FALSE(cluster.contains("gc_safe_point"));  // reading it may write it
  EXPECT_EQ(GetJson("/api/v1/members"), (json{{"servers", json::array({json{{"program", "kandb-meta"}}})}}));

  // The families of the client's Prometheus text, each also on the port.
  const testing::ProgramResult prometheus =
      testing::RunProgram({KANDB_META_CTL_BINARY, "stats", "--prometheus", "--addr=" + server_.target()});
  ASSERT_EQ(prometheus.status, 0) << prometheus.err;
  auto families = [](const std::string& text) {
    std::set<std::string> names;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
      if (line.rfind("# TYPE ", 0) == 0) names.insert(line.substr(7, line.find(' ', 7) - 7));
    }
    return names;
  };
  auto [metrics_status, metrics] = Get("/metrics");
  ASSERT_EQ(metrics_status, 200);
  const std::set<std::string> served = families(metrics);
  for (const std::string& name : families(prometheus.out)) EXPECT_TRUE(served.count(name)) << name;
  for (const char* name : {"process_resident_memory_bytes", "process_open_fds", "process_max_fds",
                           "process_threads", "process_start_time_seconds", "process_cpu_seconds_total",
                           "kandb_meta_data_dir_available_bytes", "kandb_meta_data_dir_size_bytes"}) {
    EXPECT_TRUE(served.count(name)) << name;
  }
  // Reading the views is not a call of a client: it is not counted.
  EXPECT_NE(metrics.find("kandb_meta_requests_total{method=\"Pd.GetAllStores\"} 1\n"), std::string::npos);
}

// What a client of the views sees when a call fails: the server's own
// text, with an HTTP status that says whose fault it is.
TEST_F(StatusTest, FailuresCarryTheServersText) {
  StartServer();
  struct Case {
    const char* path;
    int status;
    const char* error;  // the start of the "error" text
  };
  const Case cases[] = {
      {"/api/v1/regions?key=a", 404, "NotFound: "},  // not bootstrapped yet
      {"/api/v1/regions?id=77", 404, "NotFound: "},
      {"/api/v1/regions?id=x7", 400, "InvalidArgument: id must be a decimal region id"},
      {"/api/v1/regions?id=", 400, "InvalidArgument: id must be a decimal region id"},
      {"/api/v1/regions?limit=-1", 400, "InvalidArgument: limit must be a decimal count"},
      {"/api/v1/regions?start=%5Cx4", 400, "InvalidArgument: "},
      {"/no/such/page", 404, "no such page: /no/such/page"},
      // Bytes that are no UTF-8 go out escaped, never into JSON as they are.
      {"/%ff%00", 404, "no such page: /\\xff\\x00"},
  };
  for (const Case& c : cases) {
    const json body = GetJson(c.path, c.status);
    ASSERT_TRUE(body.contains("error")) << c.path;
    EXPECT_EQ(body["error"].get<std::string>().rfind(c.error, 0), 0u) << c.path << ": " << body;
  }
  EXPECT_EQ(server_.child()->Wait(0), -1) << "the server ended: " << server_.child()->Stderr();
  // The port is read-only.
  httplib::Client http("127.0.0.1", status_port_);
  auto posted = http.Post("/api/v1/stores", "{}", "application/json");
  ASSERT_TRUE(posted);
  EXPECT_EQ(posted->status, 404);
}

// With the TLS flags the status port speaks only HTTPS and lets in the
// RPC port's clients: a certificate from its CA with an allowed name.
TEST_F(StatusTest, TlsPortLetsInOnlyTheAllowedCertificates) {
  testing::TestPki pki(dir_, "status-ca");
  ASSERT_TRUE(pki.ok()) << pki.error();
  testing::TestPki other(dir_, "other-ca");
  ASSERT_TRUE(other.ok()) << other.error();
  const testing::CertFiles server_cert = pki.Server("server");
  const testing::CertFiles prometheus = pki.Issue("prometheus", "prometheus", "");
  const testing::CertFiles stranger = pki.Issue("stranger", "stranger", "");
  const testing::CertFiles foreign = other.Issue("foreign", "prometheus", "");
  StartServer({"--tls_cert=" + server_cert.cert, "--tls_key=" + server_cert.key, "--tls_ca=" + pki.ca().cert,
               "--tls_allowed_cn=prometheus"});
  // Client side: OpenSSL writes with write(2), and a server that hangs up
  // on a refused client must fail the call, not end the test.
  signal(SIGPIPE, SIG_IGN);

  auto get = [&](const testing::CertFiles* client, const std::string& ca) -> int {
    std::unique_ptr<httplib::SSLClient> https =
        client == nullptr ? std::make_unique<httplib::SSLClient>("127.0.0.1", status_port_)
                          : std::make_unique<httplib::SSLClient>("127.0.0.1", status_port_, client->cert, client->key);
    https->set_ca_cert_path(ca.c_str());
    https->enable_server_certificate_verification(true);
    https->set_connection_timeout(5);
    https->set_read_timeout(5);
    auto res = https->Get("/health");
    return res ? res->status : 0;
  };
  EXPECT_EQ(get(&prometheus, pki.ca().cert), 200);
  EXPECT_EQ(get(nullptr, pki.ca().cert), 0);
  EXPECT_EQ(get(&stranger, pki.ca().cert), 0);
  EXPECT_EQ(get(&foreign, pki.ca().cert), 0);
  // Plain HTTP gets no page.
  EXPECT_EQ(Get("/health").first, 0);

  // A certificate rotated with SIGHUP is the status port's too.
  testing::TestPki next(dir_, "next-ca");
  ASSERT_TRUE(next.ok()) << next.error();
  const testing::CertFiles rotated = next.Server("rotated");
  testing::WriteFileOrDie(server_cert.cert, testing::ReadFileOrEmpty(rotated.cert));
  testing::WriteFileOrDie(server_cert.key, testing::ReadFileOrEmpty(rotated.key));
  server_.child()->Kill(SIGHUP);
  EXPECT_TRUE(testing::WaitFor(20000, [&] { return get(&prometheus, next.ca().cert) == 200; }));
}

// HTTP clients that hold the status port: some ask for /metrics and never
// read, some send half a request and stall, and more connect than the
// process has descriptors. The RPC port answers all the while, and keeps
// its descriptors: past the port's threads and its short queue, the
// connections wait in the kernel's listen queue. Once the stalled ones are
// dropped (2 s without a byte), a fresh client gets /health.
TEST_F(StatusTest, SlowAndIdleStatusClientsNeverHoldUpTheRpcPort) {
  server_.set_open_file_limit(256, 256);
  StartServer();
  std::vector<kanrpc::testing::Socket> held;
  auto connect_to_status = [this, &held](const std::string& send) {
    held.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    const int small = 1024;  // a window too small for the answer
    setsockopt(held.back().fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
    struct sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(status_port_));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    // Completes or stays in progress: either way it waits on the port.
    if (connect(held.back().fd(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0 && !send.empty()) {
      EXPECT_EQ(::send(held.back().fd(), send.data(), send.size(), MSG_NOSIGNAL), static_cast<ssize_t>(send.size()));
    }
  };
  for (int i = 0; i < 8; ++i) connect_to_status("GET /metrics HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
  for (int i = 0; i < 8; ++i) connect_to_status("GET /heal");
  for (int i = 0; i < 400; ++i) connect_to_status("");
  auto client = server_.NewClient();
  for (int i = 0; i < 200; ++i) {
    pdpb::TsoResponse tso;
    ASSERT_TRUE(client->Call("Pd.Tso", pdpb::TsoRequest{1}, &tso).ok()) << i;
    pdpb::StatsResponse stats;
    ASSERT_TRUE(server_.NewClient()->Call("Pd.Stats", pdpb::StatsRequest{}, &stats).ok()) << i;
  }
  held.resize(16);  // the idle ones go; the stalled ones stay until dropped
  httplib::Client http("127.0.0.1", status_port_);
  http.set_read_timeout(60);
  auto health = http.Get("/health");
  ASSERT_TRUE(health);
  EXPECT_EQ(Parse(health->body)["status"], "ok");
  EXPECT_EQ(server_.child()->Stderr(), "");
}

// A status address that cannot be served stops the start, like a bad RPC
// address.
TEST_F(StatusTest, BadStatusAddressStopsTheStart) {
  kanrpc::testing::Socket taken = kanrpc::testing::Listen(&status_port_);
  const std::pair<std::string, std::string> cases[] = {
      {"9379", "InvalidArgument: status: --status_addr must be HOST:PORT, not '9379'"},
      {"127.0.0.1:65536", "InvalidArgument: status: --status_addr must be HOST:PORT, not '127.0.0.1:65536'"},
      {"127.0.0.1:" + std::to_string(status_port_), "Corruption: status: cannot listen on 127.0.0.1:" +
                                                        std::to_string(status_port_)},
  };
  for (const auto& [addr, reason] : cases) {
    const testing::ProgramResult r =
        testing::RunProgram({KANDB_META_BINARY, "--bind_addr=127.0.0.1", "--port=" + std::to_string(testing::PickFreePort()),
                             "--data_dir=" + dir_ + "/state", "--status_addr=" + addr});
    EXPECT_EQ(testing::ExitCode(r), 1) << addr;
    EXPECT_EQ(r.err, "failed to start pd: " + reason + "\n");
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
}  // namespace kandb
