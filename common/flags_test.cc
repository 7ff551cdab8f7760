#include "common/flags.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

namespace kandb {
namespace {

// A private registry parsed in-process with its error stream captured. The
// real binary's messages are checked by app/main_test.cc; these cases cover
// the remaining rules (value forms, booleans, ranges, first error stops).
class FlagsTest : public ::testing::Test {
 protected:
  int Run(std::vector<const char*> args, std::string* err) {
    args.insert(args.begin(), "prog");
    std::FILE* f = std::tmpfile();
    const int rc = registry_.Parse(static_cast<int>(args.size()), args.data(), f);
    std::rewind(f);
    err->clear();
    for (int c; (c = std::fgetc(f)) != EOF;) err->push_back(static_cast<char>(c));
    std::fclose(f);
    return rc;
  }

  FlagRegistry registry_;
  int64_t* port_ = registry_.DefineInt64("port", 2379, "listen port");
  std::string* dir_ = registry_.DefineString("data_dir", "./d", "state directory");
  bool* verbose_ = registry_.DefineBool("verbose", false, "say more");
};

TEST_F(FlagsTest, AcceptedForms) {
  struct Case {
    std::vector<const char*> args;
    int64_t port;
    std::string dir;
    bool verbose;
  };
  const Case cases[] = {
      {{}, 2379, "./d", false},
      {{"--port", "7000"}, 7000, "./d", false},
      {{"--port=7001", "--port= 12"}, 12, "./d", false},  // last wins, leading blank
      {{"--port=-5"}, -5, "./d", false},
      {{"--data_dir", "--port"}, -5, "--port", false},  // a following value is taken as is
      {{"--data_dir="}, -5, "", false},
      {{"--data_dir=a=b"}, -5, "a=b", false},
      {{"--verbose"}, -5, "a=b", true},
      {{"--verbose="}, -5, "a=b", false},
      {{"--verbose=1"}, -5, "a=b", true},
      {{"--verbose=false"}, -5, "a=b", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args.empty() ? "(none)" : c.args[0]);
    std::string err;
    EXPECT_EQ(Run(c.args, &err), -1);
    EXPECT_EQ(err, "");
    EXPECT_EQ(*port_, c.port);
    EXPECT_EQ(*dir_, c.dir);
    EXPECT_EQ(*verbose_, c.verbose);
  }
}

TEST_F(FlagsTest, RejectedWithExactTexts) {
  const std::string usage =
      "usage: prog [flags]\n"
      "  --port                 listen port (default: 2379)\n"
      "  --data_dir             state directory (default: ./d)\n"
      "  --verbose              say more (default: false)\n";
  const std::pair<std::vector<const char*>, std::string> cases[] = {
      {{"-"}, "unexpected argument: -\n" + usage},
      {{"--Port=1"}, "unknown flag: --Port\n" + usage},
      {{"--port", "99999999999999999999"}, "bad value for --port: '99999999999999999999'\n"},
      {{"--port=12 "}, "bad value for --port: '12 '\n"},
      {{"--verbose=yes"}, "bad value for --verbose: 'yes'\n"},
      {{"--bogus", "--port=2"}, "unknown flag: --bogus\n" + usage},  // stops at the first error
  };
  for (const auto& [args, message] : cases) {
    std::string err;
    EXPECT_EQ(Run(args, &err), 1) << args[0];
    EXPECT_EQ(err, message);
  }
  EXPECT_EQ(*port_, 2379);
  std::string err;
  EXPECT_EQ(Run({"-h", "--bogus"}, &err), 0);
  EXPECT_EQ(err, usage);
}

TEST(FlagsDeathTest, DuplicateDefinitionEndsTheProcess) {
  EXPECT_EXIT(
      {
        FlagRegistry registry;
        registry.DefineInt64("port", 1, "a");
        registry.DefineString("port", "x", "b");
      },
      ::testing::ExitedWithCode(1), "^duplicate flag definition: --port\n$");
}

}  // namespace
}  // namespace kandb
