#ifndef KANDB_RPC_SERVER_H_
#define KANDB_RPC_SERVER_H_

// RpcServer: accepts TCP connections on one IPv4 address and port and serves
// each on a detached thread of its own: read a request frame, dispatch it by
// method name, write back a response frame or an error frame, repeat.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>

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

class RpcServer {
 public:
  // How long a response write may wait for the peer to make room.
  static constexpr int kWriteTimeoutMs = 30000;
  static constexpr int kListenBacklog = 256;

  RpcServer();
  // Runs Stop. Connection threads still draining keep the method table
  // alive on their own; they never call a handler after Stop returned.
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
  void Register(const std::string& method, std::function<Status(const Req&, Resp*)> handler);
  // Registers a handler over raw payload bytes, before Start.
  void RegisterRaw(const std::string& method, RawHandler handler);

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
  // it sums a few hundred counters per open connection under the lock
  // that guards the connection list.
  ServerStats Stats() const;

  // Stops accepting, joins the accept thread, shuts every open connection
  // down and waits until no handler runs any more, so that what handlers
  // use may be destroyed as soon as Stop returns. A second call does
  // nothing.
  void Stop() EXCLUDES(join_mu_);

 private:
  // What a connection's thread owns and what Stop and Stats read of it.
  struct Connection {
    explicit Connection(size_t methods) : counters(methods) {}
    ConnectionCounters counters;
    // True while a handler runs for this connection. Set before the thread
    // tests `stopping` and cleared after the handler returns, both with
    // sequentially consistent order, while Stop sets `stopping` before it
    // reads these flags: either the call sees `stopping` and is not made,
    // or Stop sees the flag and waits for it to clear. No lock is taken per
    // request.
    std::atomic<bool> in_call{false};
  };

  // What the accept thread and the detached connection threads share. It is
  // held by shared pointer so that it outlives the server for as long as any
  // connection thread runs.
  struct Shared {
    struct Method {
      RawHandler handler;
      size_t index;  // registration order: where its counters are kept
    };
    // Written only before Start, read without locking afterwards: the thread
    // start in Start orders every registration before every lookup.
    std::map<std::string, Method, std::less<>> methods;
    // Written by Start before the accept thread exists, read-only after.
    std::chrono::steady_clock::time_point started;
    // False until the first Stop; loops check it before blocking again.
    std::atomic<bool> stopping{false};
    // Guards the members below; never held while a handler runs.
    Mutex mu;
    // The connections being served, by socket, with their counters (owned
    // by the connection's thread), so that Stop can shut them down and
    // Stats can read them. A connection thread removes its entry before
    // closing the socket, so Stop never touches a descriptor number that
    // was reused, and before freeing the counters.
    std::map<int, const Connection*> connections GUARDED_BY(mu);
    // The counters of the connections that ended (folded in as each one
    // ends, with the entry's removal) and of the accept thread; `methods`
    // is sized by Start.
    ServerStats ended GUARDED_BY(mu);
  };

  static void AcceptLoop(std::shared_ptr<Shared> shared, int listen_fd);
  // Serves `fd` until it closes; takes ownership of `connection`, which the
  // accept thread listed under it in `connections`.
  static void ServeConnection(std::shared_ptr<Shared> shared, int fd, Connection* connection);
  // Runs the handler of `method` and counts the call in the connection's
  // counters; false when the server is stopping and the call was not made.
  // *method_index is the method's registration index, or -1 for an unknown
  // method.
  static bool Dispatch(Shared* shared, const std::string& method, const std::string& payload,
                       Connection* connection, FrameType* type, std::string* response,
                       ptrdiff_t* method_index);

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
};

template <class Req, class Resp>
void RpcServer::Register(const std::string& method,
                         std::function<Status(const Req&, Resp*)> handler) {
  RegisterRaw(method, [handler = std::move(handler)](const std::string& request,
                                                     std::string* response) -> Status {
    Req req;
    if (!Decode(request.size(), request.data(), &req)) {
      return Status::InvalidArgument("bad request payload");
    }
    Resp resp;
    Status s = handler(req, &resp);
    if (!s.ok()) return s;
    EncodeTo(resp, response);
    return Status::OK();
  });
}

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_SERVER_H_
