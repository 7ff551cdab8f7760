#ifndef KANDB_META_KEYS_H_
#define KANDB_META_KEYS_H_

// The keys under which the placement driver persists its records in the
// metadata store:
//
//   "pd/store/<id>"     the encoded Store record of one storage node
//   "pd/region/<id>"    the encoded Region record of one key range
//   "pd/bootstrapped"   the single byte "1" once the cluster exists
//   "pd/id_alloc"       the identifier high-water mark, 8 bytes little-endian
//   "pd/gc/safe_point"  the last GC safe point answered, 8 bytes little-endian
//   "pd/gc/service/<hex of service id>"
//                       the encoded ServiceSafePoint of one service
//
// Ids are plain decimal (no sign, padding or leading zeros), so a prefix
// scan returns records in the lexicographic order of that text:
// "pd/store/10" before "pd/store/3". The service's choices (first covering
// region, first eligible store) depend on exactly this order.
//
// A service id is any bytes, so it goes into its key as lower-case hex, two
// digits a byte: a key holds no "/" or unprintable byte of the caller's,
// and the keys sort exactly as the service ids do, byte by byte.

#include <cstdint>
#include <string>
#include <string_view>

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

inline constexpr char kGcSafePointKey[] = "pd/gc/safe_point";
inline constexpr char kServiceSafePointPrefix[] = "pd/gc/service/";
inline constexpr char kServiceSafePointScanEnd[] = "pd/gc/service0";

inline std::string StoreKey(uint64_t store_id) { return kStorePrefix + std::to_string(store_id); }
inline std::string RegionKey(uint64_t region_id) {
  return kRegionPrefix + std::to_string(region_id);
}

inline std::string ServiceSafePointKey(std::string_view service_id) {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string key = kServiceSafePointPrefix;
  key.reserve(key.size() + 2 * service_id.size());
  for (char c : service_id) {
    const auto byte = static_cast<unsigned char>(c);
    key.push_back(kHex[byte >> 4]);
    key.push_back(kHex[byte & 0xf]);
  }
  return key;
}

}  // namespace kandb::meta

#endif  // KANDB_META_KEYS_H_
