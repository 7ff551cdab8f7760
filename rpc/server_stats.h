#ifndef KANDB_RPC_SERVER_STATS_H_
#define KANDB_RPC_SERVER_STATS_H_

// What RpcServer counts: per method the calls, the failures by Status code
// and the latency, the requests for unknown methods, and the connections.
//
// The request path counts without sharing a cache line with another thread:
// each event loop owns a CallCounters that only the loop's thread writes,
// for every call of every connection it served, open or closed. A
// statistics call sums the loops' counters with the server-wide ones (the
// accept thread's), so a call is counted once, whether or not its
// connection is still open, and an idle connection carries no counters.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "common/latency_histogram.h"

namespace kandb::kanrpc {

// Failures are counted by Status code: slot c for code c (1 to 4), the
// last slot for every higher code. Slot 0 (OK) stays 0.
inline constexpr size_t kErrorCodeSlots = 6;
inline size_t ErrorCodeSlot(uint32_t code) { return code < kErrorCodeSlots ? code : kErrorCodeSlots - 1; }

struct MethodStats {
  std::string method;
  uint64_t requests = 0;
  std::array<uint64_t, kErrorCodeSlots> errors{};
  // From the moment the request frame was read to the moment its answer
  // was handed to the socket.
  LatencyHistogram latency;
};

struct ServerStats {
  uint64_t uptime_ms = 0;            // since Start
  std::vector<MethodStats> methods;  // in the order they were registered
  uint64_t unknown_method_requests = 0;
  uint64_t open_connections = 0;
  uint64_t accepted_connections = 0;
  // accept() failures, and calls that could not be served for want of a
  // worker thread.
  uint64_t failed_accepts = 0;
  // TLS handshakes that failed or ran past their time.
  uint64_t tls_refused = 0;
};

// One event loop's counters, written by its thread only, read by whoever
// sums them.
class CallCounters {
 public:
  explicit CallCounters(size_t methods) : methods_(methods) {}
  CallCounters(const CallCounters&) = delete;
  CallCounters& operator=(const CallCounters&) = delete;

  // A call of method number `method` (its registration index) that ended
  // with status code `code`.
  void CountCall(size_t method, uint32_t code) {
    if (method >= methods_.size()) return;
    methods_[method].requests.Add(1);
    if (code != 0) methods_[method].errors[ErrorCodeSlot(code)].Add(1);
  }
  void CountLatency(size_t method, uint64_t nanos) {
    if (method < methods_.size()) methods_[method].latency.Add(nanos);
  }
  void CountUnknownMethod() { unknown_method_.Add(1); }

  // Adds these counters to *out, whose methods are indexed as here.
  void AddTo(ServerStats* out) const {
    for (size_t i = 0; i < methods_.size() && i < out->methods.size(); ++i) {
      MethodStats& sum = out->methods[i];
      sum.requests += methods_[i].requests.Load();
      for (size_t c = 0; c < kErrorCodeSlots; ++c) sum.errors[c] += methods_[i].errors[c].Load();
      methods_[i].latency.AddTo(&sum.latency);
    }
    out->unknown_method_requests += unknown_method_.Load();
  }

 private:
  // A line of its own per method: another loop's counters never share it.
  struct alignas(64) Method {
    OwnedCounter requests;
    std::array<OwnedCounter, kErrorCodeSlots> errors;
    LatencyRecorder latency;
  };
  std::vector<Method> methods_;
  alignas(64) OwnedCounter unknown_method_;
};

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_SERVER_STATS_H_
