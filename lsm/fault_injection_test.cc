#include "lsm/fault_injection.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "common/test_util.h"

namespace kandb::lsm {
namespace {

class FaultInjectionTest : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = kandb::testing::MakeTempDir("fault"); }
  void TearDown() override { kandb::testing::RemoveTree(dir_); }

  int OpenForWrite(const std::string& name) {
    return CurrentFileIo()->Open((dir_ + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  }

  std::string dir_;
};

TEST_F(FaultInjectionTest, FailsOnlyTheNthMatchingCallAndCountsEveryCall) {
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);
  int a = OpenForWrite("a.log");
  int b = OpenForWrite("b.sst");
  ASSERT_GE(a, 0);
  ASSERT_GE(b, 0);

  // Writes to b.sst do not count towards the rule on ".log".
  io.FailNth(FileOp::kWrite, 2, ".log");
  EXPECT_EQ(io.Write(a, "x", 1), 1);
  EXPECT_EQ(io.Write(b, "x", 1), 1);
  errno = 0;
  EXPECT_EQ(io.Write(a, "x", 1), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(io.Write(a, "x", 1), 1);  // one-shot: the next one passes

  EXPECT_EQ(io.count(FileOp::kWrite), 4u);
  EXPECT_EQ(io.injected(FileOp::kWrite), 1u);
  EXPECT_EQ(io.count(FileOp::kOpen), 2u);
  EXPECT_EQ(kandb::testing::ReadFileOrEmpty(dir_ + "/a.log"), "xx");

  io.ResetCounts();
  EXPECT_EQ(io.count(FileOp::kWrite), 0u);
  io.Close(a);
  io.Close(b);
  EXPECT_EQ(io.count(FileOp::kClose), 2u);
}

TEST_F(FaultInjectionTest, FailFromKeepsFailingUntilCleared) {
  FaultInjectingFileIo io;
  ScopedFileIo install(&io);
  int fd = OpenForWrite("x.sst");
  ASSERT_GE(fd, 0);
  io.FailFrom(FileOp::kFsync, 1, "", ENOSPC);
  for (int i = 0; i < 3; ++i) {
    errno = 0;
    EXPECT_EQ(io.Fsync(fd), -1);
    EXPECT_EQ(errno, ENOSPC);
  }
  io.Clear(FileOp::kFsync);
  EXPECT_EQ(io.Fsync(fd), 0);
  EXPECT_EQ(io.injected(FileOp::kFsync), 3u);
  io.Close(fd);

  // A rename matches either of its names; a failed open creates nothing.
  io.FailNth(FileOp::kOpen, 1, "y.sst");
  EXPECT_EQ(OpenForWrite("y.sst"), -1);
  EXPECT_EQ(::access((dir_ + "/y.sst").c_str(), F_OK), -1);
  io.FailNth(FileOp::kRename, 1, "MANIFEST");
  EXPECT_EQ(io.Rename((dir_ + "/x.sst").c_str(), (dir_ + "/MANIFEST").c_str()), -1);
  EXPECT_EQ(io.Rename((dir_ + "/x.sst").c_str(), (dir_ + "/MANIFEST").c_str()), 0);
}

}  // namespace
}  // namespace kandb::lsm
