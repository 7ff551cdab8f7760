#ifndef KANDB_COMMON_STRIPED_COUNTER_H_
#define KANDB_COMMON_STRIPED_COUNTER_H_

// StripedCounter: an event counter that many threads increment at once
// without sharing a cache line. Each thread adds to a stripe of its own
// (threads are dealt stripes in turn as they first count, so any kStripes
// threads that began counting one after another never share one); reading
// sums the stripes. Meant for counters on the request path, which every connection
// thread passes, read once in a while by a statistics call.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kandb {

class StripedCounter {
 public:
  static constexpr size_t kStripes = 32;

  void Increment() { stripes_[ThreadStripe()].value.fetch_add(1, std::memory_order_relaxed); }

  // The sum of every increment made before the call, and perhaps of some
  // made during it.
  uint64_t Load() const {
    uint64_t sum = 0;
    for (const Stripe& stripe : stripes_) sum += stripe.value.load(std::memory_order_relaxed);
    return sum;
  }

 private:
  struct alignas(64) Stripe {
    std::atomic<uint64_t> value{0};
  };

  static size_t ThreadStripe() {
    static std::atomic<size_t> next{0};
    thread_local const size_t stripe = next.fetch_add(1, std::memory_order_relaxed) % kStripes;
    return stripe;
  }

  std::array<Stripe, kStripes> stripes_;
};

}  // namespace kandb

#endif  // KANDB_COMMON_STRIPED_COUNTER_H_
