#ifndef KANDB_CRYPTO_CRC32C_H_
#define KANDB_CRYPTO_CRC32C_H_

// CRC-32C (Castagnoli, reflected polynomial 0x82F63B78), preset 0xFFFFFFFF
// and complemented at the end, unmasked: the checksum of log records, table
// footers and RPC frames. Uses the processor's CRC32 instruction when the
// processor has SSE4.2 (decided once at start), else slice-by-eight tables.

#include <cstddef>
#include <cstdint>

namespace kandb::crypto {

// The CRC-32C of data[0, n).
uint32_t Crc32c(const char* data, size_t n);
// Continues `crc` (a finished CRC-32C of earlier bytes) over data[0, n):
// Crc32cExtend(Crc32c(a), b) == Crc32c(a + b).
uint32_t Crc32cExtend(uint32_t crc, const char* data, size_t n);

// Both paths, for tests and benchmarks; identical results. On x86-64 the
// hardware one executes the CRC32 instruction unconditionally: call it only
// when Crc32cHardwareEnabled() is true.
uint32_t Crc32cExtendHardware(uint32_t crc, const char* data, size_t n);
uint32_t Crc32cExtendTable(uint32_t crc, const char* data, size_t n);
// Whether the hardware path was chosen at start.
bool Crc32cHardwareEnabled();

}  // namespace kandb::crypto

#endif  // KANDB_CRYPTO_CRC32C_H_
