#ifndef KANDB_META_KEYS_H_
#define KANDB_META_KEYS_H_

// The keys under which the placement driver persists its records in the
// metadata store:
//
//   "pd/store/<id>"     the encoded Store record of one storage node
//   "pd/region/<id>"    the encoded Region record of one key range
//   "pd/bootstrapped"   the single byte "1" once the cluster exists
//   "pd/id_alloc"       the identifier high-water mark, 8 bytes little-endian
//
// Ids are plain decimal (no sign, padding or leading zeros), so a prefix
// scan returns records in the lexicographic order of that text:
// "pd/store/10" before "pd/store/3". The service's choices (first covering
// region, first eligible store) depend on exactly this order.

#include <cstdint>
#include <string>

namespace kandb::meta {

inline constexpr char kStorePrefix[] = "pd/store/";
inline constexpr char kRegionPrefix[] = "pd/region/";
inline constexpr char kBootstrappedKey[] = "pd/bootstrapped";
inline constexpr char kIdAllocKey[] = "pd/id_alloc";

// A prefix scan is a range scan from the prefix up to the prefix with its
// final "/" replaced by the next byte value, "0".
inline constexpr char kStoreScanEnd[] = "pd/store0";
inline constexpr char kRegionScanEnd[] = "pd/region0";
inline constexpr uint32_t kStoreScanLimit = 100000;
inline constexpr uint32_t kRegionScanLimit = 1000000;

inline std::string StoreKey(uint64_t store_id) { return kStorePrefix + std::to_string(store_id); }
inline std::string RegionKey(uint64_t region_id) {
  return kRegionPrefix + std::to_string(region_id);
}

}  // namespace kandb::meta

#endif  // KANDB_META_KEYS_H_
