#ifndef KANDB_TOOLS_LATENCY_H_
#define KANDB_TOOLS_LATENCY_H_

// A latency histogram of bounded size for the load generator: each
// connection records into its own, and the report merges them. Buckets are
// log-linear (64 per power of two), so a percentile is exact below 64 ns
// and within 1/64 (1.6%) above; the maximum is kept exactly.

#include <array>
#include <cstdint>

namespace kandb::tools {

class LatencyHistogram {
 public:
  void Record(uint64_t nanos);
  void Merge(const LatencyHistogram& other);

  uint64_t count() const { return count_; }
  uint64_t max() const { return max_; }
  // The smallest recorded-bucket value v such that at least `fraction` of
  // the samples are <= v (the upper end of that bucket, capped at the
  // maximum). 0 when empty.
  uint64_t Percentile(double fraction) const;

 private:
  static constexpr int kSubBits = 6;  // 64 buckets per power of two
  static constexpr int kBuckets = (64 - kSubBits + 1) << kSubBits;

  static int BucketOf(uint64_t nanos);
  static uint64_t BucketUpperBound(int bucket);

  std::array<uint64_t, kBuckets> buckets_{};
  uint64_t count_ = 0;
  uint64_t max_ = 0;
};

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_LATENCY_H_
