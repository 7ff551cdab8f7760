#include "tools/latency.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace kandb::tools {

int LatencyHistogram::BucketOf(uint64_t nanos) {
  constexpr uint64_t kSub = uint64_t{1} << kSubBits;
  if (nanos < kSub) return static_cast<int>(nanos);
  // Values in [2^e, 2^(e+1)) share one group of 64 buckets, each 2^(e-6) wide.
  const int exponent = 63 - std::countl_zero(nanos);
  const int shift = exponent - kSubBits;
  const uint64_t sub = (nanos >> shift) - kSub;
  return ((shift + 1) << kSubBits) + static_cast<int>(sub);
}

uint64_t LatencyHistogram::BucketUpperBound(int bucket) {
  constexpr uint64_t kSub = uint64_t{1} << kSubBits;
  if (bucket < static_cast<int>(kSub)) return static_cast<uint64_t>(bucket);
  const int shift = (bucket >> kSubBits) - 1;
  const uint64_t sub = static_cast<uint64_t>(bucket & (kSub - 1)) + kSub;
  // The last value of the bucket: its start plus its width minus one.
  return (sub << shift) + ((uint64_t{1} << shift) - 1);
}

void LatencyHistogram::Record(uint64_t nanos) {
  buckets_[static_cast<size_t>(BucketOf(nanos))]++;
  count_++;
  max_ = std::max(max_, nanos);
}

void LatencyHistogram::Merge(const LatencyHistogram& other) {
  for (size_t i = 0; i < buckets_.size(); ++i) buckets_[i] += other.buckets_[i];
  count_ += other.count_;
  max_ = std::max(max_, other.max_);
}

uint64_t LatencyHistogram::Percentile(double fraction) const {
  if (count_ == 0) return 0;
  const double wanted = std::ceil(fraction * static_cast<double>(count_));
  const uint64_t rank = std::max<uint64_t>(1, static_cast<uint64_t>(wanted));
  uint64_t seen = 0;
  for (size_t i = 0; i < buckets_.size(); ++i) {
    seen += buckets_[i];
    if (seen >= rank) return std::min(BucketUpperBound(static_cast<int>(i)), max_);
  }
  return max_;
}

}  // namespace kandb::tools
