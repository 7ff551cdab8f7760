#ifndef KANDB_RPC_SERVER_H_
#define KANDB_RPC_SERVER_H_

// RpcServer: accepts TCP connections on one IPv4 address and port and serves
// them from a few event loops (one per two processors): read request frames,
// dispatch each by method name, write back a response frame or an error
// frame per request. A connection has at most one call in flight and its
// answers come back in request order; the frames a client sends without
// waiting (pipelined) are read with one receive and answered with one send
// per batch.
//
// Where a call runs depends on how its method was registered:
//  - kBlocking (the default): on a pool of worker threads, for handlers that
//    may wait on a disk sync, the network or a lock held across either;
//  - kInline: on the event loop itself, for handlers that never wait;
//  - asynchronous: the handler starts the work on the loop and answers
//    later, from any thread, through its Reply (a durable write answered by
//    the engine's commit thread, with no thread parked per call).

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "rpc/frame.h"
#include "rpc/server_stats.h"

namespace kandb::kanrpc {

// A handler over raw payload bytes. `response` is empty on entry; on OK the
// server sends it as the response payload, on failure it sends the failure's
// rendered text (Status::ToString) in an error frame and ignores `response`.
using RawHandler = std::function<Status(const std::string& request, std::string* response)>;

enum class CallMode {
  kBlocking,  // runs on a worker thread
  kInline,    // runs on the event loop; must never wait
};

struct Connection;
class TlsServerContext;

// The answer to one asynchronous call. Send it exactly once, from any
// thread; the connection reads nothing more until it is sent. Copies refer
// to the same call.
class Reply {
 public:
  explicit Reply(Connection* connection) : connection_(connection) {}
  // On OK the response payload, else the failure's text in an error frame.
  void Send(const Status& status, std::string response) const;
  // The same with a typed response, encoded only on OK.
  template <class Resp>
  void Done(const Status& status, const Resp& resp) const {
    std::string out;
    if (status.ok()) EncodeTo(resp, &out);
    Send(status, std::move(out));
  }

 private:
  Connection* connection_;
};

// An attempt to answer on the event loop without waiting: true when it
// answered (with *status, and *response on OK), false, having done nothing
// visible, when only a blocking handler can.
using RawAttempt = std::function<bool(const std::string& request, std::string* response, Status* status)>;

// An asynchronous handler: it must not wait, and answers through `reply`.
// `request` stays valid until then.
using AsyncRawHandler = std::function<void(const std::string& request, Reply reply)>;

class RpcServer {
 public:
  // How long a response write may wait for the peer to make room.
  static constexpr int kWriteTimeoutMs = 30000;
  // How long Stop lets a connection send the answers its peer has not taken
  // yet. A peer that reads at all takes the largest answer (64 MiB) well
  // within it, on loopback in a fraction of a second; one that reads
  // nothing for this long is treated as gone, so that Stop stays short
  // beside the stop time-outs of supervisors and of tests.
  static constexpr int kStopGraceMs = 5000;
  static constexpr int kListenBacklog = 256;
  // Frames read from one connection in one round of its loop before the
  // loop turns to the others, so that a client sending back to back cannot
  // keep its loop to itself. Also the largest batch answered with one send:
  // a frame answered on the loop costs about a microsecond, so a full turn
  // keeps the others waiting some tens of microseconds, less than the
  // system calls that batching saves cost.
  static constexpr int kFramesPerTurn = 64;
  // How long a TLS client may take to set its session up. The same for
  // one that sends nothing at all: it holds a descriptor and a session.
  static constexpr int kHandshakeTimeoutMs = 10000;
  // TLS handshake steps a loop takes in one round before it turns to the
  // connections already set up: a flood of new sessions (each costing a
  // signature) cannot keep the established ones waiting.
  static constexpr int kHandshakesPerTurn = 16;

  // `loops` event loops serve the connections; 0 means one per two
  // processors.
  explicit RpcServer(size_t loops = 0);
  // Runs Stop. Idle worker threads still ending keep what they use alive on
  // their own; they never call a handler after Stop returned.
  ~RpcServer();
  RpcServer(const RpcServer&) = delete;
  RpcServer& operator=(const RpcServer&) = delete;

  // Registers a typed handler under `method`. For each request the wrapper
  // decodes the payload into a fresh Req (a payload that does not decode
  // fails with InvalidArgument "bad request payload" and the handler is not
  // called), calls the handler with a fresh Resp, passes a failure through
  // unchanged, and on success encodes the Resp as the response payload.
  // Req and Resp need `bool Decode(size_t, const char*, Req*)` and
  // `void EncodeTo(const Resp&, std::string*)` beside them (found by
  // argument-dependent lookup), as every pdpb message has.
  //
  // Registration happens before Start; a second registration of a name
  // replaces the first.
  template <class Req, class Resp>
  void Register(const std::string& method, std::function<Status(const Req&, Resp*)> handler,
                CallMode mode = CallMode::kBlocking);
  // Registers a handler over raw payload bytes, before Start.
  void RegisterRaw(const std::string& method, RawHandler handler, CallMode mode = CallMode::kBlocking);
  // Registers a method answered on the loop by `attempt` when it can, and
  // otherwise by `handler` on a worker thread; the typed form decodes as
  // Register does.
  template <class Req, class Resp>
  void RegisterTryInline(const std::string& method, std::function<bool(const Req&, Resp*, Status*)> attempt,
                         std::function<Status(const Req&, Resp*)> handler);
  void RegisterTryInlineRaw(const std::string& method, RawAttempt attempt, RawHandler handler);
  // Registers an asynchronous handler; the typed form decodes as Register
  // does (a payload that does not decode is answered at once).
  template <class Req>
  void RegisterAsync(const std::string& method, std::function<void(const Req&, Reply)> handler);
  void RegisterAsyncRaw(const std::string& method, AsyncRawHandler handler);

  // Called by an event loop at the end of a round in which an asynchronous
  // call was started since the hook last ran, before it waits again: where
  // the work those calls queued is started (one sync for all of them). At
  // most once a round: the calls that the answers it gives on the loop
  // start wait for the next round's call, which follows at once (the loop
  // only polls its sockets in between). Set before Start.
  void SetPassHook(std::function<void()> hook);

  // Makes every connection a TLS session from `tls`, which the caller may
  // Reload at any time (sessions already set up keep what they were made
  // with). Set before Start; without it the port speaks plain frames.
  void SetTls(std::shared_ptr<TlsServerContext> tls);
  // Replaces kHandshakeTimeoutMs (tests shorten it). Set before Start.
  void SetHandshakeTimeoutMs(int timeout_ms);
  // Replaces kWriteTimeoutMs (tests shorten it). Set before Start.
  void SetWriteTimeoutMs(int timeout_ms);
  // Fixes the kernel's send buffer of every connection accepted (tests
  // shrink it, so that a slow peer holds answers back within a few KiB
  // rather than megabytes). 0, the default, leaves the kernel's own sizing.
  // Set before Start.
  void SetSendBufferBytes(int bytes);

  // Listens on bind_addr (dotted IPv4 only; host names are not resolved) and
  // port, and starts the accept thread. Returns at once. A server starts at
  // most once: a second Start, or a Start after Stop, fails with
  // InvalidArgument.
  Status Start(int port, const std::string& bind_addr);

  // The port listened on, once Start succeeded (0 before); tells which port
  // the system chose when Start was given port 0.
  int port() const { return bound_port_; }

  // Blocks until the accept thread has ended, which happens only after Stop:
  // the accept loop survives every failure of accept (descriptors or
  // memory running out) by pausing and trying again. Returns at once when
  // the server never started. May be called from another thread than Stop.
  void Wait() EXCLUDES(join_mu_);

  // The counters since Start (see server_stats.h): every method registered,
  // the connections, and the calls of every connection, those being
  // served included. Cheap enough to call every second under full load:
  // it sums a few hundred counters per event loop, whatever the number of
  // connections.
  ServerStats Stats() const;

  // Runs `method`'s handler on the calling thread, as a client's call would
  // run it, for readers in the same process (the status port): the answer
  // is the one a client would get, and the call is not counted. Methods
  // answered asynchronously (durable writes) are refused with
  // InvalidArgument, and so is a name never registered. Safe from any
  // thread once Start has returned, for as long as the handlers' state
  // lives; the handler may block as it would on a worker thread.
  Status CallLocal(const std::string& method, const std::string& request, std::string* response) const;
  template <class Req, class Resp>
  Status CallLocal(const std::string& method, const Req& request, Resp* response) const {
    std::string out;
    Status s = CallLocal(method, Encode(request), &out);
    if (!s.ok()) return s;
    if (!Decode(out.size(), out.data(), response)) return Status::Corruption("undecodable answer of " + method);
    return Status::OK();
  }

  // Stops accepting, joins the accept thread, closes every connection with
  // no call in flight and nothing left to send, lets each call in flight
  // finish, gives the answers that their peers have not taken yet up to
  // kStopGraceMs to be sent (no further request is read), closes what is
  // left, and joins the event loops: no handler runs any more and no answer
  // is pending, so what handlers use may be destroyed as soon as Stop
  // returns. It does not wait for a client to stop sending. A second call
  // does nothing.
  void Stop() EXCLUDES(join_mu_);

  // For tests that open the window between two steps of an answer given on
  // another thread than its loop's: `hook` is called by that thread after
  // the answer is posted to the loop and before the loop is woken for it
  // (holding the loop's inbox lock, as both steps do). Null (the default)
  // calls nothing; set it while no server answers.
  static void SetAnswerPostedHookForTesting(void (*hook)());

 private:
  friend struct Connection;
  struct Shared;
  class Loop;
  class Workers;

  static void AcceptLoop(std::shared_ptr<Shared> shared, int listen_fd);

  const std::shared_ptr<Shared> shared_;
  // The listening socket, -1 when closed. Set by Start; Stop shuts it down,
  // which wakes the accept thread, and closes it only after the join, so the
  // accept thread never sees its number reused.
  std::atomic<int> listen_fd_{-1};
  // Set by Start before the accept thread exists; read by the owner only.
  int bound_port_ = 0;
  // Serialises joining the accept thread between Wait and Stop.
  Mutex join_mu_;
  std::thread accept_thread_ GUARDED_BY(join_mu_);
  // Stop joins the loops once, after the accept thread.
  bool loops_joined_ GUARDED_BY(join_mu_) = false;
};

template <class Req, class Resp>
void RpcServer::Register(const std::string& method, std::function<Status(const Req&, Resp*)> handler,
                         CallMode mode) {
  RegisterRaw(
      method,
      [handler = std::move(handler)](const std::string& request, std::string* response) -> Status {
        Req req;
        if (!Decode(request.size(), request.data(), &req)) {
          return Status::InvalidArgument("bad request payload");
        }
        Resp resp;
        Status s = handler(req, &resp);
        if (!s.ok()) return s;
        EncodeTo(resp, response);
        return Status::OK();
      },
      mode);
}

template <class Req, class Resp>
void RpcServer::RegisterTryInline(const std::string& method,
                                  std::function<bool(const Req&, Resp*, Status*)> attempt,
                                  std::function<Status(const Req&, Resp*)> handler) {
  Register<Req, Resp>(method, std::move(handler));
  RegisterTryInlineRaw(
      method,
      [attempt = std::move(attempt)](const std::string& request, std::string* response, Status* status) {
        Req req;
        if (!Decode(request.size(), request.data(), &req)) {
          *status = Status::InvalidArgument("bad request payload");
          return true;
        }
        Resp resp;
        if (!attempt(req, &resp, status)) return false;
        if (status->ok()) EncodeTo(resp, response);
        return true;
      },
      nullptr);
}

template <class Req>
void RpcServer::RegisterAsync(const std::string& method, std::function<void(const Req&, Reply)> handler) {
  RegisterAsyncRaw(method, [handler = std::move(handler)](const std::string& request, Reply reply) {
    Req req;
    if (!Decode(request.size(), request.data(), &req)) {
      reply.Send(Status::InvalidArgument("bad request payload"), std::string());
      return;
    }
    handler(req, reply);
  });
}

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_SERVER_H_
