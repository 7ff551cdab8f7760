#ifndef KANDB_RPC_LOOP_H_
#define KANDB_RPC_LOOP_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <unordered_set>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"
#include "rpc/connection.h"
#include "rpc/server_shared.h"

namespace kandb::kanrpc {

// See RpcServer::SetAnswerPostedHookForTesting; one relaxed load per answer.
extern std::atomic<void (*)()> answer_posted_hook;

// One event loop: a thread waiting on an epoll set of its connections and on
// an eventfd that other threads signal when they hand it a new connection or
// an answered call.
class RpcServer::Loop {
 public:
  explicit Loop(Shared* shared) : shared_(shared) {}
  ~Loop();

  Status Open();
  // `counters` (the loop's own, kept by Shared) count every call it serves.
  void Start(std::shared_ptr<Shared> shared, CallCounters* counters) {
    counters_ = counters;
    thread_ = std::thread(&Loop::Run, this, std::move(shared));
  }
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
  // Reads and answers a batch of frames: until a call stays in flight, the
  // socket has nothing more, the connection's budget for this round is
  // spent (it is then served again next round) or its unsent answers
  // reach kUnsentReadLimit; then sends the batch's answers at once.
  void Serve(Connection* connection);
  // Starts the call of the frame just read; true when it was answered at
  // once (kInline, unknown method), false when it stays in flight (the
  // answers before it sent first) or the connection was closed.
  bool StartCall(Connection* connection);
  // Frames the answer into `out` and counts the call; the send is left to
  // the end of the batch.
  void FinishCall(Connection* connection);
  // Sends pending answers, and counts the latency of the calls whose
  // answers the socket took; false when the send failed, and the
  // connection was closed (or, in a call, is closed once answered).
  bool Flush(Connection* connection);
  void Close(Connection* connection);
  // After Stop: closes every connection with no call in flight and no
  // answer left to send, and once the stop's grace is over those whose
  // peer has not taken their answers either. True while some still drain.
  bool CloseOnStop(Clock::time_point now);
  // Closes the connections whose peer has taken no answer bytes for
  // kWriteTimeoutMs, and those whose TLS handshake ran past its time.
  void DropStalled(Clock::time_point now);
  // Takes the next step of `connection`'s TLS handshake, if the round's
  // budget allows (else it is listed for the next round); true once the
  // session is set up, false while it is not or when it failed (closed).
  bool StepHandshake(Connection* connection);
  void CountRefused() EXCLUDES(shared_->mu);

  Shared* const shared_;
  std::shared_ptr<Shared> keep_;  // set by Run: Workers::Submit needs it
  CallCounters* counters_ = nullptr;  // set by Start; written by the loop thread only
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
  // Lent to the reader of the connection being served (see
  // FrameReader::ShareScratch): one receive takes every frame that came.
  std::unique_ptr<char[]> scratch_;
  // The calls of the connection being served answered into its `out` since
  // its last send, in order; empty outside Serve and FinishAnswered.
  std::vector<UnsentAnswer> batch_;
  size_t calls_in_flight_ = 0;
  // Connections whose answers wait for the peer to read (write_deadline
  // set), so that an idle loop need not look at every connection.
  size_t stalled_writers_ = 0;
  // Connections whose TLS handshake is not done, and the steps left in
  // this round (kHandshakesPerTurn, renewed when handshake_round_ moves).
  size_t handshakes_ = 0;
  uint64_t handshake_round_ = 0;
  int handshakes_left_ = 0;
  // An asynchronous call started since the pass hook last ran: the hook is
  // due, in this round if it has not run yet, else at once in the next.
  bool started_async_ = false;
  bool stop_seen_ = false;
  // Set with stop_seen_: until then a connection may still send what it
  // has left to answer (kStopGraceMs).
  Clock::time_point stop_deadline_;
  Clock::time_point next_write_check_;
};

}  // namespace kandb::kanrpc

#endif  // KANDB_RPC_LOOP_H_
