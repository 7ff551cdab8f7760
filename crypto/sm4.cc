#include "crypto/sm4.h"

#include <bit>
#include <cstring>
#include <utility>

#include "crypto/big_endian.h"

namespace kandb::crypto {
namespace {

constexpr int kRounds = 32;

constexpr uint8_t kSbox[256] = {
    0xD6, 0x90, 0xE9, 0xFE, 0xCC, 0xE1, 0x3D, 0xB7, 0x16, 0xB6, 0x14, 0xC2, 0x28, 0xFB, 0x2C, 0x05,
    0x2B, 0x67, 0x9A, 0x76, 0x2A, 0xBE, 0x04, 0xC3, 0xAA, 0x44, 0x13, 0x26, 0x49, 0x86, 0x06, 0x99,
    0x9C, 0x42, 0x50, 0xF4, 0x91, 0xEF, 0x98, 0x7A, 0x33, 0x54, 0x0B, 0x43, 0xED, 0xCF, 0xAC, 0x62,
    0xE4, 0xB3, 0x1C, 0xA9, 0xC9, 0x08, 0xE8, 0x95, 0x80, 0xDF, 0x94, 0xFA, 0x75, 0x8F, 0x3F, 0xA6,
    0x47, 0x07, 0xA7, 0xFC, 0xF3, 0x73, 0x17, 0xBA, 0x83, 0x59, 0x3C, 0x19, 0xE6, 0x85, 0x4F, 0xA8,
    0x68, 0x6B, 0x81, 0xB2, 0x71, 0x64, 0xDA, 0x8B, 0xF8, 0xEB, 0x0F, 0x4B, 0x70, 0x56, 0x9D, 0x35,
    0x1E, 0x24, 0x0E, 0x5E, 0x63, 0x58, 0xD1, 0xA2, 0x25, 0x22, 0x7C, 0x3B, 0x01, 0x21, 0x78, 0x87,
    0xD4, 0x00, 0x46, 0x57, 0x9F, 0xD3, 0x27, 0x52, 0x4C, 0x36, 0x02, 0xE7, 0xA0, 0xC4, 0xC8, 0x9E,
    0xEA, 0xBF, 0x8A, 0xD2, 0x40, 0xC7, 0x38, 0xB5, 0xA3, 0xF7, 0xF2, 0xCE, 0xF9, 0x61, 0x15, 0xA1,
    0xE0, 0xAE, 0x5D, 0xA4, 0x9B, 0x34, 0x1A, 0x55, 0xAD, 0x93, 0x32, 0x30, 0xF5, 0x8C, 0xB1, 0xE3,
    0x1D, 0xF6, 0xE2, 0x2E, 0x82, 0x66, 0xCA, 0x60, 0xC0, 0x29, 0x23, 0xAB, 0x0D, 0x53, 0x4E, 0x6F,
    0xD5, 0xDB, 0x37, 0x45, 0xDE, 0xFD, 0x8E, 0x2F, 0x03, 0xFF, 0x6A, 0x72, 0x6D, 0x6C, 0x5B, 0x51,
    0x8D, 0x1B, 0xAF, 0x92, 0xBB, 0xDD, 0xBC, 0x7F, 0x11, 0xD9, 0x5C, 0x41, 0x1F, 0x10, 0x5A, 0xD8,
    0x0A, 0xC1, 0x31, 0x88, 0xA5, 0xCD, 0x7B, 0xBD, 0x2D, 0x74, 0xD0, 0x12, 0xB8, 0xE5, 0xB4, 0xB0,
    0x89, 0x69, 0x97, 0x4A, 0x0C, 0x96, 0x77, 0x7E, 0x65, 0xB9, 0xF1, 0x09, 0xC5, 0x6E, 0xC6, 0x84,
    0x18, 0xF0, 0x7D, 0xEC, 0x3A, 0xDC, 0x4D, 0x20, 0x79, 0xEE, 0x5F, 0x3E, 0xD7, 0xCB, 0x39, 0x48,
};

constexpr uint32_t kFk[4] = {0xA3B1BAC6, 0x56AA3350, 0x677D9197, 0xB27022DC};

// Key-schedule constant i: byte j (most significant first) is (4i + j) * 7
// modulo 256.
constexpr uint32_t Ck(int i) {
  uint32_t word = 0;
  for (int j = 0; j < 4; ++j) {
    word = (word << 8) | static_cast<uint8_t>((4 * i + j) * 7);
  }
  return word;
}

using RoundKeys = uint32_t[kRounds];

// The S-box applied to each byte of a word.
inline uint32_t Tau(uint32_t a) {
  return (static_cast<uint32_t>(kSbox[a >> 24]) << 24) |
         (static_cast<uint32_t>(kSbox[(a >> 16) & 0xFF]) << 16) |
         (static_cast<uint32_t>(kSbox[(a >> 8) & 0xFF]) << 8) | kSbox[a & 0xFF];
}

// Mixing of the rounds.
inline uint32_t RoundT(uint32_t x) {
  uint32_t b = Tau(x);
  return b ^ std::rotl(b, 2) ^ std::rotl(b, 10) ^ std::rotl(b, 18) ^ std::rotl(b, 24);
}

// Mixing of the key schedule.
inline uint32_t KeyT(uint32_t x) {
  uint32_t b = Tau(x);
  return b ^ std::rotl(b, 13) ^ std::rotl(b, 23);
}

void ExpandKey(const uint8_t key[16], RoundKeys rk) {
  uint32_t k[4];
  for (int i = 0; i < 4; ++i) {
    k[i] = LoadBigEndian32(key + 4 * i) ^ kFk[i];
  }
  for (int i = 0; i < kRounds; ++i) {
    uint32_t next = k[0] ^ KeyT(k[1] ^ k[2] ^ k[3] ^ Ck(i));
    rk[i] = next;
    k[0] = k[1];
    k[1] = k[2];
    k[2] = k[3];
    k[3] = next;
  }
}

// Encryption when `reverse` is false, decryption (round keys taken last to
// first) when it is true. `in` and `out` may be the same buffer.
void CryptBlock(const RoundKeys rk, bool reverse, const uint8_t in[16], uint8_t out[16]) {
  uint32_t x[4];
  for (int i = 0; i < 4; ++i) {
    x[i] = LoadBigEndian32(in + 4 * i);
  }
  for (int i = 0; i < kRounds; ++i) {
    uint32_t key = rk[reverse ? kRounds - 1 - i : i];
    uint32_t next = x[0] ^ RoundT(x[1] ^ x[2] ^ x[3] ^ key);
    x[0] = x[1];
    x[1] = x[2];
    x[2] = x[3];
    x[3] = next;
  }
  // The output is the last four words in reverse order.
  for (int i = 0; i < 4; ++i) {
    StoreBigEndian32(out + 4 * i, x[3 - i]);
  }
}

}  // namespace

void Sm4EncryptBlock(const uint8_t key[16], const uint8_t in[16], uint8_t out[16]) {
  RoundKeys rk;
  ExpandKey(key, rk);
  CryptBlock(rk, false, in, out);
}

void Sm4DecryptBlock(const uint8_t key[16], const uint8_t in[16], uint8_t out[16]) {
  RoundKeys rk;
  ExpandKey(key, rk);
  CryptBlock(rk, true, in, out);
}

std::string Sm4CbcEncrypt(const std::string& plaintext, const uint8_t key[16],
                          const uint8_t iv[16]) {
  RoundKeys rk;
  ExpandKey(key, rk);

  // A length already on a block boundary still gains a whole block, so the
  // last byte of every padded plaintext says how much to strip.
  size_t pad = kSm4BlockSize - plaintext.size() % kSm4BlockSize;
  std::string out = plaintext;
  out.append(pad, static_cast<char>(pad));

  auto* p = reinterpret_cast<uint8_t*>(out.data());
  const uint8_t* chain = iv;
  for (size_t off = 0; off < out.size(); off += kSm4BlockSize) {
    uint8_t* block = p + off;
    for (size_t i = 0; i < kSm4BlockSize; ++i) {
      block[i] ^= chain[i];
    }
    CryptBlock(rk, false, block, block);
    chain = block;
  }
  return out;
}

Status Sm4CbcDecrypt(const std::string& ciphertext, const uint8_t key[16], const uint8_t iv[16],
                     std::string* plaintext) {
  if (ciphertext.empty() || ciphertext.size() % kSm4BlockSize != 0) {
    return Status::InvalidArgument("sm4: ciphertext not block-aligned");
  }
  RoundKeys rk;
  ExpandKey(key, rk);

  std::string out(ciphertext.size(), '\0');
  const auto* in = reinterpret_cast<const uint8_t*>(ciphertext.data());
  auto* p = reinterpret_cast<uint8_t*>(out.data());
  const uint8_t* chain = iv;
  for (size_t off = 0; off < out.size(); off += kSm4BlockSize) {
    CryptBlock(rk, true, in + off, p + off);
    for (size_t i = 0; i < kSm4BlockSize; ++i) {
      p[off + i] ^= chain[i];
    }
    chain = in + off;
  }

  size_t pad = p[out.size() - 1];
  if (pad == 0 || pad > kSm4BlockSize || pad > out.size()) {
    return Status::InvalidArgument("sm4: bad padding");
  }
  for (size_t i = out.size() - pad; i < out.size(); ++i) {
    if (p[i] != pad) {
      return Status::InvalidArgument("sm4: bad padding");
    }
  }
  // erase, not resize: GCC 12 at -O3 cannot tell that resize only shrinks
  // here and reports an overlapping copy (-Wrestrict).
  out.erase(out.size() - pad);
  *plaintext = std::move(out);
  return Status::OK();
}

}  // namespace kandb::crypto
