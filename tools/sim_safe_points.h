#ifndef KANDB_TOOLS_SIM_SAFE_POINTS_H_
#define KANDB_TOOLS_SIM_SAFE_POINTS_H_

// Simulated services that hold the GC safe point back (GC workers, backups,
// change feeds), for the cluster simulator: each moves its safe point
// forward at its own pace through "Pd.UpdateServiceSafePoint", one of them
// falls silent for a while so that its entry expires, and every tick reads
// "Pd.GetGcSafePoint" and checks what the server promises: the GC safe
// point never moves backwards, and never stands above the safe point of a
// service the server lists as live.
//
// Safe points are timestamps (physical ms << 18) that trail the caller's
// clock: service i (of n) advances (i + 1) / n ms of physical time per ms,
// from `lag_ms` behind the clock at the first tick, so service 0 is the
// slowest and holds the GC safe point while it is live. A service refused
// below the GC safe point retries at once at the GC safe point it was
// answered, as a real client would, and holds it from there.
//
// The server is reached through a call function, so that tests can answer
// in process; over the network it wraps an RpcClient:
//   [&client](const std::string& m, const std::string& req, std::string* resp) {
//     return client.CallRaw(m, req, resp);
//   }
// Used from the caller's thread only; nothing in it is shared.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/status.h"

namespace kandb::tools::sim {

// Sends one request (encoded) to `method` and fills *response (encoded).
using RawCall = std::function<Status(const std::string& method, const std::string& request, std::string* response)>;

struct SafePointOptions {
  uint64_t services = 3;
  std::string id_prefix = "sim-gc-";  // service i is id_prefix + i
  uint64_t ttl_s = 10;
  int64_t update_interval_ms = 1000;  // between one service's updates
  int64_t lag_ms = 60000;             // how far behind the clock safe points start
  // Service `silent` stops updating from silent_from_ms to silent_until_ms
  // after the first tick (long enough past ttl_s, its entry expires);
  // silent_from_ms < 0: nobody falls silent.
  uint64_t silent = 0;
  int64_t silent_from_ms = 5000;
  int64_t silent_until_ms = 30000;
};

// The figures of a run. went_backwards and above_live_service must stay 0.
struct SafePointFigures {
  uint64_t updates = 0;         // update calls answered
  uint64_t refused = 0;         // of them, refused
  uint64_t reads = 0;           // GetGcSafePoint calls answered
  uint64_t failed_calls = 0;    // calls that failed or whose answer did not decode
  uint64_t gc_safe_point = 0;   // the highest GC safe point seen
  uint64_t gc_advances = 0;     // answers that raised it
  uint64_t went_backwards = 0;  // answers (of either method) below one seen before
  uint64_t above_live_service = 0;  // reads whose GC safe point passed a listed service's
  bool operator==(const SafePointFigures&) const = default;
};

class SafePointLoad {
 public:
  SafePointLoad(SafePointOptions options, RawCall call);
  SafePointLoad(const SafePointLoad&) = delete;
  SafePointLoad& operator=(const SafePointLoad&) = delete;

  // At `now_ms` (the caller's clock, non-decreasing): every service due
  // (not silent, its interval passed) sends its update, then one read of
  // the GC safe point. Failed calls are counted, not returned: the run
  // goes on, as services would.
  void Tick(int64_t now_ms);

  const SafePointFigures& figures() const { return figures_; }
  // One line: "safe points: 120 updates (3 refused), 40 reads, gc safe
  // point 449... (2024-...), advanced 35 times, 0 backwards, 0 above a
  // live service, 0 failed calls".
  std::string Summary() const;

 private:
  struct Service {
    std::string id;
    uint64_t safe_point = 0;
    int64_t next_update_ms = 0;
  };

  // The safe point service `index` would hold at `now_ms` by its pace.
  uint64_t PacedSafePoint(size_t index, int64_t now_ms) const;
  void UpdateService(size_t index, int64_t now_ms);
  void ReadGcSafePoint();
  // Counts an answered GC safe point against the highest seen.
  void SeeGcSafePoint(uint64_t gc_safe_point);

  const SafePointOptions options_;
  const RawCall call_;
  int64_t start_ms_ = -1;  // the first tick's clock; -1 before it
  std::vector<Service> services_;
  SafePointFigures figures_;
};

}  // namespace kandb::tools::sim

#endif  // KANDB_TOOLS_SIM_SAFE_POINTS_H_
