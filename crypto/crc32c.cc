#include "crypto/crc32c.h"

#include <array>

#include "common/coding.h"

#if defined(__x86_64__)
#include <nmmintrin.h>
#define KANDB_CRC32C_X86 1
#else
#define KANDB_CRC32C_X86 0
#endif

namespace kandb::crypto {
namespace {

constexpr uint32_t kPolynomial = 0x82F63B78u;  // Castagnoli, reflected

// kTables[0] is the classic byte-at-a-time table. kTables[k][b] is the
// register contribution of byte b followed by k zero bytes, which lets the
// slice-by-eight loop fold eight bytes with eight independent look-ups.
using Crc32cTables = std::array<std::array<uint32_t, 256>, 8>;

constexpr Crc32cTables MakeTables() {
  Crc32cTables tables{};
  for (uint32_t b = 0; b < 256; ++b) {
    uint32_t crc = b;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1) ? (crc >> 1) ^ kPolynomial : crc >> 1;
    }
    tables[0][b] = crc;
  }
  for (size_t k = 1; k < tables.size(); ++k) {
    for (uint32_t b = 0; b < 256; ++b) {
      uint32_t prev = tables[k - 1][b];
      tables[k][b] = (prev >> 8) ^ tables[0][prev & 0xFF];
    }
  }
  return tables;
}

constexpr Crc32cTables kTables = MakeTables();

#if KANDB_CRC32C_X86
bool DetectSse42() {
  // Static constructors may run before the compiler's own CPU-model
  // initialiser, so make sure the feature bits have been read.
  __builtin_cpu_init();
  return __builtin_cpu_supports("sse4.2");
}
#else
bool DetectSse42() { return false; }
#endif

// Written once during static initialisation, before any thread exists, and
// only read afterwards. A caller running in an earlier static initialiser
// sees false and takes the table path, which gives the same checksum.
const bool kHardwareCrc = DetectSse42();

}  // namespace

uint32_t Crc32cExtendTable(uint32_t crc, const char* data, size_t n) {
  const auto* p = reinterpret_cast<const uint8_t*>(data);
  const auto& t = kTables;
  uint32_t reg = ~crc;
  for (; n >= 8; n -= 8, p += 8) {
    const char* c = reinterpret_cast<const char*>(p);
    uint32_t lo = reg ^ DecodeFixed32(c);
    uint32_t hi = DecodeFixed32(c + 4);
    reg = t[7][lo & 0xFF] ^ t[6][(lo >> 8) & 0xFF] ^ t[5][(lo >> 16) & 0xFF] ^ t[4][lo >> 24] ^
          t[3][hi & 0xFF] ^ t[2][(hi >> 8) & 0xFF] ^ t[1][(hi >> 16) & 0xFF] ^ t[0][hi >> 24];
  }
  for (; n > 0; --n, ++p) {
    reg = (reg >> 8) ^ t[0][(reg ^ *p) & 0xFF];
  }
  return ~reg;
}

#if KANDB_CRC32C_X86
__attribute__((target("sse4.2"))) uint32_t Crc32cExtendHardware(uint32_t crc, const char* data,
                                                                size_t n) {
  uint64_t reg = ~crc;
  for (; n >= 8; n -= 8, data += 8) {
    reg = _mm_crc32_u64(reg, DecodeFixed64(data));
  }
  auto reg32 = static_cast<uint32_t>(reg);
  for (; n > 0; --n, ++data) {
    reg32 = _mm_crc32_u8(reg32, static_cast<uint8_t>(*data));
  }
  return ~reg32;
}
#else
// No CRC32 instruction on this processor family: the "hardware" entry point
// exists for the tests and benchmarks and answers through the tables.
uint32_t Crc32cExtendHardware(uint32_t crc, const char* data, size_t n) {
  return Crc32cExtendTable(crc, data, n);
}
#endif

bool Crc32cHardwareEnabled() { return kHardwareCrc; }

uint32_t Crc32cExtend(uint32_t crc, const char* data, size_t n) {
  return kHardwareCrc ? Crc32cExtendHardware(crc, data, n) : Crc32cExtendTable(crc, data, n);
}

uint32_t Crc32c(const char* data, size_t n) { return Crc32cExtend(0, data, n); }

}  // namespace kandb::crypto
