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

// The hardware path runs three independent CRC streams over consecutive
// stripes, since one stream waits out the instruction's latency on every
// word; the registers are then joined by shifting the earlier ones past the
// stripes after them. Shifting a register past n zero bytes is linear, so
// it is four table look-ups: kShift[t][v] is the shift of byte v placed at
// byte t of the register.
constexpr size_t kStripe = 128;
using ShiftTables = std::array<std::array<uint32_t, 256>, 4>;

uint32_t ShiftSlow(uint32_t reg, size_t zero_bytes) {
  for (size_t i = 0; i < zero_bytes; ++i) reg = (reg >> 8) ^ kTables[0][reg & 0xFF];
  return reg;
}

ShiftTables MakeShiftTables(size_t zero_bytes) {
  ShiftTables tables{};
  for (uint32_t t = 0; t < 4; ++t) {
    for (uint32_t v = 0; v < 256; ++v) tables[t][v] = ShiftSlow(v << (8 * t), zero_bytes);
  }
  return tables;
}

// Defined before kHardwareCrc, so that they are ready whenever it is true.
const ShiftTables kShiftOne = MakeShiftTables(kStripe);
const ShiftTables kShiftTwo = MakeShiftTables(2 * kStripe);

inline uint32_t Shift(const ShiftTables& t, uint32_t reg) {
  return t[0][reg & 0xFF] ^ t[1][(reg >> 8) & 0xFF] ^ t[2][(reg >> 16) & 0xFF] ^ t[3][reg >> 24];
}

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
  for (; n >= 3 * kStripe; n -= 3 * kStripe, data += 3 * kStripe) {
    uint64_t b = 0;
    uint64_t c = 0;
    for (size_t i = 0; i < kStripe; i += 8) {
      reg = _mm_crc32_u64(reg, DecodeFixed64(data + i));
      b = _mm_crc32_u64(b, DecodeFixed64(data + kStripe + i));
      c = _mm_crc32_u64(c, DecodeFixed64(data + 2 * kStripe + i));
    }
    reg = Shift(kShiftTwo, static_cast<uint32_t>(reg)) ^ Shift(kShiftOne, static_cast<uint32_t>(b)) ^
          static_cast<uint32_t>(c);
  }
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
