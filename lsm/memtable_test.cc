#include "lsm/memtable.h"

#include <gtest/gtest.h>

namespace kandb::lsm {
namespace {

std::vector<std::string> Keys(const std::vector<Entry>& entries) {
  std::vector<std::string> keys;
  for (const Entry& e : entries) keys.push_back(e.key);
  return keys;
}

TEST(MemTableTest, SizeOnlyGrowsAndDeletionsStayAsMarkers) {
  MemTable mem;
  mem.Apply({Entry{kOpPut, "a", "xyz"}});
  EXPECT_EQ(mem.ApproximateBytes(), 36u);
  // A deletion replaces the value but still adds its own 32 + 1 + 0.
  mem.Apply({Entry{kOpDelete, "a", ""}});
  EXPECT_EQ(mem.ApproximateBytes(), 69u);
  uint8_t op = 0;
  std::string value = "untouched";
  ASSERT_TRUE(mem.Lookup("a", &op, &value));
  EXPECT_EQ(op, kOpDelete);
  EXPECT_EQ(value, "");
  EXPECT_FALSE(mem.Lookup("b", &op, &value));
}

TEST(MemTableTest, DumpHonoursBoundsLimitAndByteOrder) {
  MemTable mem;
  // Within one batch the later entry for a key wins.
  mem.Apply({Entry{kOpPut, "d", "4"}, Entry{kOpPut, "b", "2"}, Entry{kOpPut, "a", "1"}, Entry{kOpDelete, "c", ""},
             Entry{kOpPut, "b", "22"}});
  EXPECT_EQ(Keys(mem.Dump("b", "d", 0)), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(mem.Dump("b", "c", 0), (std::vector<Entry>{Entry{kOpPut, "b", "22"}}));
  EXPECT_EQ(Keys(mem.Dump("", "", 1)), (std::vector<std::string>{"a"}));
  // The successor of a key (key + "\0"), where a scan refills, excludes it.
  EXPECT_EQ(Keys(mem.Dump(std::string("b\0", 2), "", 0)), (std::vector<std::string>{"c", "d"}));

  // Bytes compare unsigned: 0xff sorts after 'z', and a prefix first.
  MemTable bytes;
  bytes.Apply({Entry{kOpPut, "\xff", ""}, Entry{kOpPut, "z", ""}, Entry{kOpPut, "zz", ""}});
  EXPECT_EQ(Keys(bytes.Dump("", "", 0)), (std::vector<std::string>{"z", "zz", "\xff"}));
}

}  // namespace
}  // namespace kandb::lsm
