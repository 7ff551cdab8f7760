#ifndef KANDB_RPC_CLIENT_H_
#define KANDB_RPC_CLIENT_H_

// RpcClient: calls methods of an RpcServer over one cached TCP connection,
// with a time-out on every wait and a bounded number of attempts separated by
// growing pauses. RpcClientPool spreads calls over several clients.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "rpc/frame.h"

namespace kandb::kanrpc {

// Splits "host:port" at the last colon; a bracketed host ("[::1]") loses its
// brackets. False when either part is missing.
bool ParseTarget(const std::string& target, std::string* host, std::string* port);
// The servers of a target: one "host:port", or a comma-separated list of a
// replicated cluster's members.
std::vector<std::string> SplitTargets(const std::string& target);

class TlsClientContext;

struct RpcClientOptions {
  // Bounds every single wait of a write or a read, in milliseconds; negative
  // waits without limit. Connecting is not bounded by it.
  int32_t timeout_ms = 5000;
  // How many times a call is tried before its last failure is returned.
  // Zero or less tries once, as 1 does.
  int32_t attempts = 3;
  // When set, every connection is a TLS session made from it (rpc/tls.h);
  // a failed handshake is a transport failure like any other.
  std::shared_ptr<const TlsClientContext> tls = nullptr;
};

class RpcClient {
 public:
  // The pause between attempts: attempt n (1-based) that failed is followed
  // by a pause of 20000 * n microseconds before the next one.
  static constexpr int64_t kPauseStepMicros = 20000;

  // `target` is "host:port"; the host is a name or a numeric address (an
  // IPv6 address in brackets, "[::1]:7000"). Nothing is connected before the
  // first call.
  //
  // `target` may also list several servers of a replicated cluster,
  // "h1:p1,h2:p2,h3:p3", of which one leads. Calls go to one of them at a
  // time; a connection failure, a transport failure or the answer
  // "Unavailable: not leader; no leader yet" moves the next attempt to the
  // next server in the list, and "Unavailable: not leader; leader at
  // HOST:PORT" sends the call straight on to that server (such a redirect
  // uses no attempt and no pause, at most as many times per call as there
  // are servers). With one target nothing of this applies.
  RpcClient(std::string target, RpcClientOptions options);
  ~RpcClient();
  RpcClient(const RpcClient&) = delete;
  RpcClient& operator=(const RpcClient&) = delete;

  // Calls `method` with a raw request payload; on OK *response holds the
  // response payload, on failure it is untouched. Failures:
  //   "cannot connect to " + target (code 2) when no address connects;
  //   the transport failures of the frame layer;
  //   "kanrpc: request id mismatch", "kanrpc: bad frame type" (code 2);
  //   "remote: " + the server's rendered failure (code 2).
  // Every failure drops the connection; the call is retried until the
  // attempts are used up. Calls on one client are serialised: the mutex is
  // held for the whole call, retries and pauses included.
  Status CallRaw(const std::string& method, const std::string& request, std::string* response)
      EXCLUDES(mu_);

  // Encodes `request`, calls, and decodes the response into *response. A
  // response payload that does not decode fails with code 2 "kanrpc: bad
  // response payload" and is not retried (the call itself went through).
  // Req and Resp need `void EncodeTo(const Req&, std::string*)` and
  // `bool Decode(size_t, const char*, Resp*)` beside them, as pdpb messages have.
  template <class Req, class Resp>
  Status Call(const std::string& method, const Req& request, Resp* response) EXCLUDES(mu_);

  // Replaces the pause between attempts (for tests that count pauses).
  void SetPauseForTesting(std::function<void(int64_t micros)> pause) EXCLUDES(mu_);

  const std::string& target() const { return target_; }

 private:
  // Connects to the first address of the current target that accepts.
  Status Connect() REQUIRES(mu_);
  // After a failed attempt on a cluster, chooses the target of the next
  // one; true when the failure was a redirect to the leader.
  bool ChooseNextTarget(const Status& failure, bool connected) REQUIRES(mu_);
  // One request and its answer on the open connection.
  Status CallOnce(const std::string& method, const std::string& request, std::string* response)
      REQUIRES(mu_);
  void Disconnect() REQUIRES(mu_);

  const std::string target_;
  const RpcClientOptions options_;

  // Held for a whole call, so at most one request is outstanding on the
  // connection and answers arrive in request order.
  Mutex mu_;
  int fd_ GUARDED_BY(mu_) = -1;  // -1 when not connected
  std::unique_ptr<Transport> transport_ GUARDED_BY(mu_);  // over fd_ while connected
  // The servers of `target_` (one for a single target), plus leaders named
  // in redirects that the list did not hold, and the one calls go to.
  std::vector<std::string> targets_ GUARDED_BY(mu_);
  size_t current_ GUARDED_BY(mu_) = 0;
  uint64_t next_request_id_ GUARDED_BY(mu_) = 1;
  FrameReader reader_ GUARDED_BY(mu_);
  std::string send_buffer_ GUARDED_BY(mu_);
  Frame answer_ GUARDED_BY(mu_);
  std::function<void(int64_t micros)> pause_ GUARDED_BY(mu_);
};

// A fixed set of clients used round-robin: every call goes to the next
// client in turn, without a lock of its own; each client's mutex still
// serialises the calls that land on it.
class RpcClientPool {
 public:
  // `clients` must not be empty.
  explicit RpcClientPool(std::vector<std::unique_ptr<RpcClient>> clients);
  // `size` clients of `target`, all with `options`.
  RpcClientPool(const std::string& target, RpcClientOptions options, size_t size);
  RpcClientPool(const RpcClientPool&) = delete;
  RpcClientPool& operator=(const RpcClientPool&) = delete;

  // The client that the next call uses.
  RpcClient* Next();

  Status CallRaw(const std::string& method, const std::string& request, std::string* response) {
    return Next()->CallRaw(method, request, response);
  }
  template <class Req, class Resp>
  Status Call(const std::string& method, const Req& request, Resp* response) {
    return Next()->Call(method, request, response);
  }

  size_t size() const { return clients_.size(); }

 private:
  const std::vector<std::unique_ptr<RpcClient>> clients_;
  std::atomic<uint64_t> next_{0};
};

template <class Req, class Resp>
Status RpcClient::Call(const std::string& method, const Req& request, Resp* response) {
  std::string request_bytes;
  EncodeTo(request, &request_bytes);
  std::string response_bytes;
  Status s = CallRaw(method, request_bytes, &response_bytes);
  if (!s.ok()) return s;
  Resp decoded;
  if (!Decode(response_bytes.size(), response_bytes.data(), &decoded)) {
    return Status::Corruption("kanrpc: bad response payload");
  }
  *response = std::move(decoded);
  return Status::OK();
}

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_CLIENT_H_
