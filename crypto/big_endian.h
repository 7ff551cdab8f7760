#ifndef KANDB_CRYPTO_BIG_ENDIAN_H_
#define KANDB_CRYPTO_BIG_ENDIAN_H_

// Big-endian word access for SM3 and SM4, whose published definitions load
// and store 32-bit words most significant byte first. Every other format of
// the system is little-endian (common/coding.h). Private to crypto/.

#include <cstdint>

namespace kandb::crypto {

inline uint32_t LoadBigEndian32(const uint8_t* p) {
  return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
         (static_cast<uint32_t>(p[2]) << 8) | static_cast<uint32_t>(p[3]);
}

inline void StoreBigEndian32(uint8_t* p, uint32_t value) {
  p[0] = static_cast<uint8_t>(value >> 24);
  p[1] = static_cast<uint8_t>(value >> 16);
  p[2] = static_cast<uint8_t>(value >> 8);
  p[3] = static_cast<uint8_t>(value);
}

}  // namespace kandb::crypto

#endif  // KANDB_CRYPTO_BIG_ENDIAN_H_
