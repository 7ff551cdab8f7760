#include "rpc/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <utility>

#include "common/fault_log.h"

#include "rpc/frame.h"
#include "rpc/sys_error.h"

namespace kandb::kanrpc {

RpcServer::RpcServer() : shared_(std::make_shared<Shared>()) {}

RpcServer::~RpcServer() { Stop(); }

void RpcServer::RegisterRaw(const std::string& method, RawHandler handler) {
  shared_->methods[method] = std::move(handler);
}

Status RpcServer::Start(int port, const std::string& bind_addr) {
  if (shared_->stopping.load(std::memory_order_acquire)) {
    return Status::InvalidArgument("kanrpc: server stopped");
  }
  if (listen_fd_.load() >= 0) return Status::InvalidArgument("kanrpc: server already started");

  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Status::Corruption("socket() failed");
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));

  struct sockaddr_in addr = {};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, bind_addr.c_str(), &addr.sin_addr) != 1) {
    close(fd);
    return Status::InvalidArgument("invalid IPv4 bind address: " + bind_addr);
  }
  if (bind(fd, reinterpret_cast<const struct sockaddr*>(&addr), sizeof(addr)) != 0) {
    const int err = errno;
    close(fd);
    return Status::Corruption("bind " + bind_addr + ":" + std::to_string(port) +
                              " failed: " + ErrnoText(err));
  }
  if (listen(fd, kListenBacklog) != 0) {
    close(fd);
    return Status::Corruption("listen failed");
  }

  struct sockaddr_in bound = {};
  socklen_t bound_length = sizeof(bound);
  if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&bound), &bound_length) == 0) {
    bound_port_ = ntohs(bound.sin_port);
  }
  listen_fd_.store(fd);
  MutexLock lock(&join_mu_);
  // The thread start publishes the method table to every later reader.
  accept_thread_ = std::thread(&RpcServer::AcceptLoop, shared_, fd);
  return Status::OK();
}

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
  while (!shared->stopping.load(std::memory_order_acquire)) {
    const int conn = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (conn < 0) {
      const int error = errno;
      if (error == EINTR) continue;
      // Stop shuts the listening socket down, which lands here.
      if (shared->stopping.load(std::memory_order_acquire)) break;
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
    {
      MutexLock lock(&shared->mu);
      shared->connections.insert(conn);
    }
    // Thread creation reports its failure by exception; it is caught here,
    // as a connection refused for want of resources, not a server failure.
    try {
      std::thread(&RpcServer::ServeConnection, shared, conn).detach();
    } catch (const std::system_error& e) {
      {
        MutexLock lock(&shared->mu);
        shared->connections.erase(conn);
      }
      close(conn);
      ReportFault("accept", std::string("cannot start a connection thread: ") + e.what());
    }
  }
}

bool RpcServer::Dispatch(Shared* shared, const std::string& method, const std::string& payload,
                         FrameType* type, std::string* response) {
  auto it = shared->methods.find(method);
  if (it == shared->methods.end()) {
    *type = FrameType::kError;
    response->append("unknown method: ").append(method);
    return true;
  }
  {
    MutexLock lock(&shared->mu);
    if (shared->stopping.load(std::memory_order_acquire)) return false;
    ++shared->running_handlers;
  }
  Status s = it->second(payload, response);
  {
    MutexLock lock(&shared->mu);
    if (--shared->running_handlers == 0) shared->handlers_done.SignalAll();
  }
  if (!s.ok()) {
    *type = FrameType::kError;
    *response = s.ToString();
  }
  return true;
}

void RpcServer::ServeConnection(std::shared_ptr<Shared> shared, int fd) {
  FrameReader reader(fd);
  // Reused across requests so that a steady stream of small calls does not
  // allocate for its frames.
  Frame request;
  std::string response;
  std::string out;
  while (!shared->stopping.load(std::memory_order_acquire)) {
    // No time-out: an idle client may keep its connection as long as it
    // likes. A frame that cannot be read leaves the stream at an unknown
    // position, so the connection is dropped without an answer.
    if (!reader.Read(&request, -1).ok()) break;

    FrameType type = FrameType::kResponse;
    response.clear();
    if (!Dispatch(shared.get(), request.method, request.payload, &type, &response)) break;

    out.clear();
    AppendFrame(&out, type, request.request_id, request.method, response);
    if (!WriteAll(fd, out.data(), out.size(), kWriteTimeoutMs).ok()) break;
  }
  {
    MutexLock lock(&shared->mu);
    shared->connections.erase(fd);
  }
  close(fd);
}

void RpcServer::Wait() {
  MutexLock lock(&join_mu_);
  if (accept_thread_.joinable()) accept_thread_.join();
}

void RpcServer::Stop() {
  bool expected = false;
  {
    // Set under the lock that handler calls start under, so that no call
    // starts after the wait below has begun.
    MutexLock lock(&shared_->mu);
    if (!shared_->stopping.compare_exchange_strong(expected, true)) return;
  }
  const int fd = listen_fd_.load();
  // Shutting the listening socket down fails the blocked accept, which ends
  // the accept loop. The socket is closed only after the join, so that its
  // number cannot be reused under a thread still calling accept on it.
  if (fd >= 0) shutdown(fd, SHUT_RDWR);
  {
    MutexLock lock(&join_mu_);
    if (accept_thread_.joinable()) accept_thread_.join();
  }
  if (fd >= 0) {
    close(fd);
    listen_fd_.store(-1);
  }
  // Wakes every connection blocked in a read; each then ends on its own.
  // Only reading is shut down, so a call in flight still sends its answer.
  // Handlers still running finish their call before Stop returns, so that
  // the service and store they use may be torn down right after.
  MutexLock lock(&shared_->mu);
  for (int conn : shared_->connections) shutdown(conn, SHUT_RD);
  while (shared_->running_handlers > 0) shared_->handlers_done.Wait();
}

}  // namespace kandb::kanrpc
