#include "rpc/client.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include "rpc/tls.h"

namespace kandb::kanrpc {

// A cluster's servers answer a follower's "not leader" with this text
// behind "remote: ", and the leader's address after it when one is known.
namespace {
constexpr char kNotLeader[] = "remote: Unavailable: not leader; ";
constexpr char kLeaderAt[] = "leader at ";
}  // namespace

bool ParseTarget(const std::string& target, std::string* host, std::string* port) {
  const size_t colon = target.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == target.size()) return false;
  std::string h = target.substr(0, colon);
  if (h.size() >= 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
  if (h.empty()) return false;
  *host = std::move(h);
  *port = target.substr(colon + 1);
  return true;
}

std::vector<std::string> SplitTargets(const std::string& target) {
  std::vector<std::string> targets;
  size_t start = 0;
  for (;;) {
    const size_t comma = target.find(',', start);
    targets.push_back(target.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
    if (comma == std::string::npos) return targets;
    start = comma + 1;
  }
}

RpcClient::RpcClient(std::string target, RpcClientOptions options)
    : target_(std::move(target)), options_(options), reader_(-1) {
  MutexLock lock(&mu_);
  targets_ = SplitTargets(target_);
}

RpcClient::~RpcClient() {
  MutexLock lock(&mu_);
  Disconnect();
}

void RpcClient::SetPauseForTesting(std::function<void(int64_t micros)> pause) {
  MutexLock lock(&mu_);
  pause_ = std::move(pause);
}

namespace {

// connect bounded by the call's time-out (none when negative): a target
// that drops SYNs would otherwise hold the caller for the kernel's minutes
// of retries. The socket is left blocking; the transports never block on
// it either way (a TLS session makes it non-blocking).
bool ConnectWithin(int fd, const struct sockaddr* addr, socklen_t length, int timeout_ms) {
  if (timeout_ms < 0) return connect(fd, addr, length) == 0;
  const int flags = fcntl(fd, F_GETFL);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) return false;
  bool connected = connect(fd, addr, length) == 0;
  if (!connected && errno == EINPROGRESS) {
    struct pollfd p = {fd, POLLOUT, 0};
    int ready;
    do {
      ready = poll(&p, 1, timeout_ms);
    } while (ready < 0 && errno == EINTR);
    int error = 0;
    socklen_t error_length = sizeof(error);
    connected = ready == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &error_length) == 0 && error == 0;
  }
  return connected && fcntl(fd, F_SETFL, flags) == 0;
}

}  // namespace

Status RpcClient::Connect() {
  const std::string& target = targets_[current_];
  const Status failed = Status::Corruption("cannot connect to " + target);
  std::string host, port;
  if (!ParseTarget(target, &host, &port)) return failed;

  struct addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  struct addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &list) != 0) return failed;
  for (struct addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    const int fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) continue;
    if (ConnectWithin(fd, ai->ai_addr, ai->ai_addrlen, options_.timeout_ms)) {
      const int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
      fd_ = fd;
      break;
    }
    close(fd);
  }
  freeaddrinfo(list);
  if (fd_ < 0) return failed;
  if (options_.tls != nullptr) {
    Status s = options_.tls->Handshake(fd_, host, options_.timeout_ms, &transport_);
    if (!s.ok()) {
      Disconnect();
      return s;
    }
  } else {
    transport_ = std::make_unique<SocketTransport>(fd_);
  }
  reader_.Reset(transport_.get());
  return Status::OK();
}

void RpcClient::Disconnect() {
  // Bytes buffered from the old connection belong to no future call.
  reader_.Reset(-1);
  transport_.reset();
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
}

Status RpcClient::CallOnce(const std::string& method, const std::string& request,
                           std::string* response) {
  const uint64_t id = next_request_id_++;
  send_buffer_.clear();
  AppendFrame(&send_buffer_, FrameType::kRequest, id, method, request);
  Status s = SendAll(transport_.get(), send_buffer_.data(), send_buffer_.size(), options_.timeout_ms);
  if (!s.ok()) return s;
  s = reader_.Read(&answer_, options_.timeout_ms);
  if (!s.ok()) return s;
  // Only one request is outstanding, so any other id is a stale or foreign
  // frame and the stream can no longer be trusted.
  if (answer_.request_id != id) return Status::Corruption("kanrpc: request id mismatch");
  switch (answer_.type) {
    case FrameType::kResponse:
      response->swap(answer_.payload);
      return Status::OK();
    case FrameType::kError:
      return Status::Corruption("remote: " + answer_.payload);
    default:
      return Status::Corruption("kanrpc: bad frame type");
  }
}

Status RpcClient::CallRaw(const std::string& method, const std::string& request,
                          std::string* response) {
  // Frames over the limits would only make the server drop the connection,
  // on every attempt; refuse them here with the reader's own words.
  if (method.size() > kMaxMethodLength) return Status::Corruption("kanrpc: method too long");
  if (request.size() > kMaxPayloadLength) return Status::Corruption("kanrpc: payload too large");

  MutexLock lock(&mu_);
  const int32_t attempts = std::max<int32_t>(1, options_.attempts);
  size_t redirects = 0;
  std::string answer;
  for (int32_t attempt = 1;; ++attempt) {
    const bool connected = fd_ >= 0;
    Status s = connected ? Status::OK() : Connect();
    const bool reached = s.ok();
    if (s.ok()) s = CallOnce(method, request, &answer);
    if (s.ok()) {
      response->swap(answer);
      return s;
    }
    // Whatever failed, the connection's position is unknown: the next
    // attempt starts on a fresh one.
    Disconnect();
    if (targets_.size() > 1 && ChooseNextTarget(s, reached) && redirects < targets_.size()) {
      ++redirects;
      --attempt;
      continue;
    }
    if (attempt >= attempts) return s;
    const int64_t micros = kPauseStepMicros * attempt;
    if (pause_) {
      pause_(micros);
    } else {
      std::this_thread::sleep_for(std::chrono::microseconds(micros));
    }
  }
}

bool RpcClient::ChooseNextTarget(const Status& failure, bool connected) {
  const std::string& text = failure.message();
  const size_t not_leader = std::strlen(kNotLeader);
  const bool refused = text.compare(0, not_leader, kNotLeader) == 0;
  if (refused && text.compare(not_leader, std::strlen(kLeaderAt), kLeaderAt) == 0) {
    const std::string leader = text.substr(not_leader + std::strlen(kLeaderAt));
    auto it = std::find(targets_.begin(), targets_.end(), leader);
    if (it == targets_.end()) it = targets_.insert(targets_.end(), leader);
    current_ = static_cast<size_t>(it - targets_.begin());
    return true;
  }
  // A server that could not be reached, broke off, or knows no leader:
  // the next attempt tries the next one. Other failures of a server that
  // answered (a refused request) stay with it.
  const bool remote = text.compare(0, 8, "remote: ") == 0;
  if (refused || !connected || !remote) current_ = (current_ + 1) % targets_.size();
  return false;
}

RpcClientPool::RpcClientPool(std::vector<std::unique_ptr<RpcClient>> clients)
    : clients_(std::move(clients)) {}

namespace {

std::vector<std::unique_ptr<RpcClient>> MakeClients(const std::string& target,
                                                    RpcClientOptions options, size_t size) {
  std::vector<std::unique_ptr<RpcClient>> clients;
  clients.reserve(size);
  for (size_t i = 0; i < size; ++i) clients.push_back(std::make_unique<RpcClient>(target, options));
  return clients;
}

}  // namespace

RpcClientPool::RpcClientPool(const std::string& target, RpcClientOptions options, size_t size)
    : RpcClientPool(MakeClients(target, options, size)) {}

RpcClient* RpcClientPool::Next() {
  const uint64_t n = next_.fetch_add(1, std::memory_order_relaxed);
  return clients_[n % clients_.size()].get();
}

}  // namespace kandb::kanrpc
