#ifndef KANDB_RPC_RPC_TEST_UTIL_H_
#define KANDB_RPC_RPC_TEST_UTIL_H_

// Loopback sockets for the rpc tests: connected pairs, plain connections to a
// port, and a listener for fake servers.

#include <string>

namespace kandb::kanrpc::testing {

// A socket that closes itself.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int fd) : fd_(fd) {}
  ~Socket() { Close(); }
  Socket(Socket&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  Socket& operator=(Socket&& other) noexcept;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  int fd() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void Close();

 private:
  int fd_ = -1;
};

// A connected TCP pair on 127.0.0.1. Aborts the test process when the
// loopback cannot be set up.
struct SocketPair {
  Socket a;
  Socket b;
};
SocketPair MakeSocketPair();

// A listening socket on 127.0.0.1 with a kernel-chosen port.
Socket Listen(int* port);
// Connects to 127.0.0.1:port; an invalid Socket when refused.
Socket ConnectTo(int port);
// Sends all of `bytes` (blocking) and aborts on failure.
void SendAllOrDie(int fd, const std::string& bytes);
// True when the peer of `fd` has closed and nothing is left to read, waiting
// at most timeout_ms for it.
bool PeerClosed(int fd, int timeout_ms);

}  // namespace kandb::kanrpc::testing

#endif  // KANDB_RPC_RPC_TEST_UTIL_H_
