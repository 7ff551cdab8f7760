#include "crypto/sm4.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>

namespace kandb::crypto {
namespace {

constexpr uint8_t kKey[16] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                              0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};
constexpr uint8_t kIv[16] = {0xf0, 0xe1, 0xd2, 0xc3, 0xb4, 0xa5, 0x96, 0x87,
                             0x78, 0x69, 0x5a, 0x4b, 0x3c, 0x2d, 0x1e, 0x0f};

std::string Hex(const uint8_t* p) {
  std::string s;
  for (int i = 0; i < 16; ++i) {
    s.push_back("0123456789abcdef"[p[i] >> 4]);
    s.push_back("0123456789abcdef"[p[i] & 15]);
  }
  return s;
}

// CBC without padding, from the block function: tests choose the final block.
std::string CbcRaw(const std::string& blocks) {
  std::string out(blocks.size(), '\0');
  auto* o = reinterpret_cast<uint8_t*>(out.data());
  const uint8_t* chain = kIv;
  for (size_t off = 0; off < blocks.size(); off += kSm4BlockSize) {
    uint8_t x[16];
    for (size_t i = 0; i < 16; ++i) x[i] = static_cast<uint8_t>(blocks[off + i] ^ chain[i]);
    Sm4EncryptBlock(kKey, x, o + off);
    chain = o + off;
  }
  return out;
}

TEST(Sm4Test, PublishedVectors) {
  uint8_t block[16], back[16];
  Sm4EncryptBlock(kKey, kKey, block);
  EXPECT_EQ(Hex(block), "681edf34d206965e86b3e94f536e4246");
  Sm4DecryptBlock(kKey, block, back);
  EXPECT_EQ(Hex(back), "0123456789abcdeffedcba9876543210");
  std::memcpy(block, kKey, 16);
  for (int i = 0; i < 1000000; ++i) Sm4EncryptBlock(kKey, block, block);  // in place
  EXPECT_EQ(Hex(block), "595298c7c6fd271f0402f804c33d3f66");
}

TEST(Sm4Test, CbcRoundTripsAndPadsWithTheCount) {
  for (size_t len = 0; len <= 40; ++len) {
    std::string plain;
    for (size_t i = 0; i < len; ++i) plain.push_back(static_cast<char>(i * 13 + 5));
    const std::string cipher = Sm4CbcEncrypt(plain, kKey, kIv);
    const size_t pad = 16 - len % 16;
    ASSERT_EQ(cipher, CbcRaw(plain + std::string(pad, static_cast<char>(pad)))) << len;
    std::string back = "sentinel";
    ASSERT_TRUE(Sm4CbcDecrypt(cipher, kKey, kIv, &back).ok()) << len;
    EXPECT_EQ(back, plain);
  }
}

TEST(Sm4Test, DecryptFailures) {
  auto final_block = [](int last, int fill) {
    std::string b(16, static_cast<char>(fill));
    b[15] = static_cast<char>(last);
    return b;
  };
  std::string third_differs = final_block(3, 'A');
  third_differs[14] = 3;
  std::string first_of_16_differs = final_block(16, 16);
  first_of_16_differs[0] = 15;
  const std::string good = Sm4CbcEncrypt("0123456789", kKey, kIv);
  const std::pair<std::string, const char*> cases[] = {
      {"", "sm4: ciphertext not block-aligned"},
      {good + "x", "sm4: ciphertext not block-aligned"},
      {CbcRaw(final_block(0, 0)), "sm4: bad padding"},
      {CbcRaw(final_block(17, 17)), "sm4: bad padding"},
      {CbcRaw(final_block(2, 'A')), "sm4: bad padding"},
      {CbcRaw(third_differs), "sm4: bad padding"},
      {CbcRaw(std::string(32, 'p') + first_of_16_differs), "sm4: bad padding"},
  };
  for (const auto& [cipher, message] : cases) {
    std::string out = "untouched";
    const Status s = Sm4CbcDecrypt(cipher, kKey, kIv, &out);
    EXPECT_EQ(s.code(), 1u) << cipher.size();
    EXPECT_EQ(s.message(), message);
    EXPECT_EQ(out, "untouched");
  }
  // The same construction with valid padding decrypts.
  std::string out;
  ASSERT_TRUE(Sm4CbcDecrypt(CbcRaw(final_block(1, 'z')), kKey, kIv, &out).ok());
  EXPECT_EQ(out, std::string(15, 'z'));
}

}  // namespace
}  // namespace kandb::crypto
