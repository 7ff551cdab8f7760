#include "crypto/sm4.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

namespace kandb::crypto {
namespace {

constexpr uint8_t kVectorKey[16] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                    0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};
constexpr uint8_t kIv[16] = {0xf0, 0xe1, 0xd2, 0xc3, 0xb4, 0xa5, 0x96, 0x87,
                             0x78, 0x69, 0x5a, 0x4b, 0x3c, 0x2d, 0x1e, 0x0f};

std::string HexOf(const uint8_t* p, size_t n) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s.push_back(kDigits[p[i] >> 4]);
    s.push_back(kDigits[p[i] & 15]);
  }
  return s;
}

// CBC without any padding, built from the block function, so that tests can
// choose exactly what the final decrypted block holds.
std::string CbcEncryptRaw(const std::string& blocks, const uint8_t key[16], const uint8_t iv[16]) {
  std::string out(blocks.size(), '\0');
  auto* o = reinterpret_cast<uint8_t*>(out.data());
  const uint8_t* chain = iv;
  for (size_t off = 0; off < blocks.size(); off += kSm4BlockSize) {
    uint8_t x[16];
    for (size_t i = 0; i < 16; ++i) {
      x[i] = static_cast<uint8_t>(blocks[off + i] ^ chain[i]);
    }
    Sm4EncryptBlock(key, x, o + off);
    chain = o + off;
  }
  return out;
}

TEST(Sm4Test, PublishedBlockVector) {
  uint8_t out[16];
  Sm4EncryptBlock(kVectorKey, kVectorKey, out);
  EXPECT_EQ(HexOf(out, 16), "681edf34d206965e86b3e94f536e4246");
  uint8_t back[16];
  Sm4DecryptBlock(kVectorKey, out, back);
  EXPECT_EQ(HexOf(back, 16), "0123456789abcdeffedcba9876543210");
}

// A million encryptions chained through one buffer (also checks that the
// block functions accept the same buffer for input and output).
TEST(Sm4Test, PublishedMillionIterationVector) {
  uint8_t block[16];
  std::memcpy(block, kVectorKey, 16);
  for (int i = 0; i < 1000000; ++i) {
    Sm4EncryptBlock(kVectorKey, block, block);
  }
  EXPECT_EQ(HexOf(block, 16), "595298c7c6fd271f0402f804c33d3f66");
}

TEST(Sm4Test, CbcRoundTripsEveryLength) {
  for (size_t len = 0; len <= 40; ++len) {
    std::string plain;
    for (size_t i = 0; i < len; ++i) {
      plain.push_back(static_cast<char>(i * 13 + 5));
    }
    std::string cipher = Sm4CbcEncrypt(plain, kVectorKey, kIv);
    // Always between 1 and 16 bytes of padding; the IV is not prepended.
    ASSERT_EQ(cipher.size(), (len / 16 + 1) * 16) << len;
    std::string back = "sentinel";
    ASSERT_TRUE(Sm4CbcDecrypt(cipher, kVectorKey, kIv, &back).ok()) << len;
    EXPECT_EQ(back, plain) << len;
  }
}

// The layout others store: CBC chaining from the IV, then n bytes of value n.
TEST(Sm4Test, CbcLayoutMatchesBlockFunctions) {
  std::string empty_cipher = Sm4CbcEncrypt("", kVectorKey, kIv);
  EXPECT_EQ(empty_cipher, CbcEncryptRaw(std::string(16, '\x10'), kVectorKey, kIv));

  std::string plain = "seventeen bytes!!";
  std::string padded = plain + std::string(15, '\x0f');
  EXPECT_EQ(Sm4CbcEncrypt(plain, kVectorKey, kIv), CbcEncryptRaw(padded, kVectorKey, kIv));

  std::string block = "exactly 16 bytes";
  EXPECT_EQ(Sm4CbcEncrypt(block, kVectorKey, kIv),
            CbcEncryptRaw(block + std::string(16, '\x10'), kVectorKey, kIv));
}

TEST(Sm4Test, DecryptRejectsUnalignedCiphertext) {
  std::string good = Sm4CbcEncrypt("0123456789", kVectorKey, kIv);
  for (const std::string& bad : {std::string(), std::string(1, 'x'), std::string(15, 'x'),
                                 std::string(17, 'x'), good + "x", good.substr(0, 15)}) {
    std::string out = "untouched";
    Status s = Sm4CbcDecrypt(bad, kVectorKey, kIv, &out);
    EXPECT_EQ(s.code(), Status::kInvalidArgument) << bad.size();
    EXPECT_EQ(s.message(), "sm4: ciphertext not block-aligned") << bad.size();
    EXPECT_EQ(out, "untouched");
  }
}

// Each final block is encrypted raw, so the decrypted padding is exactly what
// the case says and each check of the padding is reached on its own.
TEST(Sm4Test, DecryptRejectsBadPadding) {
  auto final_block = [](int last, int fill) {
    std::string b(16, static_cast<char>(fill));
    b[15] = static_cast<char>(last);
    return b;
  };
  std::string two_bytes_disagree = final_block(3, 'A');
  two_bytes_disagree[14] = 3;  // [13] is still 'A'
  std::string fifteen_of_sixteen = final_block(16, 16);
  fifteen_of_sixteen[0] = 15;  // the farthest padding byte differs

  const std::pair<const char*, std::string> cases[] = {
      {"last byte zero", final_block(0, 0)},
      {"last byte seventeen", final_block(17, 17)},
      {"last byte 0xff", final_block(0xff, 0xff)},
      {"second byte differs", final_block(2, 'A')},
      {"third byte differs", two_bytes_disagree},
      {"first of sixteen differs", fifteen_of_sixteen},
  };
  for (const auto& [name, block] : cases) {
    SCOPED_TRACE(name);
    for (const std::string& prefix : {std::string(), std::string(32, 'p')}) {
      std::string cipher = CbcEncryptRaw(prefix + block, kVectorKey, kIv);
      std::string out = "untouched";
      Status s = Sm4CbcDecrypt(cipher, kVectorKey, kIv, &out);
      EXPECT_EQ(s.code(), Status::kInvalidArgument);
      EXPECT_EQ(s.message(), "sm4: bad padding");
      EXPECT_EQ(out, "untouched");
    }
  }

  // The same construction with valid padding decrypts, so the cases above
  // fail for their padding and not for the construction.
  std::string out;
  ASSERT_TRUE(Sm4CbcDecrypt(CbcEncryptRaw(final_block(16, 16), kVectorKey, kIv), kVectorKey, kIv,
                            &out)
                  .ok());
  EXPECT_EQ(out, "");
  ASSERT_TRUE(
      Sm4CbcDecrypt(CbcEncryptRaw(final_block(1, 'z'), kVectorKey, kIv), kVectorKey, kIv, &out)
          .ok());
  EXPECT_EQ(out, std::string(15, 'z'));
}

}  // namespace
}  // namespace kandb::crypto
