#include "rpc/rpc_test_util.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace kandb::kanrpc::testing {

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

void Socket::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

namespace {

[[noreturn]] void Die(const char* what) {
  std::perror(what);
  std::abort();
}

sockaddr_in Loopback(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  return addr;
}

}  // namespace

Socket Listen(int* port) {
  Socket s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!s.valid()) Die("socket");
  sockaddr_in addr = Loopback(0);
  socklen_t len = sizeof(addr);
  if (bind(s.fd(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) Die("bind");
  if (listen(s.fd(), 512) != 0) Die("listen");
  if (getsockname(s.fd(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) Die("getsockname");
  *port = ntohs(addr.sin_port);
  return s;
}

Socket ConnectTo(int port) {
  Socket s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!s.valid()) Die("socket");
  sockaddr_in addr = Loopback(port);
  if (connect(s.fd(), reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) return Socket();
  const int one = 1;
  setsockopt(s.fd(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
  return s;
}

SocketPair MakeSocketPair() {
  int port = 0;
  Socket listener = Listen(&port);
  SocketPair pair;
  pair.a = ConnectTo(port);
  if (!pair.a.valid()) Die("connect");
  pair.b = Socket(accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC));
  if (!pair.b.valid()) Die("accept");
  return pair;
}

void SendAllOrDie(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t r = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) Die("send");
    done += static_cast<size_t>(r);
  }
}

bool PeerClosed(int fd, int timeout_ms) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, timeout_ms) <= 0) return false;
  char c;
  const ssize_t r = recv(fd, &c, 1, MSG_DONTWAIT);
  return r == 0 || (r < 0 && errno == ECONNRESET);
}

}  // namespace kandb::kanrpc::testing
