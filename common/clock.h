#ifndef KANDB_COMMON_CLOCK_H_
#define KANDB_COMMON_CLOCK_H_

// The monotonic clock as plain nanoseconds, for deadlines and intervals
// kept in atomics and compared across threads of one process. Never
// compared across processes or machines: only its differences mean
// anything.

#include <chrono>
#include <cstdint>

namespace kandb {

inline int64_t SteadyNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace kandb

#endif  // KANDB_COMMON_CLOCK_H_
