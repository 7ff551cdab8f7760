#ifndef KANDB_COMMON_LATENCY_HISTOGRAM_H_
#define KANDB_COMMON_LATENCY_HISTOGRAM_H_

// Latency histograms of the live statistics (request latency per method,
// log sync latency). Buckets are log-scaled: bucket i counts the samples of
// at most 2^i microseconds (1 us, 2 us, ... 2^22 us = about 4.2 s), and the
// last bucket every slower one. Beside the buckets: the number of samples
// and their sum in nanoseconds, so that the mean keeps sub-microsecond
// precision.
//
// LatencyHistogram is a plain value, for counters that live under a lock or
// for a snapshot. LatencyRecorder is its counterpart for counters that one
// thread writes while another reads them without a lock: every field is an
// atomic that only its owner thread changes, with a plain load and store
// rather than a locked add, so recording costs what a plain histogram does.

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>

namespace kandb {

// Buckets with an upper bound; one more counts everything above the last.
inline constexpr int kLatencyBoundedBuckets = 23;
inline constexpr int kLatencyBuckets = kLatencyBoundedBuckets + 1;

// The upper bound of bucket `i` (< kLatencyBoundedBuckets), in microseconds.
inline constexpr uint64_t LatencyBucketBoundMicros(int i) { return uint64_t{1} << i; }

// The bucket of a sample of `nanos` nanoseconds: the first whose bound it
// does not exceed, counted in whole microseconds rounded up.
inline int LatencyBucket(uint64_t nanos) {
  const uint64_t micros = (nanos + 999) / 1000;
  if (micros <= 1) return 0;
  const int bucket = std::bit_width(micros - 1);  // smallest i with micros <= 2^i
  return bucket < kLatencyBoundedBuckets ? bucket : kLatencyBoundedBuckets;
}

struct LatencyHistogram {
  std::array<uint64_t, kLatencyBuckets> buckets{};  // not cumulative
  uint64_t count = 0;
  uint64_t sum_nanos = 0;

  void Add(uint64_t nanos) {
    ++buckets[LatencyBucket(nanos)];
    ++count;
    sum_nanos += nanos;
  }
  void Merge(const LatencyHistogram& other) {
    for (int i = 0; i < kLatencyBuckets; ++i) buckets[i] += other.buckets[i];
    count += other.count;
    sum_nanos += other.sum_nanos;
  }
};

// A counter that only its owner thread increments and any thread reads.
class OwnedCounter {
 public:
  void Add(uint64_t n) { value_.store(value_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed); }
  uint64_t Load() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_{0};
};

// A LatencyHistogram written by one owner thread and read by others.
class LatencyRecorder {
 public:
  void Add(uint64_t nanos) {
    buckets_[LatencyBucket(nanos)].Add(1);
    count_.Add(1);
    sum_nanos_.Add(nanos);
  }
  // Adds what was recorded so far to *out. A reader racing the owner may
  // see a sample in the count and not yet in its bucket; the next read
  // agrees again.
  void AddTo(LatencyHistogram* out) const {
    for (int i = 0; i < kLatencyBuckets; ++i) out->buckets[i] += buckets_[i].Load();
    out->count += count_.Load();
    out->sum_nanos += sum_nanos_.Load();
  }

 private:
  std::array<OwnedCounter, kLatencyBuckets> buckets_;
  OwnedCounter count_;
  OwnedCounter sum_nanos_;
};

}  // namespace kandb

#endif  // KANDB_COMMON_LATENCY_HISTOGRAM_H_
