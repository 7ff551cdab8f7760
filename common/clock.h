#ifndef KANDB_COMMON_CLOCK_H_
#define KANDB_COMMON_CLOCK_H_

// The clock that leadership windows are measured with: monotonic, and
// counting the time a suspended machine slept (CLOCK_BOOTTIME), so that a
// leader suspended past its window knows it when it wakes. Plain
// nanoseconds, for deadlines kept in atomics. Only its differences mean
// anything: it is never compared across processes or machines.

#include <time.h>

#include <chrono>
#include <cstdint>

namespace kandb {

inline int64_t SteadyNs() {
  struct timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The wall clock in nanoseconds since the Unix epoch.
inline int64_t WallNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace kandb

#endif  // KANDB_COMMON_CLOCK_H_
