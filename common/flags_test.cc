#include "common/flags.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

namespace kandb {
namespace {

// A private registry with the server's four flags, parsed in-process with
// its messages captured, so every rule can be checked without a child.
class FlagsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    port_ = registry_.DefineInt64("port", 2379, "pd service listen port");
    bind_ = registry_.DefineString("bind_addr", "0.0.0.0", "pd service IPv4 listen address");
    dir_ = registry_.DefineString("data_dir", "./pd-data", "pd state directory");
    verbose_ = registry_.DefineBool("verbose", false, "say more");
  }

  // Returns Parse's result; the text written to the error stream lands in *err.
  int Run(std::vector<const char*> args, std::string* err) {
    args.insert(args.begin(), "prog");
    std::FILE* f = std::tmpfile();
    int rc = registry_.Parse(static_cast<int>(args.size()), args.data(), f);
    std::fflush(f);
    std::rewind(f);
    err->clear();
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0) err->append(buf, n);
    std::fclose(f);
    return rc;
  }

  std::string Usage() {
    return "usage: prog [flags]\n"
           "  --port                 pd service listen port (default: 2379)\n"
           "  --bind_addr            pd service IPv4 listen address (default: 0.0.0.0)\n"
           "  --data_dir             pd state directory (default: ./pd-data)\n"
           "  --verbose              say more (default: false)\n";
  }

  FlagRegistry registry_;
  int64_t* port_;
  std::string* bind_;
  std::string* dir_;
  bool* verbose_;
};

TEST_F(FlagsTest, ValuesAttachedOrFollowing) {
  std::string err;
  EXPECT_EQ(Run({"--port", "7000"}, &err), -1);
  EXPECT_EQ(*port_, 7000);
  EXPECT_EQ(Run({"--port=7001", "--port= 12"}, &err), -1);
  EXPECT_EQ(*port_, 12);  // last one wins; leading blank accepted
  EXPECT_EQ(Run({"--data_dir", "--port"}, &err), -1);
  EXPECT_EQ(*dir_, "--port");
  EXPECT_EQ(Run({"--bind_addr="}, &err), -1);
  EXPECT_EQ(*bind_, "");
  EXPECT_EQ(Run({"--data_dir=a=b"}, &err), -1);
  EXPECT_EQ(*dir_, "a=b");
  EXPECT_EQ(Run({"--verbose"}, &err), -1);
  EXPECT_TRUE(*verbose_);
  EXPECT_EQ(Run({"--verbose="}, &err), -1);
  EXPECT_FALSE(*verbose_);
  EXPECT_EQ(Run({"--verbose=1"}, &err), -1);
  EXPECT_TRUE(*verbose_);
  EXPECT_EQ(Run({"--port=-5"}, &err), -1);
  EXPECT_EQ(*port_, -5);
  EXPECT_EQ(err, "");
}

TEST_F(FlagsTest, ErrorsWithExactTexts) {
  std::string err;
  EXPECT_EQ(Run({"--help"}, &err), 0);
  EXPECT_EQ(err, Usage());
  EXPECT_EQ(Run({"-h"}, &err), 0);
  EXPECT_EQ(err, Usage());
  EXPECT_EQ(Run({"-help"}, &err), 1);
  EXPECT_EQ(err, "unexpected argument: -help\n" + Usage());
  EXPECT_EQ(Run({"-"}, &err), 1);
  EXPECT_EQ(err, "unexpected argument: -\n" + Usage());
  EXPECT_EQ(Run({"positional"}, &err), 1);
  EXPECT_EQ(err, "unexpected argument: positional\n" + Usage());
  EXPECT_EQ(Run({"--"}, &err), 1);
  EXPECT_EQ(err, "unknown flag: --\n" + Usage());
  EXPECT_EQ(Run({"--Port=1"}, &err), 1);
  EXPECT_EQ(err, "unknown flag: --Port\n" + Usage());
  EXPECT_EQ(Run({"--port"}, &err), 1);
  EXPECT_EQ(err, "flag --port requires a value\n");
  EXPECT_EQ(Run({"--port="}, &err), 1);
  EXPECT_EQ(err, "bad value for --port: ''\n");
  EXPECT_EQ(Run({"--port=12x"}, &err), 1);
  EXPECT_EQ(err, "bad value for --port: '12x'\n");
  EXPECT_EQ(Run({"--port", "99999999999999999999"}, &err), 1);
  EXPECT_EQ(err, "bad value for --port: '99999999999999999999'\n");
  EXPECT_EQ(Run({"--verbose=yes"}, &err), 1);
  EXPECT_EQ(err, "bad value for --verbose: 'yes'\n");
  // Parsing stops at the first error: later arguments are not looked at.
  *port_ = 1;
  EXPECT_EQ(Run({"--bogus", "--port=2"}, &err), 1);
  EXPECT_EQ(*port_, 1);
}

TEST_F(FlagsTest, NoArgumentsChangeNothing) {
  std::string err;
  EXPECT_EQ(Run({}, &err), -1);
  EXPECT_EQ(*port_, 2379);
  EXPECT_EQ(*dir_, "./pd-data");
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
