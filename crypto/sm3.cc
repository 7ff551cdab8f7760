#include "crypto/sm3.h"

#include <bit>
#include <cstring>

#include "crypto/big_endian.h"

namespace kandb::crypto {
namespace {

constexpr size_t kBlockSize = 64;

constexpr uint32_t kInitialValue[8] = {
    0x7380166F, 0x4914B2B9, 0x172442D7, 0xDA8A0600,
    0xA96F30BC, 0x163138AA, 0xE38DEE4D, 0xB0FB0E4E,
};

// Round constants: one for the first sixteen rounds, another for the rest.
constexpr uint32_t kT0 = 0x79CC4519;
constexpr uint32_t kT1 = 0x7A879D8A;

inline uint32_t P0(uint32_t x) { return x ^ std::rotl(x, 9) ^ std::rotl(x, 17); }
inline uint32_t P1(uint32_t x) { return x ^ std::rotl(x, 15) ^ std::rotl(x, 23); }

// One 64-byte block folded into the chaining value `v`.
void Compress(uint32_t v[8], const uint8_t* block) {
  uint32_t w[68];
  uint32_t w1[64];
  for (int j = 0; j < 16; ++j) {
    w[j] = LoadBigEndian32(block + 4 * j);
  }
  for (int j = 16; j < 68; ++j) {
    w[j] = P1(w[j - 16] ^ w[j - 9] ^ std::rotl(w[j - 3], 15)) ^ std::rotl(w[j - 13], 7) ^ w[j - 6];
  }
  for (int j = 0; j < 64; ++j) {
    w1[j] = w[j] ^ w[j + 4];
  }

  uint32_t a = v[0], b = v[1], c = v[2], d = v[3];
  uint32_t e = v[4], f = v[5], g = v[6], h = v[7];
  for (int j = 0; j < 64; ++j) {
    uint32_t t = j < 16 ? kT0 : kT1;
    uint32_t a12 = std::rotl(a, 12);
    uint32_t ss1 = std::rotl(a12 + e + std::rotl(t, j), 7);
    uint32_t ss2 = ss1 ^ a12;
    uint32_t ff = j < 16 ? (a ^ b ^ c) : ((a & b) | (a & c) | (b & c));
    uint32_t gg = j < 16 ? (e ^ f ^ g) : ((e & f) | (~e & g));
    uint32_t tt1 = ff + d + ss2 + w1[j];
    uint32_t tt2 = gg + h + ss1 + w[j];
    d = c;
    c = std::rotl(b, 9);
    b = a;
    a = tt1;
    h = g;
    g = std::rotl(f, 19);
    f = e;
    e = P0(tt2);
  }
  v[0] ^= a;
  v[1] ^= b;
  v[2] ^= c;
  v[3] ^= d;
  v[4] ^= e;
  v[5] ^= f;
  v[6] ^= g;
  v[7] ^= h;
}

}  // namespace

Sm3Digest Sm3(const char* data, size_t n) {
  uint32_t v[8];
  std::memcpy(v, kInitialValue, sizeof(v));

  const auto* p = reinterpret_cast<const uint8_t*>(data);
  size_t whole = n - n % kBlockSize;
  for (size_t off = 0; off < whole; off += kBlockSize) {
    Compress(v, p + off);
  }

  // The remainder, the 0x80 marker and the 64-bit big-endian bit count.
  // When fewer than nine bytes of the block are left after the remainder,
  // the count goes into a second, otherwise empty block.
  uint8_t block[kBlockSize] = {};
  size_t rest = n - whole;
  if (rest > 0) {
    std::memcpy(block, p + whole, rest);
  }
  block[rest] = 0x80;
  if (rest + 9 > kBlockSize) {
    Compress(v, block);
    std::memset(block, 0, sizeof(block));
  }
  uint64_t bit_count = static_cast<uint64_t>(n) * 8;
  StoreBigEndian32(block + kBlockSize - 8, static_cast<uint32_t>(bit_count >> 32));
  StoreBigEndian32(block + kBlockSize - 4, static_cast<uint32_t>(bit_count));
  Compress(v, block);

  Sm3Digest digest;
  for (int i = 0; i < 8; ++i) {
    StoreBigEndian32(digest.data() + 4 * i, v[i]);
  }
  return digest;
}

std::string Sm3Hex(const char* data, size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  Sm3Digest digest = Sm3(data, n);
  std::string hex;
  hex.reserve(2 * digest.size());
  for (uint8_t byte : digest) {
    hex.push_back(kDigits[byte >> 4]);
    hex.push_back(kDigits[byte & 0x0F]);
  }
  return hex;
}

}  // namespace kandb::crypto
