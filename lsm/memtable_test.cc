#include "lsm/memtable.h"

#include <gtest/gtest.h>

namespace kandb::lsm {
namespace {

std::vector<std::string> Keys(const std::vector<Entry>& entries) {
  std::vector<std::string> keys;
  for (const Entry& e : entries) keys.push_back(e.key);
  return keys;
}

TEST(MemTableTest, SizeGrowsByEntryAndNeverShrinks) {
  MemTable mem;
  mem.Apply({Entry{kOpPut, "a", "xyz"}});
  EXPECT_EQ(mem.ApproximateBytes(), 36u);
  // A deletion replaces the value but still adds its own 32 + 1 + 0.
  mem.Apply({Entry{kOpDelete, "a", ""}});
  EXPECT_EQ(mem.ApproximateBytes(), 69u);
  std::vector<Entry> all = mem.Dump("", "", 0);
  ASSERT_EQ(all.size(), 1u);
  EXPECT_EQ(all[0], (Entry{kOpDelete, "a", ""}));
}

TEST(MemTableTest, LookupTellsAbsentFromDeleted) {
  MemTable mem;
  uint8_t op = 0;
  std::string value = "untouched";
  EXPECT_FALSE(mem.Lookup("k", &op, &value));
  EXPECT_EQ(value, "untouched");

  // Within one batch the later entry for a key wins.
  mem.Apply({Entry{kOpPut, "k", "1"}, Entry{kOpPut, "k", "2"}, Entry{kOpPut, "gone", "x"},
             Entry{kOpDelete, "gone", ""}});
  ASSERT_TRUE(mem.Lookup("k", &op, &value));
  EXPECT_EQ(op, kOpPut);
  EXPECT_EQ(value, "2");
  ASSERT_TRUE(mem.Lookup("gone", &op, &value));
  EXPECT_EQ(op, kOpDelete);
  EXPECT_EQ(value, "");
}

TEST(MemTableTest, DumpHonoursBoundsLimitAndByteOrder) {
  MemTable mem;
  mem.Apply({Entry{kOpPut, "d", "4"}, Entry{kOpPut, "b", "2"}, Entry{kOpPut, "a", "1"},
             Entry{kOpDelete, "c", ""}});
  EXPECT_EQ(Keys(mem.Dump("b", "d", 0)), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(Keys(mem.Dump("", "", 1)), (std::vector<std::string>{"a"}));
  EXPECT_EQ(Keys(mem.Dump("b", "", 0)), (std::vector<std::string>{"b", "c", "d"}));
  // A start between keys begins at the next one; successor-of-key starts
  // (key + "\0") exclude the key itself.
  EXPECT_EQ(Keys(mem.Dump(std::string("b\0", 2), "", 0)), (std::vector<std::string>{"c", "d"}));

  // Bytes order as unsigned: 0xff sorts after 'z', and a prefix first.
  MemTable bytes;
  bytes.Apply({Entry{kOpPut, "\xff", ""}, Entry{kOpPut, "z", ""}, Entry{kOpPut, "zz", ""}});
  EXPECT_EQ(Keys(bytes.Dump("", "", 0)), (std::vector<std::string>{"z", "zz", "\xff"}));
}

TEST(MemTableTest, RemembersItsLogsInOrder) {
  MemTable mem;
  mem.AddWalFile("/d/wal-000001.log");
  mem.AddWalFile("/d/wal-000002.log");
  EXPECT_EQ(mem.WalFiles(), (std::vector<std::string>{"/d/wal-000001.log", "/d/wal-000002.log"}));
}

}  // namespace
}  // namespace kandb::lsm
