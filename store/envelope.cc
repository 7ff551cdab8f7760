#include "store/envelope.h"

#include <sys/random.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
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
  // Draws the prefix from the kernel. getrandom blocks only until the
  // kernel's pool is first ready; it fails only where the kernel has no
  // such call, and then sealing is refused rather than made predictable.
  Status Init() {
    char raw[8];
    size_t got = 0;
    while (got < sizeof(raw)) {
      const ssize_t n = ::getrandom(raw + got, sizeof(raw) - got, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return Status::Corruption(std::string("tde: no randomness: ") + std::strerror(errno));
      got += static_cast<size_t>(n);
    }
    random_prefix_ = DecodeFixed64(raw);
    return Status::OK();
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

// Trivially destructible, so a seal racing with process exit never meets a
// destroyed source.
IvSource the_iv_source;
std::once_flag iv_once;
Status iv_status;  // written once under iv_once

}  // namespace

Status PrepareSealing() {
  // A failed draw is not retried within the process: the kernel that has no
  // randomness to give now will not have it later either.
  std::call_once(iv_once, [] { iv_status = the_iv_source.Init(); });
  return iv_status;
}

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
  the_iv_source.Next(iv);
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
