#include "rpc/rpc_test_util.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace kandb::kanrpc::testing {
namespace {

int Check(int result, const char* what) {
  if (result < 0) {
    std::perror(what);
    std::abort();
  }
  return result;
}

// A new TCP socket and 127.0.0.1:port.
Socket NewSocket(int port, sockaddr_in* addr) {
  *addr = sockaddr_in{};
  addr->sin_family = AF_INET;
  addr->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr->sin_port = htons(static_cast<uint16_t>(port));
  return Socket(Check(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
}

}  // namespace

void Socket::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

Socket Listen(int* port) {
  sockaddr_in addr;
  Socket s = NewSocket(0, &addr);
  socklen_t len = sizeof(addr);
  Check(bind(s.fd(), reinterpret_cast<sockaddr*>(&addr), len), "bind");
  Check(listen(s.fd(), 512), "listen");
  Check(getsockname(s.fd(), reinterpret_cast<sockaddr*>(&addr), &len), "getsockname");
  *port = ntohs(addr.sin_port);
  return s;
}

Socket ConnectTo(int port, int receive_buffer) {
  sockaddr_in addr;
  Socket s = NewSocket(port, &addr);
  if (receive_buffer > 0) {
    Check(setsockopt(s.fd(), SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer)), "setsockopt");
  }
  if (connect(s.fd(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) s.Close();
  return s;
}

SocketPair MakeSocketPair() {
  int port = 0;
  Socket listener = Listen(&port);
  Socket a = ConnectTo(port);
  if (!a.valid()) Check(-1, "connect");
  return {std::move(a), Socket(Check(accept(listener.fd(), nullptr, nullptr), "accept"))};
}

void SendAllOrDie(int fd, const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t r = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (r < 0 && errno == EINTR) continue;
    done += static_cast<size_t>(Check(static_cast<int>(r), "send"));
  }
}

bool PeerClosed(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  char c;
  if (poll(&p, 1, timeout_ms) <= 0) return false;
  const ssize_t r = recv(fd, &c, 1, MSG_DONTWAIT);
  return r == 0 || (r < 0 && errno == ECONNRESET);
}

}  // namespace kandb::kanrpc::testing
