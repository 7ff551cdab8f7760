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
  auto it = shared_->methods.find(method);
  if (it != shared_->methods.end()) {
    it->second.handler = std::move(handler);
    return;
  }
  const size_t index = shared_->methods.size();
  shared_->methods.emplace(method, Shared::Method{std::move(handler), index});
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
  shared_->started = std::chrono::steady_clock::now();
  {
    MutexLock lock(&shared_->mu);
    shared_->ended.methods.resize(shared_->methods.size());
    for (const auto& [name, entry] : shared_->methods) shared_->ended.methods[entry.index].method = name;
  }
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
    auto connection = std::make_unique<Connection>(shared->methods.size());
    {
      MutexLock lock(&shared->mu);
      shared->connections.emplace(conn, connection.get());
      ++shared->ended.accepted_connections;
    }
    // Thread creation reports its failure by exception; it is caught here,
    // as a connection refused for want of resources, not a server failure.
    // The thread takes the connection over only once it exists: until the
    // entry is erased below, Stats may still be reading its counters.
    try {
      std::thread(&RpcServer::ServeConnection, shared, conn, connection.get()).detach();
      (void)connection.release();  // the thread owns it now
    } catch (const std::system_error& e) {
      {
        MutexLock lock(&shared->mu);
        shared->connections.erase(conn);
        ++shared->ended.failed_accepts;
      }
      close(conn);
      ReportFault("accept", std::string("cannot start a connection thread: ") + e.what());
    }
  }
}

bool RpcServer::Dispatch(Shared* shared, const std::string& method, const std::string& payload,
                         Connection* connection, FrameType* type, std::string* response,
                         ptrdiff_t* method_index) {
  ConnectionCounters* counters = &connection->counters;
  auto it = shared->methods.find(method);
  if (it == shared->methods.end()) {
    *type = FrameType::kError;
    response->append("unknown method: ").append(method);
    counters->CountUnknownMethod();
    *method_index = -1;
    return true;
  }
  connection->in_call.store(true, std::memory_order_seq_cst);
  if (shared->stopping.load(std::memory_order_seq_cst)) {
    connection->in_call.store(false, std::memory_order_release);
    return false;
  }
  Status s = it->second.handler(payload, response);
  connection->in_call.store(false, std::memory_order_seq_cst);
  *method_index = static_cast<ptrdiff_t>(it->second.index);
  counters->CountCall(it->second.index, s.code());
  if (!s.ok()) {
    *type = FrameType::kError;
    *response = s.ToString();
  }
  return true;
}

void RpcServer::ServeConnection(std::shared_ptr<Shared> shared, int fd, Connection* connection_owned) {
  const std::unique_ptr<Connection> connection(connection_owned);
  ConnectionCounters* counters = &connection->counters;
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
    const auto began = std::chrono::steady_clock::now();

    FrameType type = FrameType::kResponse;
    response.clear();
    ptrdiff_t method_index = -1;
    if (!Dispatch(shared.get(), request.method, request.payload, connection.get(), &type, &response,
                  &method_index)) {
      break;
    }

    out.clear();
    AppendFrame(&out, type, request.request_id, request.method, response);
    if (!WriteAll(fd, out.data(), out.size(), kWriteTimeoutMs).ok()) break;
    if (method_index >= 0) {
      counters->CountLatency(static_cast<size_t>(method_index),
                             static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                                       std::chrono::steady_clock::now() - began)
                                                       .count()));
    }
  }
  {
    MutexLock lock(&shared->mu);
    shared->connections.erase(fd);
    counters->AddTo(&shared->ended);
  }
  close(fd);
}

ServerStats RpcServer::Stats() const {
  ServerStats out;
  MutexLock lock(&shared_->mu);
  out = shared_->ended;
  for (const auto& [fd, connection] : shared_->connections) connection->counters.AddTo(&out);
  out.open_connections = shared_->connections.size();
  if (shared_->started != std::chrono::steady_clock::time_point()) {
    out.uptime_ms = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                              std::chrono::steady_clock::now() - shared_->started)
                                              .count());
  }
  return out;
}

void RpcServer::Wait() {
  MutexLock lock(&join_mu_);
  if (accept_thread_.joinable()) accept_thread_.join();
}

void RpcServer::Stop() {
  bool expected = false;
  // Sequentially consistent, as the connections' in_call flags are: see
  // Connection.
  if (!shared_->stopping.compare_exchange_strong(expected, true, std::memory_order_seq_cst)) return;
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
  // The lock is not held across the wait: a handler may take it (Stats).
  {
    MutexLock lock(&shared_->mu);
    for (const auto& [conn, connection] : shared_->connections) shutdown(conn, SHUT_RD);
  }
  for (;;) {
    bool busy = false;
    {
      MutexLock lock(&shared_->mu);
      for (const auto& [conn, connection] : shared_->connections) {
        if (connection->in_call.load(std::memory_order_seq_cst)) {
          busy = true;
          break;
        }
      }
    }
    if (!busy) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

}  // namespace kandb::kanrpc
