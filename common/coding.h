#ifndef KANDB_COMMON_CODING_H_
#define KANDB_COMMON_CODING_H_

// Fixed-width little-endian encoding, used by every binary format of the
// system (wire messages, frames, log records, table files, persisted values).
// Integers are unaligned; the byte order is fixed whatever the host's.

#include <cstdint>
#include <cstring>
#include <string>

namespace kandb {

inline void EncodeFixed16(char* dst, uint16_t value) {
  auto* p = reinterpret_cast<unsigned char*>(dst);
  p[0] = static_cast<unsigned char>(value);
  p[1] = static_cast<unsigned char>(value >> 8);
}

inline void EncodeFixed32(char* dst, uint32_t value) {
  auto* p = reinterpret_cast<unsigned char*>(dst);
  p[0] = static_cast<unsigned char>(value);
  p[1] = static_cast<unsigned char>(value >> 8);
  p[2] = static_cast<unsigned char>(value >> 16);
  p[3] = static_cast<unsigned char>(value >> 24);
}

inline void EncodeFixed64(char* dst, uint64_t value) {
  EncodeFixed32(dst, static_cast<uint32_t>(value));
  EncodeFixed32(dst + 4, static_cast<uint32_t>(value >> 32));
}

inline uint16_t DecodeFixed16(const char* src) {
  auto* p = reinterpret_cast<const unsigned char*>(src);
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

inline uint32_t DecodeFixed32(const char* src) {
  auto* p = reinterpret_cast<const unsigned char*>(src);
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

inline uint64_t DecodeFixed64(const char* src) {
  return static_cast<uint64_t>(DecodeFixed32(src)) |
         (static_cast<uint64_t>(DecodeFixed32(src + 4)) << 32);
}

inline void PutFixed16(std::string* dst, uint16_t value) {
  char buf[2];
  EncodeFixed16(buf, value);
  dst->append(buf, sizeof(buf));
}

inline void PutFixed32(std::string* dst, uint32_t value) {
  char buf[4];
  EncodeFixed32(buf, value);
  dst->append(buf, sizeof(buf));
}

inline void PutFixed64(std::string* dst, uint64_t value) {
  char buf[8];
  EncodeFixed64(buf, value);
  dst->append(buf, sizeof(buf));
}

}  // namespace kandb

#endif  // KANDB_COMMON_CODING_H_
