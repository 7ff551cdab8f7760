#include "rpc/transport.h"

#include <sys/socket.h>

#include <cerrno>

#include "rpc/sys_error.h"

namespace kandb::kanrpc {

Status ConnectionClosed() { return Status::NotFound("kanrpc: connection closed"); }

Status TransferError(int error) { return Status::Corruption("kanrpc io: " + ErrnoText(error)); }

Status SocketTransport::Recv(char* buf, size_t size, size_t* n) {
  *n = 0;
  for (;;) {
    const ssize_t r = recv(fd(), buf, size, MSG_DONTWAIT);
    if (r > 0) {
      *n = static_cast<size_t>(r);
      return Status::OK();
    }
    if (r == 0) return ConnectionClosed();
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      wait_ = POLLIN;
      return Status::OK();
    }
    return TransferError(errno);
  }
}

Status SocketTransport::Send(const char* data, size_t size, size_t* n) {
  *n = 0;
  for (;;) {
    const ssize_t r = send(fd(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (r > 0) {
      *n = static_cast<size_t>(r);
      return Status::OK();
    }
    if (r == 0) return ConnectionClosed();
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      wait_ = POLLOUT;
      return Status::OK();
    }
    return TransferError(errno);
  }
}

Status WaitTransport(const Transport& transport, int timeout_ms) {
  struct pollfd p;
  p.fd = transport.fd();
  p.events = transport.wait_events();
  p.revents = 0;
  for (;;) {
    const int r = poll(&p, 1, timeout_ms < 0 ? -1 : timeout_ms);
    if (r > 0) return Status::OK();
    if (r == 0) return Status::Corruption("kanrpc: io timeout");
    if (errno != EINTR) return Status::Corruption("kanrpc poll: " + ErrnoText(errno));
  }
}

Status SendAll(Transport* transport, const char* data, size_t n, int timeout_ms) {
  while (n > 0) {
    size_t sent = 0;
    Status s = transport->Send(data, n, &sent);
    if (!s.ok()) return s;
    if (sent == 0) {
      s = WaitTransport(*transport, timeout_ms);
      if (!s.ok()) return s;
      continue;
    }
    data += sent;
    n -= sent;
  }
  return Status::OK();
}

}  // namespace kandb::kanrpc
