#ifndef KANDB_RPC_CONNECTION_H_
#define KANDB_RPC_CONNECTION_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/status.h"
#include "rpc/frame.h"
#include "rpc/server_shared.h"
#include "rpc/server_stats.h"
#include "rpc/transport.h"

namespace kandb::kanrpc {

// A connection reads on while the answers the socket has not taken stay
// below this: a pipelining client's next frames are read while the
// answers of the last batch are still on their way, and a peer that sends
// without reading makes the server hold at most this plus one answer.
inline constexpr size_t kUnsentReadLimit = 64 * 1024;
// Nor does it read on once this many answers wait for a socket that has
// not taken them all since: a peer reading slowly, but never quite
// catching up, would otherwise keep their records (for the latency
// counts) growing for as long as it kept up the pace.
inline constexpr size_t kUnsentCallLimit = 4096;

// A call answered and framed whose answer the socket has not wholly taken:
// its latency is counted once it has.
struct UnsentAnswer {
  size_t method;  // the method's registration index
  Clock::time_point began;
};

// One client connection. Owned by its loop; the fields below are the loop
// thread's alone, except those of the call in flight, which the thread that
// answers it writes before it posts the connection back to the loop (the
// loop's inbox lock orders the two).
//
// Its states: reading (no call, fewer than kUnsentReadLimit answer bytes
// left to send; served by the loop while its round's budget lasts), in a
// call (`calling`; only the answering thread writes status and response;
// the answers before it go to the socket as it takes them),
// writing (`out` holds kUnsentReadLimit bytes or more the socket has not
// taken: nothing is read until it takes enough), closed (`dead`; freed by
// the loop once no list of its names it). After Stop a connection with
// nothing in flight and nothing to send is closed at once, one with
// answers to send once it has sent them or the grace is over, and one in
// a call once answered and written.
//
// An idle connection holds no receive buffer (its reader receives into
// the loop's scratch and keeps bytes of its own only for a partial frame
// or frames left for its next turn) and no counters (the loop's count its
// calls).
struct Connection {
  // `stream` moves the bytes of the socket `socket`, which the connection
  // owns and closes.
  Connection(int socket, std::unique_ptr<Transport> stream, RpcServer::Loop* owner)
      : fd(socket), transport(std::move(stream)), loop(owner), reader(transport.get()) {}

  // Whether the loop may read its next frame: never once a send failed,
  // since no answer could reach the peer.
  bool may_read() const {
    return !calling && !send_failed && out.size() - out_done < kUnsentReadLimit && unsent.size() < kUnsentCallLimit;
  }

  const int fd;
  const std::unique_ptr<Transport> transport;
  RpcServer::Loop* const loop;
  FrameReader reader;

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

  // Answers not yet taken by the socket, from out_done on. A peer that
  // takes nothing for kWriteTimeoutMs is dropped.
  std::string out;
  size_t out_done = 0;
  Clock::time_point write_deadline;
  // A send failed while in a call; closed once the call is answered.
  bool send_failed = false;
  // The calls whose answers in `out` wait for a socket that refused them;
  // empty (and without storage) otherwise.
  std::vector<UnsentAnswer> unsent;
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
