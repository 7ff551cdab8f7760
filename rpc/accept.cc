// The accept thread: takes connections off the listening socket and hands
// them to the loops in turn.

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include "common/fault_log.h"
#include "rpc/loop.h"
#include "rpc/server.h"
#include "rpc/server_shared.h"
#include "rpc/sys_error.h"

namespace kandb::kanrpc {

namespace {

// Accept failures that say the process or the system is short of something
// for a while (descriptors, buffers, memory) or that a client gave up
// before we took its connection. None of them is a reason to stop serving.
bool TransientAcceptError(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM || error == ECONNABORTED ||
         error == EPROTO || error == EPERM;
}

}  // namespace

void RpcServer::AcceptLoop(std::shared_ptr<Shared> shared, int listen_fd) {
  // The pause after a failed accept grows from 10 to 100 ms while failures
  // go on: short enough to serve again soon after descriptors free up,
  // long enough not to spin on a listening socket that stays readable.
  int pause_ms = 0;
  size_t next_loop = 0;
  while (!shared->stopping.load(std::memory_order_acquire)) {
    const int conn = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (conn < 0) {
      const int error = errno;
      if (error == EINTR) continue;
      // Stop shuts the listening socket down, which lands here.
      if (shared->stopping.load(std::memory_order_acquire)) break;
      {
        MutexLock lock(&shared->mu);
        ++shared->ended.failed_accepts;
      }
      pause_ms = pause_ms == 0 ? 10 : std::min(pause_ms * 2, 100);
      ReportFault("accept", std::string(TransientAcceptError(error) ? "" : "unexpected: ") +
                                "accept failed: " + ErrnoText(error) + " (retrying in " +
                                std::to_string(pause_ms) + " ms)");
      std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
      continue;
    }
    pause_ms = 0;
    const int one = 1;
    setsockopt(conn, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    if (shared->send_buffer_bytes > 0) {
      setsockopt(conn, SOL_SOCKET, SO_SNDBUF, &shared->send_buffer_bytes, sizeof(shared->send_buffer_bytes));
    }
    {
      MutexLock lock(&shared->mu);
      ++shared->ended.accepted_connections;
    }
    shared->loops[next_loop]->Adopt(conn);
    next_loop = (next_loop + 1) % shared->loops.size();
  }
}

}  // namespace kandb::kanrpc
