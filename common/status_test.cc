#include "common/status.h"

#include <gtest/gtest.h>

namespace kandb {
namespace {

TEST(StatusTest, Rendering) {
  EXPECT_TRUE(Status().ok());
  EXPECT_EQ(Status().ToString(), "OK");
  EXPECT_EQ(Status(0, "ignored").ToString(), "OK");
  EXPECT_EQ(Status(2, "bad block").ToString(), "Corruption: bad block");
  EXPECT_EQ(Status(7, "x").ToString(), "Unknown: x");
  EXPECT_EQ(Status::Unavailable("not leader; no leader yet").ToString(),
            "Unavailable: not leader; no leader yet");
  EXPECT_EQ(Status(4, "").code(), Status::kUnavailable);
  EXPECT_EQ(Status(5, "x").ToString(), "Unknown: x");
  EXPECT_EQ(Status::InvalidArgument("").ToString(), "InvalidArgument: ");
  EXPECT_EQ(Status::NotFound("no region covers key").ToString(), "NotFound: no region covers key");
  EXPECT_EQ(Status::Corruption("m").code(), 2u);
  EXPECT_FALSE(Status(7, "").ok());
}

}  // namespace
}  // namespace kandb
