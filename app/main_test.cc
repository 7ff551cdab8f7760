// Runs the real kandb-meta binary as a child process and checks what it
// prints and how it exits.

#include <sys/wait.h>

#include <gtest/gtest.h>

#include "common/test_util.h"

namespace kandb {
namespace {

using ::kandb::testing::ProgramResult;
using ::kandb::testing::RunProgram;

const char kUsage[] =
    "usage: " KANDB_META_BINARY
    " [flags]\n"
    "  --port                 pd service listen port (default: 2379)\n"
    "  --bind_addr            pd service IPv4 listen address (default: 0.0.0.0)\n"
    "  --data_dir             pd state directory (default: ./pd-data)\n"
    "  --target_replicas      auto-heal: schedule adding replicas until each region reaches "
    "this member count (0 = off; promotion of caught-up learners is always on) (default: 0)\n";

int ExitCode(const ProgramResult& r) {
  return WIFEXITED(r.status) ? WEXITSTATUS(r.status) : -1000 - r.status;
}

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

}  // namespace
}  // namespace kandb
