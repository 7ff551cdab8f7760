#ifndef KANDB_RPC_TRANSPORT_H_
#define KANDB_RPC_TRANSPORT_H_

// The byte stream of one connection: a plain socket, or a TLS session over
// one (rpc/tls.h). The event loops, the frame reader and the client move
// bytes only through it, so that none of them knows which it has.
//
// Every operation returns at once: it moves what it can and, when it can
// move nothing, says so and what readiness of the socket it waits for. The
// caller waits (poll, epoll) and calls again with the same arguments.

#include <poll.h>

#include <cstddef>
#include <memory>

#include "common/status.h"

namespace kandb::kanrpc {

// The failures every transport reports in the frame layer's words: the
// peer closed the stream (NotFound "kanrpc: connection closed"), a system
// call failed ("kanrpc io: " and the system's text).
Status ConnectionClosed();
Status TransferError(int error);

class Transport {
 public:
  explicit Transport(int fd) : fd_(fd) {}
  virtual ~Transport() = default;
  Transport(const Transport&) = delete;
  Transport& operator=(const Transport&) = delete;

  // Receives up to `size` (> 0) bytes: OK with *n > 0, or with *n == 0 when
  // nothing can be read now. Fails as above, or for a TLS session with
  // "kanrpc tls: " and the library's reason.
  virtual Status Recv(char* buf, size_t size, size_t* n) = 0;
  // Sends up to `size` (> 0) bytes: OK with *n > 0, or *n == 0 when the
  // stream takes nothing now. Never raises SIGPIPE. After *n == 0 the next
  // call must offer the same bytes again (the same count or more).
  virtual Status Send(const char* data, size_t size, size_t* n) = 0;
  // Sets the session up (a TLS handshake): *done once it is, otherwise
  // call again when the socket is ready for wait_events(). A plain socket is
  // set up from the start.
  virtual Status Handshake(bool* done) {
    *done = true;
    return Status::OK();
  }
  // Whether a Recv that returned fewer bytes than asked left nothing to
  // read: true for a plain socket; not for a TLS session, which may hold
  // decrypted bytes or whole records back.
  virtual bool short_recv_drains() const { return false; }
  // What the last call that moved nothing waits for: POLLIN or POLLOUT.
  // (A TLS session may need to write in order to read, or the reverse.)
  virtual short wait_events() const = 0;

  // The socket; the transport neither closes it nor changes its mode.
  int fd() const { return fd_; }

 private:
  const int fd_;
};

// A plain socket, which may be in either mode: its calls never block.
class SocketTransport final : public Transport {
 public:
  explicit SocketTransport(int fd) : Transport(fd) {}
  Status Recv(char* buf, size_t size, size_t* n) override;
  Status Send(const char* data, size_t size, size_t* n) override;
  bool short_recv_drains() const override { return true; }
  short wait_events() const override { return wait_; }

 private:
  short wait_ = POLLIN;
};

// Waits until `transport`'s socket is ready for what it waits for: at most
// timeout_ms (negative: without limit); "kanrpc: io timeout" after it,
// "kanrpc poll: " and the system's text when poll fails.
Status WaitTransport(const Transport& transport, int timeout_ms);

// Sends data[0, n) completely; each wait bounded as WaitTransport's.
Status SendAll(Transport* transport, const char* data, size_t n, int timeout_ms);

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_TRANSPORT_H_
