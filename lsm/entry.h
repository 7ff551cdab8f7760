#ifndef KANDB_LSM_ENTRY_H_
#define KANDB_LSM_ENTRY_H_

#include <cstdint>
#include <string>
#include <vector>

namespace kandb::lsm {

// Operation kinds of an Entry. The engine treats every op other than kPut
// as a deletion marker.
inline constexpr uint8_t kOpPut = 1;
inline constexpr uint8_t kOpDelete = 2;

// One key-value operation: the unit of write batches, memtable dumps, table
// records and scan results. `value` is empty for a deletion marker.
struct Entry {
  uint8_t op = kOpPut;
  std::string key;
  std::string value;

  bool operator==(const Entry&) const = default;
};

using WriteBatch = std::vector<Entry>;

}  // namespace kandb::lsm

#endif  // KANDB_LSM_ENTRY_H_
