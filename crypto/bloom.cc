#include "crypto/bloom.h"

#include <algorithm>
#include <utility>

#include "common/coding.h"

namespace kandb::crypto {
namespace {

constexpr uint64_t kFnvPrime = 0x100000001B3ull;
// h1 starts from the published FNV-1a offset basis; h2 from a second basis,
// so that the two hashes of one key are unrelated enough for double hashing.
constexpr uint64_t kFnvBasis1 = 0xCBF29CE484222325ull;
constexpr uint64_t kFnvBasis2 = 0x55C5E55DFB685F30ull;

// Serialised header: num_bits (u32 LE) then num_probes (u8).
constexpr size_t kHeaderSize = 5;

struct KeyHashes {
  uint64_t h1;
  uint64_t h2;
};

KeyHashes HashKey(const char* key, size_t n) {
  uint64_t h1 = kFnvBasis1;
  uint64_t h2 = kFnvBasis2;
  for (size_t i = 0; i < n; ++i) {
    uint64_t byte = static_cast<uint8_t>(key[i]);
    h1 = (h1 ^ byte) * kFnvPrime;
    h2 = (h2 ^ byte) * kFnvPrime;
  }
  return {h1, h2};
}

// Probe i of a key; the sum wraps modulo 2^64 before the remainder.
inline uint32_t ProbeBit(const KeyHashes& h, uint32_t i, uint32_t num_bits) {
  return static_cast<uint32_t>((h.h1 + static_cast<uint64_t>(i) * h.h2) % num_bits);
}

}  // namespace

BloomFilter::BloomFilter(size_t num_keys, int bits_per_key) {
  // A non-positive density builds the minimum-size filter rather than
  // wrapping the product into an enormous allocation.
  size_t per_key = bits_per_key > 0 ? static_cast<size_t>(bits_per_key) : 0;
  size_t bits = std::max<size_t>(per_key * num_keys, 64);
  bits_.assign((bits + 7) / 8, 0);
  num_probes_ = std::clamp(static_cast<int>(bits_per_key * 0.69), 1, 30);
}

void BloomFilter::Add(const char* key, size_t n) {
  // The modulus is the serialised num_bits, so readers probe the same bits.
  auto num_bits = static_cast<uint32_t>(bits_.size() * 8);
  if (num_bits == 0) {
    // Only an array of 2^29 bytes or more wraps to zero; its serialised form
    // fails the view's length check and admits every key anyway.
    return;
  }
  KeyHashes h = HashKey(key, n);
  for (int i = 0; i < num_probes_; ++i) {
    uint32_t bit = ProbeBit(h, static_cast<uint32_t>(i), num_bits);
    bits_[bit / 8] |= static_cast<uint8_t>(1u << (bit % 8));
  }
}

std::string BloomFilter::Serialize() const {
  std::string out;
  out.reserve(kHeaderSize + bits_.size());
  PutFixed32(&out, static_cast<uint32_t>(bits_.size() * 8));
  out.push_back(static_cast<char>(num_probes_));
  out.append(reinterpret_cast<const char*>(bits_.data()), bits_.size());
  return out;
}

BloomFilterView::BloomFilterView(std::string serialised) : data_(std::move(serialised)) {
  if (data_.size() <= 4) {
    return;  // no header: num_bits stays 0, every key may be present
  }
  num_bits_ = DecodeFixed32(data_.data());
  num_probes_ = static_cast<uint8_t>(data_[4]);
  if ((static_cast<uint64_t>(num_bits_) + 7) / 8 + kHeaderSize != data_.size()) {
    num_bits_ = 0;
  }
}

bool BloomFilterView::MayContain(const char* key, size_t n) const {
  if (num_bits_ == 0 || num_probes_ < 1) {
    return true;  // a missing or malformed filter never excludes a key
  }
  const auto* bits = reinterpret_cast<const uint8_t*>(data_.data() + kHeaderSize);
  KeyHashes h = HashKey(key, n);
  for (uint32_t i = 0; i < num_probes_; ++i) {
    uint32_t bit = ProbeBit(h, i, num_bits_);
    if ((bits[bit / 8] & (1u << (bit % 8))) == 0) {
      return false;
    }
  }
  return true;
}

}  // namespace kandb::crypto
