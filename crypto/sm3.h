#ifndef KANDB_CRYPTO_SM3_H_
#define KANDB_CRYPTO_SM3_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kandb::crypto {

using Sm3Digest = std::array<uint8_t, 32>;

// The SM3 hash of data[0, n).
Sm3Digest Sm3(const char* data, size_t n);
// The digest as 64 lower-case hexadecimal digits.
std::string Sm3Hex(const char* data, size_t n);

}  // namespace kandb::crypto

#endif  // KANDB_CRYPTO_SM3_H_
