// Runs the real kandb-meta binary as a child process and checks what it
// prints and how it exits.

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "common/test_certs.h"
#include "common/test_util.h"
#include "pdpb/messages.h"
#include "rpc/rpc_test_util.h"
#include "rpc/tls.h"

namespace kandb {
namespace {

using ::kandb::testing::ChildProcess;
using ::kandb::testing::ExitCode;
using ::kandb::testing::MetaBanner;
using ::kandb::testing::MetaServer;
using ::kandb::testing::ProgramResult;
using ::kandb::testing::ScratchDir;

const char kUsage[] =
    "usage: " KANDB_META_BINARY
    " [flags]\n"
    "  --port                 pd service listen port (default: 2379)\n"
    "  --bind_addr            pd service IPv4 listen address (default: 0.0.0.0)\n"
    "  --data_dir             pd state directory (default: ./pd-data)\n"
    "  --target_replicas      auto-heal: schedule adding replicas until each region reaches "
    "this member count (0 = off; promotion of caught-up learners is always on) (default: 0)\n"
    // Extension flags follow the designed ones.
    "  --max_store_down_time  silence after which a store that sends store heartbeats is Down and its "
    "replicas are replaced (e.g. 30m, 90s, 500ms) (default: 30m)\n"
    "  --location_labels      comma-separated store label keys naming the failure domains, widest first "
    "(e.g. zone,rack,host); a region's replicas go to distinct ones (default: )\n"
    "  --store_limit          replicas added to or removed from one store per minute, at most, by repair "
    "and placement (default: 60)\n"
    "  --tls_cert             PEM certificate (chain) of the RPC port; with --tls_key the port speaks only TLS "
    "(default: )\n"
    "  --tls_key              PEM private key of --tls_cert (default: )\n"
    "  --tls_ca               PEM CA certificates; clients must present a certificate signed by one of them "
    "(default: )\n"
    "  --tls_allowed_cn       comma-separated names let in: a client certificate's common name or a DNS "
    "alternative name must be one (default: )\n"
    "  --status_addr          HOST:PORT of the HTTP status port (/metrics, /health, /api/v1/...); over TLS "
    "with the --tls_* flags; empty: none (default: )\n";

ProgramResult RunMeta(std::vector<std::string> args) {
  args.insert(args.begin(), KANDB_META_BINARY);
  return kandb::testing::RunProgram(args);
}

TEST(ProcessEntryFlagsTest, HelpPrintsUsageAndExitsZero) {
  for (const char* help : {"--help", "-h"}) {
    ProgramResult r = RunMeta({"--port=1", help, "--bogus"});
    EXPECT_EQ(ExitCode(r), 0);
    EXPECT_EQ(r.err, kUsage);
    EXPECT_EQ(r.out, "");
  }
}

TEST(ProcessEntryFlagsTest, FlagErrorsExactTextUsageAndStatus) {
  struct Case {
    std::vector<std::string> args;
    std::string message;
    bool usage;
  };
  const std::vector<Case> cases = {
      {{"-help"}, "unexpected argument: -help\n", true},
      {{"x"}, "unexpected argument: x\n", true},
      {{"--"}, "unknown flag: --\n", true},
      {{"--PORT=1"}, "unknown flag: --PORT\n", true},
      {{"--data_dir"}, "flag --data_dir requires a value\n", false},
      {{"--port="}, "bad value for --port: ''\n", false},
      {{"--port", "12x"}, "bad value for --port: '12x'\n", false},
      {{"--target_replicas=3.5"}, "bad value for --target_replicas: '3.5'\n", false},
  };
  for (const Case& c : cases) {
    ProgramResult r = RunMeta(c.args);
    EXPECT_EQ(ExitCode(r), 1) << c.args[0];
    EXPECT_EQ(r.err, c.message + (c.usage ? kUsage : "")) << c.args[0];
    EXPECT_EQ(r.out, "");
  }
}

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(ProcessEntryTest, BannerIsTheOnlyOutputWhileServing) {
  ScratchDir scratch;
  const std::string dir = scratch.path() + "/state";
  MetaServer server;
  ASSERT_TRUE(server.Start(dir));
  auto client = server.NewClient();
  pdpb::TsoResponse tso;
  ASSERT_TRUE(client->Call("Pd.Tso", pdpb::TsoRequest(), &tso).ok());
  pdpb::GetRegionResponse region;
  EXPECT_FALSE(client->Call("Pd.GetRegion", pdpb::GetRegionRequest(), &region).ok());
  std::string raw;
  EXPECT_FALSE(client->CallRaw("Pd.Nope", "", &raw).ok());

  EXPECT_EQ(server.child()->Stdout(), MetaBanner("127.0.0.1", server.port(), dir));
  EXPECT_EQ(server.child()->Stderr(), "");
  EXPECT_TRUE(IsDirectory(dir));
  server.Kill();
}

TEST(ProcessEntryTest, DefaultsListenOnAllInterfacesWithStateInTheWorkingDirectory) {
  // The documented way to start the server: no flags at all. Skipped when
  // something else holds the default port.
  if (kanrpc::testing::ConnectTo(2379).valid()) GTEST_SKIP() << "port 2379 is in use";

  ScratchDir scratch;
  ChildProcess child;
  ASSERT_TRUE(child.Start({"/bin/sh", "-c", "cd '" + scratch.path() + "' && exec " KANDB_META_BINARY}));
  const std::string banner = "kandb-meta listening on 0.0.0.0:2379, state at ./pd-data\n";
  EXPECT_TRUE(child.WaitForOutput(banner, MetaServer::kStartTimeoutMs)) << child.Stderr();
  EXPECT_EQ(child.Stdout(), banner);
  EXPECT_TRUE(IsDirectory(scratch.path() + "/pd-data"));
  child.Kill(SIGKILL);
  child.Wait();
}

TEST(ProcessEntryTest, PortAndTargetReplicasAreNarrowedTo32Bits) {
  ScratchDir scratch;
  const int port = kandb::testing::PickFreePort();
  const long long wide_port = (1LL << 32) + port;
  ChildProcess child;
  ASSERT_TRUE(child.Start({KANDB_META_BINARY, "--bind_addr=127.0.0.1",
                           "--port=" + std::to_string(wide_port), "--data_dir=" + scratch.path(),
                           "--target_replicas=4294967298"}));
  // The banner shows the flag as given; the server listens on its low 32 bits.
  ASSERT_TRUE(child.WaitForOutput(MetaBanner("127.0.0.1", wide_port, scratch.path()),
                                  MetaServer::kStartTimeoutMs))
      << child.Stderr();
  kanrpc::RpcClientOptions options;
  options.attempts = 1;
  kanrpc::RpcClient client("127.0.0.1:" + std::to_string(port), options);

  // A target of 2^32 + 2 acts as 2: a region with one member grows.
  pdpb::BootstrapResponse booted;
  for (uint64_t store : {1, 2}) {
    ASSERT_TRUE(client.Call("Pd.Bootstrap", pdpb::BootstrapRequest{{store, "s" + std::to_string(store), 0}, {}, {}},
                            &booted).ok());
  }
  pdpb::RegionHeartbeatResponse commands;
  ASSERT_TRUE(client.Call("Pd.RegionHeartbeat", pdpb::RegionHeartbeatRequest{1, {{7, {1}, {}, {}}, {8, {1, 2}, {}, {}}}, {}, {}},
                          &commands).ok());
  EXPECT_EQ(commands.commands, (std::vector<pdpb::ScheduleCommand>{{pdpb::kAddPeer, 7, 2, "s2"}}));
  child.Kill(SIGKILL);
  child.Wait();
}

TEST(ProcessEntryTest, StartFailuresExactTextsAndStatus) {
  ScratchDir scratch;
  const std::string dir = scratch.path() + "/state", file = scratch.path() + "/file",
                    orphan = scratch.path() + "/missing/state";
  kandb::testing::WriteFileOrDie(file, "not a directory");
  MetaServer holder;  // holds a port
  ASSERT_TRUE(holder.Start(scratch.path() + "/holder"));
  const std::string port = std::to_string(holder.port());
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      // Not a dotted IPv4 address: fails after the state directory was opened.
      {{"--bind_addr=localhost", "--port=1", "--data_dir=" + dir},
       "failed to start pd: InvalidArgument: invalid IPv4 bind address: localhost\n"},
      {{"--bind_addr=127.0.0.1", "--port=" + port, "--data_dir=" + dir},
       "failed to start pd: Corruption: bind 127.0.0.1:" + port + " failed: Address already in use\n"},
      {{"--data_dir=" + file},
       "failed to open pd state at " + file + ": InvalidArgument: " + file + " exists and is not a directory\n"},
      // Directories are made one level deep only.
      {{"--data_dir=" + orphan},
       "failed to open pd state at " + orphan + ": Corruption: mkdir " + orphan + ": No such file or directory\n"},
  };
  for (const auto& [args, message] : cases) {
    ProgramResult r = RunMeta(args);
    EXPECT_EQ(ExitCode(r), 1);
    EXPECT_EQ(r.err, message);
    EXPECT_EQ(r.out, "");
  }
  EXPECT_TRUE(IsDirectory(dir));
  EXPECT_FALSE(IsDirectory(scratch.path() + "/missing"));
}

// TLS settings are checked before the state is opened: a start that fails
// on them leaves no state directory behind.
TEST(ProcessEntryTest, TlsStartFailuresNameTheFileAndTheReason) {
  ScratchDir scratch;
  kandb::testing::TestPki pki(scratch.path(), "start");
  ASSERT_TRUE(pki.ok()) << pki.error();
  const kandb::testing::CertFiles server = pki.Server("server"), other = pki.Server("other");
  ASSERT_FALSE(other.cert.empty()) << pki.error();
  const std::string garbage = scratch.path() + "/garbage.pem", missing = scratch.path() + "/missing.pem";
  const std::string encrypted = scratch.path() + "/encrypted.key";
  ASSERT_EQ(ExitCode(kandb::testing::RunProgram({"/bin/sh", "-c",
                                                  "openssl pkey -aes128 -passout pass:secret -in '" + server.key +
                                                      "' -out '" + encrypted + "'"})),
            0);
  kandb::testing::WriteFileOrDie(garbage, "not a certificate\n");
  const std::string dir = "--data_dir=" + scratch.path() + "/state";
  const std::string cert = "--tls_cert=" + server.cert, key = "--tls_key=" + server.key;
  const std::string prefix = "failed to start pd: InvalidArgument: tls: ";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{dir, "--tls_cert=" + missing, key}, "cannot load certificate " + missing + ": No such file or directory"},
      {{dir, "--tls_cert=" + garbage, key}, "cannot load certificate " + garbage + ": no start line"},
      {{dir, cert, "--tls_key=" + other.key}, "cannot load key " + other.key + ": key values mismatch"},
      {{dir, cert, key, "--tls_ca=" + missing}, "cannot load CA " + missing + ": No such file or directory"},
      {{dir, cert}, "--tls_cert and --tls_key go together, and --tls_ca and --tls_allowed_cn need both"},
      {{dir, "--tls_ca=" + pki.ca().cert}, "--tls_cert and --tls_key go together, and --tls_ca and --tls_allowed_cn need both"},
      {{dir, cert, key, "--tls_allowed_cn=store-1"},
       "--tls_allowed_cn needs --tls_ca, to check client certificates against"},
      {{dir, cert, key, "--tls_ca=" + pki.ca().cert, "--tls_allowed_cn= , "}, "--tls_allowed_cn names no one: ' , '"},
      // Never a passphrase prompt: it would stop a server started in the background.
      {{dir, cert, "--tls_key=" + encrypted}, "cannot load key " + encrypted + ": bad decrypt"},
  };
  for (const auto& [args, reason] : cases) {
    ProgramResult r = RunMeta(args);
    EXPECT_EQ(ExitCode(r), 1);
    EXPECT_EQ(r.err, prefix + reason + "\n");
    EXPECT_EQ(r.out, "");
  }
  EXPECT_FALSE(IsDirectory(scratch.path() + "/state"));
}

// SIGHUP while clients call: a session set up before it keeps answering,
// sessions set up throughout it never fail, and after it new sessions get
// the new certificate. (Many sessions at once across a reload are the TLS
// tests'; here the signal reaches the reload.)
TEST(ProcessEntryTest, SighupRotatesTheCertificateWhileClientsCall) {
  ScratchDir scratch;
  kandb::testing::TestPki pki(scratch.path(), "old"), next(scratch.path(), "new");
  ASSERT_TRUE(pki.ok() && next.ok()) << pki.error() << next.error();
  const kandb::testing::CertFiles server = pki.Server("server"), client = pki.Issue("client", "store-1", "");
  const kandb::testing::CertFiles rotated = next.Server("rotated");
  ASSERT_FALSE(rotated.cert.empty()) << next.error();
  const std::string both = scratch.path() + "/both.pem";
  kandb::testing::WriteFileOrDie(both, kandb::testing::ReadFileOrEmpty(pki.ca().cert) +
                                           kandb::testing::ReadFileOrEmpty(next.ca().cert));
  MetaServer meta;
  ASSERT_TRUE(meta.Start(scratch.path() + "/state", {"--tls_cert=" + server.cert, "--tls_key=" + server.key,
                                                     "--tls_ca=" + pki.ca().cert, "--tls_allowed_cn=store-1"}));
  const auto context = [&client](const std::string& ca) {
    std::shared_ptr<const kanrpc::TlsClientContext> tls;
    EXPECT_TRUE(kanrpc::TlsClientContext::Load({client.cert, client.key, ca, ""}, &tls).ok());
    return tls;
  };
  const auto tso = [](const std::unique_ptr<kanrpc::RpcClient>& c) {
    pdpb::TsoResponse resp;
    return c->Call("Pd.Tso", pdpb::TsoRequest{1}, &resp).ok();
  };
  const auto wait_for_stderr = [&meta](const std::string& text) {
    return kandb::testing::WaitFor(10000, [&] { return meta.child()->Stderr().find(text) != std::string::npos; }, 10);
  };
  const auto trusting_both = context(both);
  const std::unique_ptr<kanrpc::RpcClient> before = meta.NewClient(context(pki.ca().cert));
  ASSERT_TRUE(tso(before));

  std::atomic<bool> stop{false};
  std::atomic<int> failures{0}, calls{0};
  std::thread caller([&] {  // a new session for every call
    for (; !stop.load(); ++calls) failures += !tso(meta.NewClient(trusting_both));
  });
  kandb::testing::WriteFileOrDie(server.cert, kandb::testing::ReadFileOrEmpty(rotated.cert));
  kandb::testing::WriteFileOrDie(server.key, kandb::testing::ReadFileOrEmpty(rotated.key));
  meta.child()->Kill(SIGHUP);
  EXPECT_TRUE(wait_for_stderr("kandb-meta: reloaded TLS certificate " + server.cert + "\n")) << meta.child()->Stderr();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  stop = true;
  caller.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GT(calls.load(), 0);
  EXPECT_TRUE(tso(before));
  EXPECT_TRUE(tso(meta.NewClient(context(next.ca().cert))));
  EXPECT_FALSE(tso(meta.NewClient(context(pki.ca().cert))));

  // A reload that cannot read the files keeps serving with what it has.
  kandb::testing::WriteFileOrDie(server.cert, "torn\n");
  meta.child()->Kill(SIGHUP);
  EXPECT_TRUE(wait_for_stderr("kandb-meta: TLS reload failed, the certificate in use stays: "
                              "InvalidArgument: tls: cannot load certificate " +
                              server.cert + ": no start line\n"))
      << meta.child()->Stderr();
  EXPECT_TRUE(tso(meta.NewClient(context(next.ca().cert))));
  meta.Kill();
}

}  // namespace
}  // namespace kandb
