#ifndef KANDB_RPC_SERVER_SHARED_H_
#define KANDB_RPC_SERVER_SHARED_H_

// What the parts of RpcServer share: the method table, the loops and the
// worker pool, and the counters that Stats reads.

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/thread_annotations.h"
#include "rpc/server.h"
#include "rpc/server_stats.h"
#include "rpc/tls.h"

namespace kandb::kanrpc {

using Clock = std::chrono::steady_clock;

enum class Kind { kUnknown, kBlocking, kInline, kTryInline, kAsync };

struct RpcServer::Shared {
  struct Method {
    Kind kind = Kind::kUnknown;
    RawHandler handler;        // kBlocking, kInline, kTryInline (when the attempt declines)
    RawAttempt attempt;        // kTryInline
    AsyncRawHandler async;     // kAsync
    size_t index = 0;          // registration order: where its counters are kept
  };
  // Written only before Start, read without locking afterwards: the thread
  // starts in Start order every registration before every lookup.
  std::map<std::string, Method, std::less<>> methods;
  // Set before Start, read-only afterwards.
  std::function<void()> pass_hook;
  // Set before Start, when connections speak TLS; the pointer is read-only
  // afterwards (the context guards its own reloads). Declared before the
  // loops, so that it outlives the sessions they free.
  std::shared_ptr<TlsServerContext> tls;
  int handshake_timeout_ms = RpcServer::kHandshakeTimeoutMs;  // as tls
  int write_timeout_ms = RpcServer::kWriteTimeoutMs;          // as tls
  int send_buffer_bytes = 0;                                  // as tls
  // Written by Start before any thread exists, read-only after.
  Clock::time_point started;
  // False until the first Stop.
  std::atomic<bool> stopping{false};
  // Created by Start before the accept thread, destroyed with Shared; the
  // loops are joined by Stop.
  std::vector<std::unique_ptr<Loop>> loops;
  std::unique_ptr<Workers> workers;
  // Connections adopted by a loop and not yet closed; each loop adds and
  // subtracts its own, Stats reads the sum.
  std::atomic<uint64_t> open_connections{0};
  // Guards the members below; never held while a handler runs.
  Mutex mu;
  // One per loop, in the loops' order, made by Start before the loops run;
  // each loop's thread alone writes its counters (see CallCounters), Stats
  // reads them all.
  std::vector<std::unique_ptr<CallCounters>> loop_counters GUARDED_BY(mu);
  // The counters kept outside the loops: accepts, refused handshakes, calls
  // that found no worker thread; with the method names, set by Start.
  ServerStats ended GUARDED_BY(mu);
};

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_SERVER_SHARED_H_
