// Runs the real kandb-meta binary as a child process and checks what it
// prints and how it exits.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>

#include <gtest/gtest.h>

#include "app/meta_server_test_util.h"
#include "common/test_util.h"
#include "pdpb/messages.h"

namespace kandb {
namespace {

using ::kandb::testing::ChildProcess;
using ::kandb::testing::MakeTempDir;
using ::kandb::testing::MetaBanner;
using ::kandb::testing::MetaServer;
using ::kandb::testing::ProgramResult;
using ::kandb::testing::RemoveTree;
using ::kandb::testing::RunProgram;

const char kUsage[] =
    "usage: " KANDB_META_BINARY
    " [flags]\n"
    "  --port                 pd service listen port (default: 2379)\n"
    "  --bind_addr            pd service IPv4 listen address (default: 0.0.0.0)\n"
    "  --data_dir             pd state directory (default: ./pd-data)\n"
    "  --target_replicas      auto-heal: schedule adding replicas until each region reaches "
    "this member count (0 = off; promotion of caught-up learners is always on) (default: 0)\n";

using ::kandb::testing::ExitCode;

ProgramResult RunMeta(std::vector<std::string> args) {
  args.insert(args.begin(), KANDB_META_BINARY);
  return RunProgram(args);
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

// A scratch directory removed at the end of the test.
class ScratchDir {
 public:
  ScratchDir() : path_(MakeTempDir("kandb-app")) {}
  ~ScratchDir() { RemoveTree(path_); }
  const std::string& path() const { return path_; }

 private:
  const std::string path_;
};

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
  const int probe = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(probe, 0);
  int one = 1;
  setsockopt(probe, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(2379);
  const bool free_port = bind(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  close(probe);
  if (!free_port) GTEST_SKIP() << "port 2379 is in use";

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
  pdpb::BootstrapRequest boot;
  boot.store.id = 1;
  boot.store.address = "s1";
  pdpb::BootstrapResponse booted;
  ASSERT_TRUE(client.Call("Pd.Bootstrap", boot, &booted).ok());
  boot.store.id = 2;
  boot.store.address = "s2";
  ASSERT_TRUE(client.Call("Pd.Bootstrap", boot, &booted).ok());
  pdpb::RegionHeartbeatRequest hb;
  hb.store_id = 1;
  hb.regions.resize(2);
  hb.regions[0].region_id = 7;
  hb.regions[0].member_store_ids = {1};
  hb.regions[1].region_id = 8;
  hb.regions[1].member_store_ids = {1, 2};
  pdpb::RegionHeartbeatResponse commands;
  ASSERT_TRUE(client.Call("Pd.RegionHeartbeat", hb, &commands).ok());
  ASSERT_EQ(commands.commands.size(), 1u);
  EXPECT_EQ(commands.commands[0].kind, pdpb::kAddPeer);
  EXPECT_EQ(commands.commands[0].region_id, 7u);
  EXPECT_EQ(commands.commands[0].store_id, 2u);
  child.Kill(SIGKILL);
  child.Wait();
}

TEST(ProcessEntryTest, StartFailuresExactTextsAndStatus) {
  ScratchDir scratch;
  const std::string dir = scratch.path() + "/state";

  // Not a dotted IPv4 address: fails after the state directory was opened.
  ProgramResult r = RunMeta({"--bind_addr=localhost", "--port=1", "--data_dir=" + dir});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "failed to start pd: InvalidArgument: invalid IPv4 bind address: localhost\n");
  EXPECT_EQ(r.out, "");
  EXPECT_TRUE(IsDirectory(dir));

  // A port some other server holds.
  MetaServer holder;
  ASSERT_TRUE(holder.Start(scratch.path() + "/holder"));
  const std::string port = std::to_string(holder.port());
  r = RunMeta({"--bind_addr=127.0.0.1", "--port=" + port, "--data_dir=" + dir});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err,
            "failed to start pd: Corruption: bind 127.0.0.1:" + port +
                " failed: Address already in use\n");
  EXPECT_EQ(r.out, "");
  holder.Kill();

  // A state path that is a regular file.
  const std::string file = scratch.path() + "/file";
  kandb::testing::WriteFileOrDie(file, "not a directory");
  r = RunMeta({"--bind_addr=127.0.0.1", "--port=" + port, "--data_dir=" + file});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "failed to open pd state at " + file + ": InvalidArgument: " + file +
                       " exists and is not a directory\n");
  EXPECT_EQ(r.out, "");

  // A state directory whose parent is missing: directories are made one
  // level deep only.
  const std::string orphan = scratch.path() + "/missing/state";
  r = RunMeta({"--bind_addr=127.0.0.1", "--port=" + port, "--data_dir=" + orphan});
  EXPECT_EQ(ExitCode(r), 1);
  EXPECT_EQ(r.err, "failed to open pd state at " + orphan + ": Corruption: mkdir " + orphan +
                       ": No such file or directory\n");
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(IsDirectory(scratch.path() + "/missing"));
}

}  // namespace
}  // namespace kandb
