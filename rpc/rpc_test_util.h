#ifndef KANDB_RPC_RPC_TEST_UTIL_H_
#define KANDB_RPC_RPC_TEST_UTIL_H_

// Loopback sockets and shared checks for the rpc tests. The helpers abort
// when the loopback cannot be set up; only ConnectTo reports a refusal.

#include <gtest/gtest.h>

#include <string>

#include "common/status.h"

namespace kandb::kanrpc::testing {

// A socket descriptor that closes itself.
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  Socket(Socket&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  ~Socket() { Close(); }
  int fd() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  void Close();

 private:
  int fd_;
};

// A listening socket on 127.0.0.1 with a kernel-chosen port.
Socket Listen(int* port);
// Connects to 127.0.0.1:port; an invalid Socket when refused. A
// receive_buffer (bytes) is set before the connection is made, so that the
// window the peer sees stays that small.
Socket ConnectTo(int port, int receive_buffer = 0);
// A connected pair: a is the connecting side, b the accepted one.
struct SocketPair {
  Socket a, b;
};
SocketPair MakeSocketPair();
void SendAllOrDie(int fd, const std::string& bytes);
// True when the peer of `fd` closed with nothing left to read, within timeout_ms.
bool PeerClosed(int fd, int timeout_ms);

inline void ExpectStatus(const Status& s, uint32_t code, const std::string& message) {
  EXPECT_EQ(s.code(), code) << s.ToString();
  EXPECT_EQ(s.message(), message);
}

}  // namespace kandb::kanrpc::testing

#endif  // KANDB_RPC_RPC_TEST_UTIL_H_
