#include "rpc/loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

#include "common/fault_log.h"
#include "rpc/connection.h"
#include "rpc/frame.h"
#include "rpc/sys_error.h"
#include "rpc/workers.h"

namespace kandb::kanrpc {

namespace {

// Readiness events taken from the kernel per wait.
constexpr int kEventsPerWait = 256;
// The loop's receive buffer: frames a client sends back to back arrive in
// one receive as long as they fit.
constexpr size_t kScratchSize = 64 * 1024;
// A connection's answer buffer is kept for the next batch up to this size;
// a larger one (a large answer, a long stalled batch) is released once sent.
constexpr size_t kKeepOutCapacity = 4 * 1024;

}  // namespace

std::atomic<void (*)()> answer_posted_hook{nullptr};

RpcServer::Loop::~Loop() {
  for (Connection* connection : connections_) {
    close(connection->fd);
    delete connection;
  }
  if (epoll_fd_ >= 0) close(epoll_fd_);
  if (wake_fd_ >= 0) close(wake_fd_);
}

Status RpcServer::Loop::Open() {
  scratch_ = std::make_unique_for_overwrite<char[]>(kScratchSize);
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ < 0) return Status::Corruption("epoll_create1 failed: " + ErrnoText(errno));
  wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd_ < 0) return Status::Corruption("eventfd failed: " + ErrnoText(errno));
  struct epoll_event event = {};
  event.events = EPOLLIN;
  event.data.ptr = nullptr;
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_fd_, &event) != 0) {
    return Status::Corruption("epoll_ctl failed: " + ErrnoText(errno));
  }
  return Status::OK();
}

void RpcServer::Loop::SignalUnlessSignalled() {
  if (signalled_) return;
  signalled_ = true;
  const uint64_t one = 1;
  (void)!write(wake_fd_, &one, sizeof(one));
}

void RpcServer::Loop::Adopt(int fd) {
  MutexLock lock(&mu_);
  adopted_.push_back(fd);
  SignalUnlessSignalled();
}

thread_local RpcServer::Loop* RpcServer::Loop::current = nullptr;

void RpcServer::Loop::Answered(Connection* connection) {
  if (current == this) {
    local_answers_.push_back(connection);
    return;
  }
  // The answering thread may be the engine's commit thread, which goes on
  // after this returns; Stop may return, and the server be destroyed, as
  // soon as the loop has taken the answer. Hence nothing of the loop is
  // touched after the lock is released.
  MutexLock lock(&mu_);
  answered_.push_back(connection);
  if (auto* hook = answer_posted_hook.load(std::memory_order_relaxed)) hook();
  SignalUnlessSignalled();
}

void RpcServer::Loop::Wake() {
  MutexLock lock(&mu_);
  wake_ = true;
  SignalUnlessSignalled();
}

void RpcServer::Loop::DrainInbox() {
  uint64_t count = 0;
  (void)!read(wake_fd_, &count, sizeof(count));
  {
    MutexLock lock(&mu_);
    signalled_ = false;
    new_fds_.swap(adopted_);
    inbox_.swap(answered_);
    if (wake_ && !stop_seen_) {
      stop_seen_ = true;
      stop_deadline_ = Clock::now() + std::chrono::milliseconds(RpcServer::kStopGraceMs);
    }
  }
  for (int fd : new_fds_) {
    if (stop_seen_) {
      close(fd);
      continue;
    }
    std::unique_ptr<Transport> transport =
        shared_->tls != nullptr ? shared_->tls->Accept(fd) : std::make_unique<SocketTransport>(fd);
    if (transport == nullptr) {
      ReportFault("accept", "cannot start a TLS session");
      close(fd);
      continue;
    }
    auto* connection = new Connection(fd, std::move(transport), this);
    connection->reader.ShareScratch(scratch_.get(), kScratchSize);
    connection->reader.TrackReadiness();
    if (shared_->tls != nullptr) {
      connection->handshaking = true;
      connection->handshake_deadline = Clock::now() + std::chrono::milliseconds(shared_->handshake_timeout_ms);
      ++handshakes_;
    }
    shared_->open_connections.fetch_add(1, std::memory_order_relaxed);
    connections_.insert(connection);
    struct epoll_event event = {};
    // Edge-triggered: the loop reads until the socket would block (or a
    // receive came back short, which says as much; see TrackReadiness), or
    // remembers the connection on its ready list, so no edge is lost.
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.ptr = connection;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &event) != 0) {
      ReportFault("accept", "cannot watch a connection: " + ErrnoText(errno));
      Close(connection);
      continue;
    }
    // Bytes may have arrived before the socket was watched.
    Serve(connection);
  }
  new_fds_.clear();
  FinishAnswered(&inbox_);
}

void RpcServer::Loop::FinishAnswered(std::vector<Connection*>* answered) {
  for (Connection* connection : *answered) {
    --calls_in_flight_;
    FinishCall(connection);
    if (!connection->dead) Serve(connection);
  }
  answered->clear();
}

void RpcServer::Loop::FreeClosed() {
  // The ready list outlives the round: a connection closed while listed
  // there is freed once the next round's turns have passed it.
  size_t kept = 0;
  for (Connection* connection : closed_) {
    if (connection->ready) {
      closed_[kept++] = connection;
    } else {
      delete connection;
    }
  }
  closed_.resize(kept);
}

void RpcServer::Loop::FinishLocalAnswers() {
  while (!local_answers_.empty()) {
    local_turn_.swap(local_answers_);
    FinishAnswered(&local_turn_);
  }
}

void RpcServer::Loop::ServeTurns() {
  if (ready_.empty()) return;
  // Those whose budget runs out again are listed anew, for the next round.
  turn_.swap(ready_);
  for (Connection* connection : turn_) {
    connection->ready = false;
    if (!connection->dead && connection->may_read()) Serve(connection);
  }
  turn_.clear();
}

void RpcServer::Loop::Run(std::shared_ptr<Shared> shared) {
  keep_ = std::move(shared);
  current = this;
  struct epoll_event events[kEventsPerWait];
  next_write_check_ = Clock::now() + std::chrono::seconds(1);
  for (;;) {
    // Stopping, the loop ends once no call is in flight and every answer
    // was sent or given up on.
    bool draining = false;
    if (stop_seen_) {
      draining = CloseOnStop(Clock::now());
      if (calls_in_flight_ == 0 && !draining) break;
    }
    // Work left from the last round makes this wait a poll. Connections
    // with answers the peer has not taken are checked once a second for
    // their write time-out, and after Stop when the grace ends.
    const bool pending = !ready_.empty() || started_async_ || !local_answers_.empty();
    int timeout_ms = pending ? 0 : stalled_writers_ + handshakes_ > 0 ? 1000 : -1;
    if (!pending && draining) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(stop_deadline_ - Clock::now()).count();
      timeout_ms = static_cast<int>(std::clamp<int64_t>(left, 0, 1000));
    }
    const int n = epoll_wait(epoll_fd_, events, kEventsPerWait, timeout_ms);
    if (n < 0 && errno != EINTR) {
      ReportFault("accept", "epoll_wait failed: " + ErrnoText(errno));
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ++round_;
    for (int i = 0; i < n; ++i) {
      auto* connection = static_cast<Connection*>(events[i].data.ptr);
      if (connection == nullptr) {
        DrainInbox();
        continue;
      }
      if (connection->dead) continue;
      // Whatever the event, bytes may have come since the last receive.
      connection->reader.MarkReadable((events[i].events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0);
      // A connection in a call reads nothing until it is answered; the
      // answers before the call, should the socket have refused part of
      // them as it began, go as soon as it takes them rather than behind
      // the call's answer.
      if (connection->calling) {
        if (connection->out_done < connection->out.size()) Flush(connection);
        continue;
      }
      if (!connection->out.empty() && !Flush(connection)) continue;
      if (connection->may_read()) Serve(connection);
    }
    ServeTurns();
    FinishLocalAnswers();
    // The hook may lead a write group on this thread; its answers serve
    // their connections on, and the calls that starts wait for the next
    // round's hook, so that one round leads at most one group.
    if (started_async_) {
      started_async_ = false;
      if (shared_->pass_hook) shared_->pass_hook();
      FinishLocalAnswers();
    }
    const Clock::time_point now = Clock::now();
    if (stalled_writers_ + handshakes_ > 0 && now >= next_write_check_) {
      DropStalled(now);
      next_write_check_ = now + std::chrono::seconds(1);
    }
    FreeClosed();
  }
  // Nothing reads the ready list any more.
  for (Connection* connection : closed_) delete connection;
  closed_.clear();
  current = nullptr;
  // Shared owns this loop: holding it past the run would keep both alive.
  keep_.reset();
}

void RpcServer::Loop::Serve(Connection* connection) {
  if (connection->handshaking && !StepHandshake(connection)) return;
  if (connection->round != round_) {
    connection->round = round_;
    connection->frames_left = kFramesPerTurn;
  }
  // One batch: every frame the receive brought (up to the budget) is
  // answered into `out`, and the lot is sent at the end. Between the read
  // of a frame and the send of its answer the loop answers the frames
  // after it in the batch, at most kFramesPerTurn, and nothing else: the
  // peer sees none of the batch's answers before the send, other
  // connections and answers posted by other threads wait for the batch's
  // end, and bytes the peer sends meanwhile are read in this batch if the
  // reader runs short of frames before the budget does, else in the next.
  // A call that stays in flight ends the batch after the answers before it
  // were sent. A stopping loop reads no further request. A batch whose
  // answers reached kUnsentReadLimit is sent at once; should the socket
  // take enough of it, reading goes on within the budget (no readiness
  // event would come back for the frames already received).
  bool unreadable = false;
  for (;;) {
    bool full = false;
    while (!stop_seen_) {
      if (!connection->may_read()) {
        full = !connection->calling;
        break;
      }
      if (connection->frames_left == 0) {
        if (!connection->ready) {
          connection->ready = true;
          ready_.push_back(connection);
        }
        break;
      }
      bool got = false;
      if (!connection->reader.ReadAvailable(&connection->request, &got).ok()) {
        unreadable = true;
        break;
      }
      if (!got) break;
      --connection->frames_left;
      if (!StartCall(connection)) break;
      FinishCall(connection);
    }
    if (connection->dead) return;
    // In a call, what came before it was handed to the socket as the call
    // began; what the socket refused goes on its next readiness.
    if (connection->calling) break;
    if (!connection->out.empty() && !Flush(connection)) return;
    if (!full || !connection->may_read()) break;
  }
  connection->reader.Park();
  // A frame that cannot be read (or the peer's close) leaves the stream at
  // an unknown position: it is never answered, and the connection is
  // dropped once the answers before it were sent. Should the socket not
  // take them at once, the read after they went fails the same way. No
  // time-out: an idle client may keep its connection as long as it likes.
  if ((unreadable || stop_seen_) && !connection->calling && connection->out.empty()) Close(connection);
}

void RpcServer::Loop::CountRefused() {
  MutexLock lock(&shared_->mu);
  ++shared_->ended.tls_refused;
}

bool RpcServer::Loop::StepHandshake(Connection* connection) {
  if (stop_seen_) {
    Close(connection);
    return false;
  }
  if (handshake_round_ != round_) {
    handshake_round_ = round_;
    handshakes_left_ = kHandshakesPerTurn;
  }
  if (handshakes_left_ == 0) {
    if (!connection->ready) {
      connection->ready = true;
      ready_.push_back(connection);
    }
    return false;
  }
  --handshakes_left_;
  bool done = false;
  // A refused client (no certificate, another CA, a name not allowed, no
  // TLS at all) is closed without more: what it cost ends with the close.
  if (!connection->transport->Handshake(&done).ok()) {
    CountRefused();
    Close(connection);
    return false;
  }
  if (!done) return false;
  connection->handshaking = false;
  --handshakes_;
  return true;
}

bool RpcServer::Loop::StartCall(Connection* connection) {
  connection->began = Clock::now();
  connection->response.clear();
  auto it = shared_->methods.find(connection->request.method);
  if (it == shared_->methods.end()) {
    connection->method = nullptr;
    connection->status = Status::OK();
    return true;
  }
  const Shared::Method* method = &it->second;
  connection->method = method;
  switch (method->kind) {
    case Kind::kInline:
      connection->status = method->handler(connection->request.payload, &connection->response);
      return true;
    case Kind::kTryInline:
      if (method->attempt(connection->request.payload, &connection->response, &connection->status)) return true;
      connection->response.clear();
      break;
    case Kind::kAsync:
      // The answers before the call go out before it waits (for a sync,
      // say), rather than behind it.
      if (!connection->out.empty() && !Flush(connection)) return false;
      connection->calling = true;
      ++calls_in_flight_;
      started_async_ = true;
      method->async(connection->request.payload, Reply(connection));
      return false;
    case Kind::kBlocking:
    case Kind::kUnknown:
      break;
  }
  if (!connection->out.empty() && !Flush(connection)) return false;
  if (!shared_->workers->Submit(keep_, connection)) {
    connection->status = Status::Corruption("kanrpc: cannot start a worker thread");
    return true;
  }
  connection->calling = true;
  ++calls_in_flight_;
  return false;
}

void RpcServer::Loop::FinishCall(Connection* connection) {
  connection->calling = false;
  const Frame& request = connection->request;
  const Shared::Method* method = connection->method;
  if (method == nullptr) {
    counters_->CountUnknownMethod();
    AppendFrame(&connection->out, FrameType::kError, request.request_id, request.method,
                "unknown method: " + request.method);
    return;
  }
  counters_->CountCall(method->index, connection->status.code());
  if (connection->status.ok()) {
    AppendFrame(&connection->out, FrameType::kResponse, request.request_id, request.method, connection->response);
  } else {
    AppendFrame(&connection->out, FrameType::kError, request.request_id, request.method,
                connection->status.ToString());
  }
  batch_.push_back({method->index, connection->began});
}

bool RpcServer::Loop::Flush(Connection* connection) {
  std::string& out = connection->out;
  bool progressed = false;
  while (connection->out_done < out.size()) {
    size_t sent = 0;
    if (connection->send_failed ||
        !connection->transport->Send(out.data() + connection->out_done, out.size() - connection->out_done, &sent)
             .ok()) {
      // One in a call is held by the thread answering it: it is closed
      // once answered, without another send on a failed transport.
      connection->send_failed = true;
      if (!connection->calling) Close(connection);
      return false;
    }
    if (sent > 0) {
      connection->out_done += sent;
      progressed = true;
      continue;
    }
    // The peer takes no more now; the clock runs from the first refusal
    // after it last took something, so a peer that keeps reading, however
    // slowly, while its pipelined calls keep the buffer from emptying is
    // never taken for one that stopped. The calls whose answers wait are
    // counted once the socket took them all.
    if (connection->write_deadline == Clock::time_point()) {
      ++stalled_writers_;
      progressed = true;
    }
    if (progressed) connection->write_deadline = Clock::now() + std::chrono::milliseconds(shared_->write_timeout_ms);
    connection->unsent.insert(connection->unsent.end(), batch_.begin(), batch_.end());
    batch_.clear();
    // Answers are appended while earlier ones wait: the sent part goes, so
    // that a peer reading slowly but never quite catching up does not grow
    // the buffer for ever.
    if (connection->out_done >= kUnsentReadLimit) {
      out.erase(0, connection->out_done);
      connection->out_done = 0;
    }
    return true;
  }
  const Clock::time_point now = Clock::now();
  auto count = [this, now](const UnsentAnswer& answer) {
    counters_->CountLatency(
        answer.method,
        static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now - answer.began).count()));
  };
  if (!connection->unsent.empty()) {
    for (const UnsentAnswer& answer : connection->unsent) count(answer);
    std::vector<UnsentAnswer>().swap(connection->unsent);
  }
  for (const UnsentAnswer& answer : batch_) count(answer);
  batch_.clear();
  // A large answer or batch must not pin its size while the connection idles.
  if (out.capacity() > kKeepOutCapacity) {
    std::string().swap(out);
  } else {
    out.clear();
  }
  connection->out_done = 0;
  if (connection->write_deadline != Clock::time_point()) --stalled_writers_;
  connection->write_deadline = Clock::time_point();
  return true;
}

void RpcServer::Loop::Close(Connection* connection) {
  if (connection->dead) return;
  connection->dead = true;
  if (connection->write_deadline != Clock::time_point()) --stalled_writers_;
  if (connection->handshaking) --handshakes_;
  shared_->open_connections.fetch_sub(1, std::memory_order_relaxed);
  // Only the connection being served has answers in the batch.
  batch_.clear();
  // Removed from the epoll set by the close; freed at the end of the round,
  // since events of this round may still name it (see FreeClosed).
  close(connection->fd);
  connections_.erase(connection);
  closed_.push_back(connection);
}

bool RpcServer::Loop::CloseOnStop(Clock::time_point now) {
  // A connection with answer bytes the socket has not taken is not idle:
  // closing it would lose an answer whose call has taken effect. It gets
  // until the grace ends, and never reads another request meanwhile.
  std::vector<Connection*> done;
  bool draining = false;
  for (Connection* connection : connections_) {
    if (connection->calling) continue;
    if (connection->out.empty() || now >= stop_deadline_) {
      done.push_back(connection);
    } else {
      draining = true;
    }
  }
  for (Connection* connection : done) Close(connection);
  return draining;
}

void RpcServer::Loop::DropStalled(Clock::time_point now) {
  std::vector<Connection*> stalled;
  for (Connection* connection : connections_) {
    // One in a call is closed, if still stalled, once answered: the
    // answering thread holds it until then.
    if ((!connection->calling && !connection->out.empty() && connection->write_deadline != Clock::time_point() &&
         now >= connection->write_deadline) ||
        (connection->handshaking && now >= connection->handshake_deadline)) {
      stalled.push_back(connection);
    }
  }
  for (Connection* connection : stalled) {
    if (connection->handshaking) CountRefused();
    Close(connection);
  }
}

}  // namespace kandb::kanrpc
