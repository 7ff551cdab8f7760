#ifndef KANDB_STORE_ENVELOPE_H_
#define KANDB_STORE_ENVELOPE_H_

// The sealed value envelope of the metadata store ("tde"): how a value is
// kept encrypted at rest. A sealed value is a 16-byte initialisation vector
// followed by the SM4-CBC ciphertext of the padded value, so it is always
// 32 bytes or longer and 16 more than a multiple of 16. There is no version
// byte, key identifier or authentication tag. Keys are never sealed, so
// ordered scans keep working.
//
// Namespace kandb::store holds the envelope and the metadata store built on
// it (meta_store.h).

#include <array>
#include <cstdint>
#include <string>

#include "common/status.h"

namespace kandb::store {

inline constexpr size_t kIvSize = 16;

// The store's encryption switch and 16-byte key. With `encrypted` false the
// envelope passes values through unchanged and `key` is never read.
struct StoreCrypto {
  bool encrypted = false;
  std::array<uint8_t, 16> key{};
};

// Derives the store key from a passphrase: the first 16 bytes of its SM3
// digest. An empty passphrase turns encryption off.
StoreCrypto StoreCryptoFromPassphrase(const std::string& passphrase);

// Makes sure the process's IV source exists: 8 random bytes from the
// kernel (getrandom), fixed for the life of the process, in front of a
// counter. Fails ("tde: no randomness: " + strerror) when the kernel gives
// none; a store that seals is not opened then, since IVs made without
// randomness could repeat those of an earlier process over the same state.
// Safe from any thread; once it succeeded it is not tried again.
Status PrepareSealing();

// Returns the sealed form of `plaintext`: a fresh IV (the process's random
// prefix and a process-wide counter, so no two seals of one process share
// an IV, and a restart does not repeat the IVs of an earlier process), then
// the ciphertext. PrepareSealing must have succeeded before. Cannot fail.
// Safe from any thread.
std::string SealValue(const StoreCrypto& crypto, const std::string& plaintext);

// Opens a sealed value into *plaintext. Failures: Corruption "tde:
// ciphertext too short" below 16 bytes; the cipher's InvalidArgument
// ("sm4: ciphertext not block-aligned", "sm4: bad padding", the latter
// usually meaning a wrong key) unchanged. *plaintext is untouched on failure.
Status OpenValue(const StoreCrypto& crypto, const std::string& stored, std::string* plaintext);
// The same for a stored value the caller no longer needs: a plain value is
// moved rather than copied, which matters for scans over every region.
Status OpenValue(const StoreCrypto& crypto, std::string&& stored, std::string* plaintext);

}  // namespace kandb::store

#endif  // KANDB_STORE_ENVELOPE_H_
