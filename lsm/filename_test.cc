#include "lsm/filename.h"

#include <gtest/gtest.h>

namespace kandb::lsm {
namespace {

TEST(FileNameTest, NamesArePaddedToSixDigitsAndWiderNumbersWrittenInFull) {
  EXPECT_EQ(TableFileName("/d", 5), "/d/sst-000005.sst");
  EXPECT_EQ(TableFileName("/d", 1234567), "/d/sst-1234567.sst");
  EXPECT_EQ(LogFileName("/d", 42), "/d/wal-000042.log");
  EXPECT_EQ(LogFileName("/d", 18446744073709551615ull), "/d/wal-18446744073709551615.log");
  EXPECT_EQ(ManifestFileName("/d"), "/d/MANIFEST");
  EXPECT_EQ(TempFileName(TableFileName("/d", 5)), "/d/sst-000005.sst.tmp");
}

TEST(FileNameTest, ParseMatchesThePrefixAndNumberOnly) {
  uint64_t n = 0;
  EXPECT_EQ(ParseFileName("wal-000003.log", &n), FileKind::kLog);
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(ParseFileName("sst-1234567.sst", &n), FileKind::kTable);
  EXPECT_EQ(n, 1234567u);
  // Whatever follows the digits is not compared.
  EXPECT_EQ(ParseFileName("wal-7.tmp", &n), FileKind::kLog);
  EXPECT_EQ(n, 7u);
  EXPECT_EQ(ParseFileName("sst-3.sst.part", &n), FileKind::kTable);
  EXPECT_EQ(n, 3u);
  EXPECT_EQ(ParseFileName("sst-000009.sst.tmp", &n), FileKind::kTable);
  EXPECT_EQ(n, 9u);

  n = 99;
  EXPECT_EQ(ParseFileName("MANIFEST", &n), FileKind::kOther);
  EXPECT_EQ(ParseFileName("MANIFEST.tmp", &n), FileKind::kOther);
  EXPECT_EQ(ParseFileName("wal-.log", &n), FileKind::kOther);
  EXPECT_EQ(ParseFileName("sst-x.sst", &n), FileKind::kOther);
  EXPECT_EQ(ParseFileName("xwal-1.log", &n), FileKind::kOther);
  EXPECT_EQ(n, 99u);
}

}  // namespace
}  // namespace kandb::lsm
