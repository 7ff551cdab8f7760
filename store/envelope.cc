#include "store/envelope.h"

#include <atomic>
#include <cstdio>
#include <utility>

#include "common/coding.h"
#include "crypto/sm3.h"
#include "crypto/sm4.h"

namespace kandb::store {
namespace {

// Makes the IVs of this process: 8 random bytes fixed for the process's
// life, then a counter that every seal advances atomically. The counter
// alone keeps the IVs of one process distinct; the prefix keeps them apart
// from those of earlier processes over the same state directory.
class IvSource {
 public:
  IvSource() {
    // Sealing must never fail for want of randomness: when /dev/urandom
    // cannot be opened the prefix stays 0, and a short read keeps whatever
    // bytes arrived. IVs are then predictable, but still distinct.
    char raw[8] = {};
    if (std::FILE* f = std::fopen("/dev/urandom", "rb"); f != nullptr) {
      size_t got = std::fread(raw, 1, sizeof(raw), f);
      (void)got;
      std::fclose(f);
    }
    random_prefix_ = DecodeFixed64(raw);
  }

  void Next(uint8_t iv[kIvSize]) {
    const uint64_t n = counter_.fetch_add(1);
    EncodeFixed64(reinterpret_cast<char*>(iv), random_prefix_);
    EncodeFixed64(reinterpret_cast<char*>(iv) + 8, n);
  }

 private:
  uint64_t random_prefix_ = 0;  // written once, before the source is shared
  std::atomic<uint64_t> counter_{0};
};

IvSource& TheIvSource() {
  // Created on the first seal, thread-safely. Trivially destructible, so a
  // seal racing with process exit never meets a destroyed source.
  static IvSource source;
  return source;
}

}  // namespace

StoreCrypto StoreCryptoFromPassphrase(const std::string& passphrase) {
  StoreCrypto crypto;
  if (passphrase.empty()) return crypto;
  crypto.encrypted = true;
  const crypto::Sm3Digest digest = crypto::Sm3(passphrase.data(), passphrase.size());
  for (size_t i = 0; i < crypto.key.size(); i++) crypto.key[i] = digest[i];
  return crypto;
}

std::string SealValue(const StoreCrypto& crypto, const std::string& plaintext) {
  if (!crypto.encrypted) return plaintext;
  uint8_t iv[kIvSize];
  TheIvSource().Next(iv);
  std::string sealed(reinterpret_cast<const char*>(iv), kIvSize);
  sealed += crypto::Sm4CbcEncrypt(plaintext, crypto.key.data(), iv);
  return sealed;
}

Status OpenValue(const StoreCrypto& crypto, const std::string& stored, std::string* plaintext) {
  if (!crypto.encrypted) {
    *plaintext = stored;
    return Status::OK();
  }
  if (stored.size() < kIvSize) return Status::Corruption("tde: ciphertext too short");
  uint8_t iv[kIvSize];
  for (size_t i = 0; i < kIvSize; i++) iv[i] = static_cast<uint8_t>(stored[i]);
  return crypto::Sm4CbcDecrypt(stored.substr(kIvSize), crypto.key.data(), iv, plaintext);
}

Status OpenValue(const StoreCrypto& crypto, std::string&& stored, std::string* plaintext) {
  if (!crypto.encrypted) {
    *plaintext = std::move(stored);
    return Status::OK();
  }
  return OpenValue(crypto, static_cast<const std::string&>(stored), plaintext);
}

}  // namespace kandb::store
