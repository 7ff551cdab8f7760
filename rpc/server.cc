#include "rpc/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "rpc/connection.h"
#include "rpc/loop.h"
#include "rpc/server_shared.h"
#include "rpc/sys_error.h"
#include "rpc/workers.h"

namespace kandb::kanrpc {

void Reply::Send(const Status& status, std::string response) const {
  connection_->status = status;
  connection_->response = std::move(response);
  connection_->loop->Answered(connection_);
}

RpcServer::RpcServer(size_t loops) : shared_(std::make_shared<Shared>()) {
  // One loop serves thousands of connections; half the processors are left
  // to the engine's commit thread, the worker threads and the kernel's own
  // network work, which on two processors doubles what one loop answers.
  if (loops == 0) loops = std::max(1u, std::thread::hardware_concurrency() / 2);
  for (size_t i = 0; i < loops; ++i) shared_->loops.push_back(std::make_unique<Loop>(shared_.get()));
  shared_->workers = std::make_unique<Workers>();
}

RpcServer::~RpcServer() { Stop(); }

void RpcServer::RegisterRaw(const std::string& method, RawHandler handler, CallMode mode) {
  Shared::Method& entry = shared_->methods.try_emplace(method).first->second;
  if (entry.kind == Kind::kUnknown) entry.index = shared_->methods.size() - 1;
  entry.kind = mode == CallMode::kInline ? Kind::kInline : Kind::kBlocking;
  entry.handler = std::move(handler);
  entry.attempt = nullptr;
  entry.async = nullptr;
}

void RpcServer::RegisterTryInlineRaw(const std::string& method, RawAttempt attempt, RawHandler handler) {
  Shared::Method& entry = shared_->methods.try_emplace(method).first->second;
  if (entry.kind == Kind::kUnknown) entry.index = shared_->methods.size() - 1;
  entry.kind = Kind::kTryInline;
  // A null handler keeps the one registered before (the typed form's).
  if (handler) entry.handler = std::move(handler);
  entry.attempt = std::move(attempt);
  entry.async = nullptr;
}

void RpcServer::SetAnswerPostedHookForTesting(void (*hook)()) { answer_posted_hook.store(hook); }

void RpcServer::SetPassHook(std::function<void()> hook) { shared_->pass_hook = std::move(hook); }

void RpcServer::SetTls(std::shared_ptr<TlsServerContext> tls) { shared_->tls = std::move(tls); }

void RpcServer::SetHandshakeTimeoutMs(int timeout_ms) { shared_->handshake_timeout_ms = timeout_ms; }
void RpcServer::SetWriteTimeoutMs(int timeout_ms) { shared_->write_timeout_ms = timeout_ms; }
void RpcServer::SetSendBufferBytes(int bytes) { shared_->send_buffer_bytes = bytes; }

void RpcServer::RegisterAsyncRaw(const std::string& method, AsyncRawHandler handler) {
  Shared::Method& entry = shared_->methods.try_emplace(method).first->second;
  if (entry.kind == Kind::kUnknown) entry.index = shared_->methods.size() - 1;
  entry.kind = Kind::kAsync;
  entry.handler = nullptr;
  entry.attempt = nullptr;
  entry.async = std::move(handler);
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
  for (auto& loop : shared_->loops) {
    Status s = loop->Open();
    if (!s.ok()) {
      close(fd);
      return s;
    }
  }

  struct sockaddr_in bound = {};
  socklen_t bound_length = sizeof(bound);
  if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&bound), &bound_length) == 0) {
    bound_port_ = ntohs(bound.sin_port);
  }
  listen_fd_.store(fd);
  shared_->started = Clock::now();
  std::vector<CallCounters*> counters;
  {
    MutexLock lock(&shared_->mu);
    shared_->ended.methods.resize(shared_->methods.size());
    for (const auto& [name, entry] : shared_->methods) shared_->ended.methods[entry.index].method = name;
    for (size_t i = 0; i < shared_->loops.size(); ++i) {
      shared_->loop_counters.push_back(std::make_unique<CallCounters>(shared_->methods.size()));
      counters.push_back(shared_->loop_counters.back().get());
    }
  }
  // The thread starts publish the method table to every later reader.
  for (size_t i = 0; i < shared_->loops.size(); ++i) shared_->loops[i]->Start(shared_, counters[i]);
  MutexLock lock(&join_mu_);
  accept_thread_ = std::thread(&RpcServer::AcceptLoop, shared_, fd);
  return Status::OK();
}

Status RpcServer::CallLocal(const std::string& method, const std::string& request, std::string* response) const {
  response->clear();
  auto it = shared_->methods.find(method);
  if (it == shared_->methods.end()) return Status::InvalidArgument("unknown method: " + method);
  const Shared::Method& m = it->second;
  switch (m.kind) {
    case Kind::kTryInline: {
      Status status;
      if (m.attempt(request, response, &status)) return status;
      response->clear();
      return m.handler(request, response);
    }
    case Kind::kBlocking:
    case Kind::kInline:
      return m.handler(request, response);
    case Kind::kAsync:
    case Kind::kUnknown:
      break;
  }
  return Status::InvalidArgument("not callable in process: " + method);
}

ServerStats RpcServer::Stats() const {
  ServerStats out;
  MutexLock lock(&shared_->mu);
  out = shared_->ended;
  for (const auto& counters : shared_->loop_counters) counters->AddTo(&out);
  out.open_connections = shared_->open_connections.load(std::memory_order_relaxed);
  if (shared_->started != Clock::time_point()) {
    out.uptime_ms = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - shared_->started).count());
  }
  return out;
}

void RpcServer::Wait() {
  MutexLock lock(&join_mu_);
  if (accept_thread_.joinable()) accept_thread_.join();
}

void RpcServer::Stop() {
  bool expected = false;
  if (!shared_->stopping.compare_exchange_strong(expected, true, std::memory_order_acq_rel)) return;
  const int fd = listen_fd_.load();
  // Shutting the listening socket down fails the blocked accept, which ends
  // the accept loop. The socket is closed only after the join, so that its
  // number cannot be reused under a thread still calling accept on it.
  if (fd >= 0) shutdown(fd, SHUT_RDWR);
  MutexLock lock(&join_mu_);
  if (accept_thread_.joinable()) accept_thread_.join();
  if (fd >= 0) {
    close(fd);
    listen_fd_.store(-1);
  }
  // Every loop closes its idle connections, lets the calls in flight answer
  // and ends; after the join no handler runs and none will.
  if (!loops_joined_) {
    loops_joined_ = true;
    for (auto& loop : shared_->loops) loop->Wake();
    for (auto& loop : shared_->loops) loop->Join();
    shared_->workers->Stop();
  }
}

}  // namespace kandb::kanrpc
