#ifndef KANDB_RPC_CONNECTION_H_
#define KANDB_RPC_CONNECTION_H_

#include <cstdint>
#include <memory>
#include <string>

#include "common/status.h"
#include "rpc/frame.h"
#include "rpc/server_shared.h"
#include "rpc/server_stats.h"
#include "rpc/transport.h"

namespace kandb::kanrpc {

// One client connection. Owned by its loop; the fields below are the loop
// thread's alone, except those of the call in flight, which the thread that
// answers it writes before it posts the connection back to the loop (the
// loop's inbox lock orders the two).
//
// Its states: reading (no call, nothing left to send; served by the loop
// while its round's budget lasts), in a call (`calling`; only the
// answering thread writes status and response), writing (`out` not empty:
// nothing is read until the socket took it), closed (`dead`; freed by the
// loop once no list of its names it). After Stop a reading connection is
// closed at once, a writing one once it has sent everything or the grace
// is over, and one in a call once answered and written.
struct Connection {
  // `stream` moves the bytes of the socket `socket`, which the connection
  // owns and closes.
  Connection(int socket, std::unique_ptr<Transport> stream, RpcServer::Loop* owner, size_t methods)
      : fd(socket), transport(std::move(stream)), loop(owner), reader(transport.get()), counters(methods) {}

  const int fd;
  const std::unique_ptr<Transport> transport;
  RpcServer::Loop* const loop;
  FrameReader reader;
  ConnectionCounters counters;

  // A TLS session not yet set up: nothing is read as frames until it is,
  // and it is dropped when that takes kHandshakeTimeoutMs.
  bool handshaking = false;
  Clock::time_point handshake_deadline;

  // The call in flight: its request, the method's entry and when it was
  // read; the answer goes to status and response.
  Frame request;
  const RpcServer::Shared::Method* method = nullptr;
  Clock::time_point began;
  bool calling = false;
  Status status;
  std::string response;

  // Answers not yet taken by the socket, from out_done on; reading waits
  // until they are. A peer that takes nothing for kWriteTimeoutMs is
  // dropped.
  std::string out;
  size_t out_done = 0;
  Clock::time_point write_deadline;
  // Frames it may still be served in the loop's round `round`: a budget of
  // kFramesPerTurn a round, shared by every way the loop comes to serve it
  // in that round (readiness, its answer given, its turn).
  uint64_t round = 0;
  int frames_left = 0;
  // Listed on the loop's ready list, to be served again next round.
  bool ready = false;
  // Closed: freed at the end of the loop's current round.
  bool dead = false;
};

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_CONNECTION_H_
