#include "rpc/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <deque>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "common/fault_log.h"
#include "rpc/frame.h"
#include "rpc/sys_error.h"

namespace kandb::kanrpc {

namespace {

using Clock = std::chrono::steady_clock;

// Readiness events taken from the kernel per wait.
constexpr int kEventsPerWait = 256;
// A worker thread with nothing to do for this long ends.
constexpr auto kWorkerIdle = std::chrono::seconds(5);

enum class Kind { kUnknown, kBlocking, kInline, kTryInline, kAsync };

// See RpcServer::SetAnswerPostedHookForTesting; one relaxed load per answer.
std::atomic<void (*)()> answer_posted_hook{nullptr};

}  // namespace

struct RpcServer::Shared {
  struct Method {
    Kind kind = Kind::kUnknown;
    RawHandler handler;        // kBlocking, kInline, kTryInline (when the attempt declines)
    RawAttempt attempt;        // kTryInline
    AsyncRawHandler async;     // kAsync
    size_t index = 0;          // registration order: where its counters are kept
  };
  // Written only before Start, read without locking afterwards: the thread
  // starts in Start order every registration before every lookup.
  std::map<std::string, Method, std::less<>> methods;
  // Set before Start, read-only afterwards.
  std::function<void()> pass_hook;
  // Written by Start before any thread exists, read-only after.
  Clock::time_point started;
  // False until the first Stop.
  std::atomic<bool> stopping{false};
  // Created by Start before the accept thread, destroyed with Shared; the
  // loops are joined by Stop.
  std::vector<std::unique_ptr<Loop>> loops;
  std::unique_ptr<Workers> workers;
  // Guards the members below; never held while a handler runs.
  Mutex mu;
  // The connections being served, by socket, so that Stats can read their
  // counters. A loop lists a connection when it adopts it and removes it
  // before closing the socket and freeing the counters.
  std::map<int, const Connection*> connections GUARDED_BY(mu);
  // The counters of the connections that ended (folded in as each ends)
  // and of the accept thread; sized by Start.
  ServerStats ended GUARDED_BY(mu);
};

// One client connection. Owned by its loop; the fields below are the loop
// thread's alone, except those of the call in flight, which the thread that
// answers it writes before it posts the connection back to the loop (the
// loop's inbox lock orders the two).
//
// Its states: reading (no call, nothing left to send; served by the loop
// while its round's budget lasts), in a call (`calling`; only the
// answering thread writes status and response), writing (`out` not empty:
// nothing is read until the socket took it), closed (`dead`; freed by the
// loop once no list of its names it). After Stop a reading connection is
// closed at once, a writing one once it has sent everything or the grace
// is over, and one in a call once answered and written.
struct Connection {
  Connection(int socket, RpcServer::Loop* owner, size_t methods)
      : fd(socket), loop(owner), reader(socket), counters(methods) {}

  const int fd;
  RpcServer::Loop* const loop;
  FrameReader reader;
  ConnectionCounters counters;

  // The call in flight: its request, the method's entry and when it was
  // read; the answer goes to status and response.
  Frame request;
  const RpcServer::Shared::Method* method = nullptr;
  Clock::time_point began;
  bool calling = false;
  Status status;
  std::string response;

  // Answers not yet taken by the socket, from out_done on; reading waits
  // until they are. A peer that takes nothing for kWriteTimeoutMs is
  // dropped.
  std::string out;
  size_t out_done = 0;
  Clock::time_point write_deadline;
  // Frames it may still be served in the loop's round `round`: a budget of
  // kFramesPerTurn a round, shared by every way the loop comes to serve it
  // in that round (readiness, its answer given, its turn).
  uint64_t round = 0;
  int frames_left = 0;
  // Listed on the loop's ready list, to be served again next round.
  bool ready = false;
  // Closed: freed at the end of the loop's current round.
  bool dead = false;
};

// The worker threads that run blocking calls. Threads are started as calls
// need them and end after kWorkerIdle without work; one parked call costs
// one thread, as it would anywhere.
class RpcServer::Workers {
 public:
  // Queues `connection`'s call; false when no thread could be started for it.
  bool Submit(std::shared_ptr<Shared> shared, Connection* connection) EXCLUDES(mu_);
  // Idle threads end at once; running ones after their call.
  void Stop() EXCLUDES(mu_);

 private:
  void Run(std::shared_ptr<Shared> shared) EXCLUDES(mu_);

  Mutex mu_;
  CondVar cv_{&mu_};
  std::deque<Connection*> calls_ GUARDED_BY(mu_);
  size_t idle_ GUARDED_BY(mu_) = 0;
  bool stopping_ GUARDED_BY(mu_) = false;
};

// One event loop: a thread waiting on an epoll set of its connections and on
// an eventfd that other threads signal when they hand it a new connection or
// an answered call.
class RpcServer::Loop {
 public:
  explicit Loop(Shared* shared) : shared_(shared) {}
  ~Loop();

  Status Open();
  void Start(std::shared_ptr<Shared> shared) { thread_ = std::thread(&Loop::Run, this, std::move(shared)); }
  void Join() {
    if (thread_.joinable()) thread_.join();
  }

  // From the accept thread: serve `fd` from now on.
  void Adopt(int fd) EXCLUDES(mu_);
  // From whoever answered `connection`'s call (any thread, the loop too).
  void Answered(Connection* connection) EXCLUDES(mu_);
  // From Stop: close what is idle, finish what is in flight, give unsent
  // answers until the grace ends, then end.
  void Wake() EXCLUDES(mu_);

 private:
  void Run(std::shared_ptr<Shared> shared);
  // After posting to the inbox: wakes the loop unless a wake-up is pending
  // already (the loop clears that when it drains). Under the inbox lock:
  // once the loop has taken what was posted, which needs that lock, the
  // poster never touches the loop again, so a Stop that the post lets
  // return may destroy the loop at once. Writing the eventfd never blocks
  // (its counter stays far below the limit at which a write would wait),
  // so the lock is not held across anything that waits.
  void SignalUnlessSignalled() REQUIRES(mu_);
  // Takes in what other threads handed over.
  void DrainInbox();
  // Answers the calls in *answered and serves their connections on.
  void FinishAnswered(std::vector<Connection*>* answered);
  // Finishes the answers given on the loop's own thread, and those given
  // while finishing them, until none is left; the connections' budgets
  // bound how many.
  void FinishLocalAnswers();
  // Serves the connections whose budget ran out last round.
  void ServeTurns();
  // Frees the connections closed in this round that nothing names any more.
  void FreeClosed();
  // Reads and serves frames until a call stays in flight, the socket has
  // nothing more, or the connection's budget for this round is spent (it
  // is then served again next round).
  void Serve(Connection* connection);
  // Starts the call of the frame just read; true when it was answered at
  // once (kInline, unknown method), false when it stays in flight.
  bool StartCall(Connection* connection);
  // Frames the answer, counts the call and sends what the socket takes.
  void FinishCall(Connection* connection);
  // Sends pending answers; false when the connection was closed.
  bool Flush(Connection* connection);
  void Close(Connection* connection);
  // After Stop: closes every connection with no call in flight and no
  // answer left to send, and once the stop's grace is over those whose
  // peer has not taken their answers either. True while some still drain.
  bool CloseOnStop(Clock::time_point now);
  void DropStalledWriters(Clock::time_point now);

  Shared* const shared_;
  std::shared_ptr<Shared> keep_;  // set by Run: Workers::Submit needs it
  int epoll_fd_ = -1;
  int wake_fd_ = -1;
  std::thread thread_;

  // Guards the inbox. Other threads post under it and signal wake_fd_,
  // still under it, when the loop was not already signalled.
  Mutex mu_;
  std::vector<int> adopted_ GUARDED_BY(mu_);
  std::vector<Connection*> answered_ GUARDED_BY(mu_);
  bool signalled_ GUARDED_BY(mu_) = false;
  bool wake_ GUARDED_BY(mu_) = false;

  // The loop that the current thread runs, if any: an answer given on the
  // loop itself (an asynchronous handler that answered at once) goes to
  // local_answers_, without lock or signal.
  static thread_local Loop* current;

  // The loop thread's own.
  //
  // The loop works in rounds: a wait for readiness, then the sockets that
  // are ready, the connections whose budget ran out last round, the
  // answers given on the loop itself, and the pass hook, at most once. An
  // answer given on the loop serves its connection on at once, which may
  // start a call that is answered at once again; the budgets end that
  // chain, and the pass hook's once a round ends the chain of a write group
  // led on the loop whose answers start the next group's calls. Whatever
  // is left waits for the next round, whose wait then only polls, so that
  // every other socket, the inbox and Stop are looked at in between.
  uint64_t round_ = 0;
  std::vector<Connection*> local_answers_;
  std::vector<Connection*> local_turn_;  // local_answers_ being finished
  std::unordered_set<Connection*> connections_;
  // Connections with frames left to read once their budget is renewed.
  std::vector<Connection*> ready_;
  std::vector<Connection*> turn_;  // ready_ being served
  std::vector<Connection*> closed_;
  std::vector<Connection*> inbox_;  // answered calls taken from answered_
  std::vector<int> new_fds_;
  size_t calls_in_flight_ = 0;
  // Connections whose answers wait for the peer to read (write_deadline
  // set), so that an idle loop need not look at every connection.
  size_t stalled_writers_ = 0;
  // An asynchronous call started since the pass hook last ran: the hook is
  // due, in this round if it has not run yet, else at once in the next.
  bool started_async_ = false;
  bool stop_seen_ = false;
  // Set with stop_seen_: until then a connection may still send what it
  // has left to answer (kStopGraceMs).
  Clock::time_point stop_deadline_;
  Clock::time_point next_write_check_;
};

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
  {
    MutexLock lock(&shared_->mu);
    shared_->ended.methods.resize(shared_->methods.size());
    for (const auto& [name, entry] : shared_->methods) shared_->ended.methods[entry.index].method = name;
  }
  // The thread starts publish the method table to every later reader.
  for (auto& loop : shared_->loops) loop->Start(shared_);
  MutexLock lock(&join_mu_);
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
    {
      MutexLock lock(&shared->mu);
      ++shared->ended.accepted_connections;
    }
    shared->loops[next_loop]->Adopt(conn);
    next_loop = (next_loop + 1) % shared->loops.size();
  }
}

bool RpcServer::Workers::Submit(std::shared_ptr<Shared> shared, Connection* connection) {
  Shared* const counted = shared.get();
  {
    MutexLock lock(&mu_);
    calls_.push_back(connection);
    if (calls_.size() <= idle_) {
      cv_.Signal();
      return true;
    }
    // Thread creation reports its failure by exception; it is caught here,
    // as a call refused for want of resources, not a server failure.
    try {
      std::thread(&Workers::Run, this, std::move(shared)).detach();
      return true;
    } catch (const std::system_error& e) {
      calls_.pop_back();
      ReportFault("accept", std::string("cannot start a worker thread: ") + e.what());
    }
  }
  MutexLock lock(&counted->mu);
  ++counted->ended.failed_accepts;
  return false;
}

void RpcServer::Workers::Stop() {
  MutexLock lock(&mu_);
  stopping_ = true;
  cv_.SignalAll();
}

void RpcServer::Workers::Run(std::shared_ptr<Shared> shared) {
  // `shared` owns this object: holding it keeps the pool alive as long as
  // the thread.
  (void)shared;
  for (;;) {
    Connection* connection = nullptr;
    {
      MutexLock lock(&mu_);
      const auto deadline = Clock::now() + kWorkerIdle;
      ++idle_;
      while (calls_.empty() && !stopping_ && Clock::now() < deadline) cv_.WaitUntil(deadline);
      --idle_;
      if (calls_.empty()) return;
      connection = calls_.front();
      calls_.pop_front();
    }
    connection->status = connection->method->handler(connection->request.payload, &connection->response);
    connection->loop->Answered(connection);
  }
}

RpcServer::Loop::~Loop() {
  for (Connection* connection : connections_) {
    close(connection->fd);
    delete connection;
  }
  if (epoll_fd_ >= 0) close(epoll_fd_);
  if (wake_fd_ >= 0) close(wake_fd_);
}

Status RpcServer::Loop::Open() {
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
    auto* connection = new Connection(fd, this, shared_->methods.size());
    {
      MutexLock lock(&shared_->mu);
      shared_->connections.emplace(fd, connection);
    }
    connections_.insert(connection);
    struct epoll_event event = {};
    // Edge-triggered: the loop reads until the socket would block, or
    // remembers the connection on its ready list, so no edge is lost.
    event.events = EPOLLIN | EPOLLOUT | EPOLLET;
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
    if (!connection->dead && !connection->calling && connection->out.empty()) Serve(connection);
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
    int timeout_ms = pending ? 0 : stalled_writers_ > 0 ? 1000 : -1;
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
      if (connection->dead || connection->calling) continue;
      if (!connection->out.empty() && !Flush(connection)) continue;
      if (connection->out.empty()) Serve(connection);
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
    if (stalled_writers_ > 0 && now >= next_write_check_) {
      DropStalledWriters(now);
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
  if (connection->round != round_) {
    connection->round = round_;
    connection->frames_left = kFramesPerTurn;
  }
  while (!connection->calling && connection->out.empty()) {
    if (stop_seen_) {
      Close(connection);
      return;
    }
    if (connection->frames_left == 0) {
      if (!connection->ready) {
        connection->ready = true;
        ready_.push_back(connection);
      }
      return;
    }
    bool got = false;
    // A frame that cannot be read leaves the stream at an unknown position,
    // so the connection is dropped without an answer. No time-out: an idle
    // client may keep its connection as long as it likes.
    if (!connection->reader.ReadAvailable(&connection->request, &got).ok()) {
      Close(connection);
      return;
    }
    if (!got) return;
    --connection->frames_left;
    if (!StartCall(connection)) return;
    FinishCall(connection);
    if (connection->dead) return;
  }
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
      connection->calling = true;
      ++calls_in_flight_;
      started_async_ = true;
      method->async(connection->request.payload, Reply(connection));
      return false;
    case Kind::kBlocking:
    case Kind::kUnknown:
      break;
  }
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
    connection->counters.CountUnknownMethod();
    AppendFrame(&connection->out, FrameType::kError, request.request_id, request.method,
                "unknown method: " + request.method);
  } else {
    connection->counters.CountCall(method->index, connection->status.code());
    if (connection->status.ok()) {
      AppendFrame(&connection->out, FrameType::kResponse, request.request_id, request.method,
                  connection->response);
    } else {
      AppendFrame(&connection->out, FrameType::kError, request.request_id, request.method,
                  connection->status.ToString());
    }
  }
  if (!Flush(connection)) return;
  if (method != nullptr) {
    connection->counters.CountLatency(
        method->index,
        static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - connection->began).count()));
  }
}

bool RpcServer::Loop::Flush(Connection* connection) {
  std::string& out = connection->out;
  while (connection->out_done < out.size()) {
    const ssize_t r =
        send(connection->fd, out.data() + connection->out_done, out.size() - connection->out_done,
             MSG_NOSIGNAL | MSG_DONTWAIT);
    if (r > 0) {
      connection->out_done += static_cast<size_t>(r);
      continue;
    }
    if (r < 0 && errno == EINTR) continue;
    if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      // The peer is not reading; the clock runs from the first refusal.
      if (connection->write_deadline == Clock::time_point()) {
        connection->write_deadline = Clock::now() + std::chrono::milliseconds(kWriteTimeoutMs);
        ++stalled_writers_;
      }
      return true;
    }
    Close(connection);
    return false;
  }
  // A large answer must not pin its size until the next one.
  if (out.capacity() > (1u << 20)) {
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
  {
    MutexLock lock(&shared_->mu);
    shared_->connections.erase(connection->fd);
    connection->counters.AddTo(&shared_->ended);
  }
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

void RpcServer::Loop::DropStalledWriters(Clock::time_point now) {
  std::vector<Connection*> stalled;
  for (Connection* connection : connections_) {
    if (!connection->out.empty() && connection->write_deadline != Clock::time_point() &&
        now >= connection->write_deadline) {
      stalled.push_back(connection);
    }
  }
  for (Connection* connection : stalled) Close(connection);
}

ServerStats RpcServer::Stats() const {
  ServerStats out;
  MutexLock lock(&shared_->mu);
  out = shared_->ended;
  for (const auto& [fd, connection] : shared_->connections) connection->counters.AddTo(&out);
  out.open_connections = shared_->connections.size();
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
