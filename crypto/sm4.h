#ifndef KANDB_CRYPTO_SM4_H_
#define KANDB_CRYPTO_SM4_H_

// The SM4 block cipher and SM4-CBC with block padding (n bytes of value n,
// n in 1..16). Round keys are expanded per call.

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/status.h"

namespace kandb::crypto {

inline constexpr size_t kSm4BlockSize = 16;

// One block, for tests against the published vectors.
void Sm4EncryptBlock(const uint8_t key[16], const uint8_t in[16], uint8_t out[16]);
void Sm4DecryptBlock(const uint8_t key[16], const uint8_t in[16], uint8_t out[16]);

// Pads and encrypts; the IV is not prepended. Cannot fail.
std::string Sm4CbcEncrypt(const std::string& plaintext, const uint8_t key[16],
                          const uint8_t iv[16]);
// Decrypts and strips the padding. Failures (InvalidArgument):
// "sm4: ciphertext not block-aligned", "sm4: bad padding". *plaintext is
// untouched on failure.
Status Sm4CbcDecrypt(const std::string& ciphertext, const uint8_t key[16], const uint8_t iv[16],
                     std::string* plaintext);

}  // namespace kandb::crypto

#endif  // KANDB_CRYPTO_SM4_H_
