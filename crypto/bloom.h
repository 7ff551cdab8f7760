#ifndef KANDB_CRYPTO_BLOOM_H_
#define KANDB_CRYPTO_BLOOM_H_

// The Bloom filter carried by table files, probing with two FNV-1a 64-bit
// hashes. Serialised form: num_bits (u32), num_probes (u8), the bit array.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kandb::crypto {

class BloomFilter {
 public:
  // bits = max(bits_per_key * num_keys, 64), rounded up to whole bytes;
  // probes = bits_per_key * 0.69, clamped to [1, 30].
  BloomFilter(size_t num_keys, int bits_per_key);
  void Add(const char* key, size_t n);
  void Add(const std::string& key) { Add(key.data(), key.size()); }
  std::string Serialize() const;
  int num_probes() const { return num_probes_; }

 private:
  std::vector<uint8_t> bits_;
  int num_probes_;
};

// Read side. Owns the serialised string it was built from. A malformed or
// missing filter admits every key.
class BloomFilterView {
 public:
  BloomFilterView() = default;
  explicit BloomFilterView(std::string serialised);
  bool MayContain(const char* key, size_t n) const;
  bool MayContain(const std::string& key) const { return MayContain(key.data(), key.size()); }
  uint32_t num_bits() const { return num_bits_; }
  size_t MemoryUsage() const { return data_.capacity(); }

 private:
  std::string data_;
  uint32_t num_bits_ = 0;
  uint32_t num_probes_ = 0;
};

}  // namespace kandb::crypto

#endif  // KANDB_CRYPTO_BLOOM_H_
