// kandb-meta-bench: a closed-loop load generator for the placement-driver
// server. Every connection keeps exactly one request outstanding and sends
// the next as soon as the previous answer arrived; with --pipeline N it
// keeps N in flight, writes the requests that refill the window in one send
// and takes the answers in request order. The connections are driven
// by a few threads (--threads, one by default), each running one event loop
// over non-blocking sockets for its share, so that the load generator takes
// little of the CPU it shares with the server it measures. Every answer is
// checked: timestamps increase, identifier ranges never overlap, the routed
// region covers the key. It prints a progress line each second on standard
// error and a final report (or --json) on standard output, and exits with
// status 1 when any call failed or any answer was wrong.
//
// For heartbeat capacity it can stand for a whole cluster of stores: it
// registers --stores stores, places every preloaded region on three of
// them, lets each heartbeat report --heartbeat-entries regions that one
// store leads, and with --store-heartbeats keeps every store Up through
// store heartbeats from a side thread.
//
// With --tls-* options every connection is a TLS session: the TCP connect,
// then the handshake, step by step as the socket allows, then the calls.
// With --reconnect every call has a connection of its own (connect,
// handshake, one call, close), so that the rate is one of new connections.
//
// With --redis the same connections, time keeping and report drive a Redis
// server over RESP (PING, SET), so that kandb-meta and Redis are measured
// by one and the same client. --method idle opens the connections, makes
// one call on each and holds them idle for the run, for the memory a
// server spends on connections that wait.

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "pdpb/messages.h"
#include "rpc/client.h"
#include "rpc/frame.h"
#include "rpc/sys_error.h"
#include "rpc/tls.h"
#include "rpc/transport.h"
#include "tools/command_line.h"
#include "tools/tls_options.h"
#include "tools/latency.h"
#include "tools/resp.h"
#include "tools/text.h"

namespace kandb::tools {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kProgram[] = "kandb-meta-bench";
// Region records per preload request: large enough to load 100,000 regions
// in a hundred calls, small enough to stay far below the frame limit.
constexpr size_t kPreloadBatch = 1000;
// With --value-bytes, the distinct records all connections together keep
// rewriting: one memtable's worth at the server's default write buffer, so
// that every flush writes a table of about this size and a merge of nine
// of them streams hundreds of MiB, as a server under heavy upserts does.
constexpr uint64_t kLargeValueWorkingSet = uint64_t{64} << 20;
// The store that the bench bootstraps the cluster with and names in its
// regions and heartbeats.
constexpr uint64_t kBenchStoreId = 1;
constexpr char kBenchStoreAddress[] = "127.0.0.1:20160";
// Stores 2..N answer at the ports after the bench store's.
constexpr uint64_t kBenchStorePort = 20160;
constexpr uint64_t kMaxStores = 10000;
// Replicas of each preloaded region once there are stores enough: what a
// server started with --target_replicas 3 asks for, so that auto-heal has
// nothing to add or remove and a heartbeat costs only its reading.
constexpr uint64_t kReplicas = 3;
// How often every store sends its store heartbeat during the run: well
// inside the silence after which a store counts as disconnected (20 s).
constexpr auto kStoreHeartbeatPeriod = std::chrono::seconds(2);
constexpr size_t kKeptMessages = 5;

// The kanrpc methods, then the Redis commands of --redis (kFirstRedis on).
enum Method { kTso, kAllocId, kGetRegion, kUpsertRegion, kHeartbeat, kScanRegions, kPing, kSet, kMethodCount };
constexpr int kFirstRedis = kPing;
const char* const kMethodNames[kMethodCount] = {"tso",       "alloc-id",     "get-region", "upsert-region",
                                                "heartbeat", "scan-regions", "ping",       "set"};
const char* const kRpcNames[kMethodCount] = {"Pd.Tso",          "Pd.AllocId",         "Pd.GetRegion",
                                             "Pd.UpsertRegion", "Pd.RegionHeartbeat", "Pd.ScanRegions",
                                             "",                ""};
// Share of each method in --method mix, in percent; the region scans of
// route caches are not part of it.
const int kMixWeights[kMethodCount] = {30, 15, 30, 15, 10, 0, 0, 0};
// SET writes keys among this many, as redis-benchmark -r 100000 does, with
// values of this many bytes unless --value-bytes says otherwise.
constexpr uint64_t kRedisKeys = 100000;
constexpr uint64_t kRedisValueBytes = 100;
// How often a connection that holds its socket idle looks whether the run
// is over.
constexpr auto kHoldCheck = std::chrono::milliseconds(100);
// What the receive buffer of a RESP connection grows by.
constexpr size_t kRespReceiveChunk = 16 << 10;

struct Config {
  std::string addr = "127.0.0.1:2379";
  std::string method;  // tso, or ping with --redis, unless given
  uint64_t conns = 1;
  uint64_t threads = 1;
  std::string duration;
  uint64_t requests = 0;
  uint64_t preload = 0;
  uint64_t count = 1;
  uint64_t timeout_ms = 5000;
  bool json = false;
  uint64_t value_bytes = 0;
  // Regions each connection rewrites in turn without preloaded regions.
  uint64_t own_regions = 1;
  uint64_t stores = 1;
  uint64_t heartbeat_entries = 1;
  bool store_heartbeats = false;
  int64_t duration_ms = 10000;
  bool mix = false;
  Method single = kTso;
  TlsOptions tls_options;
  bool reconnect = false;
  uint64_t scan_limit = pdpb::kScanRegionsDefaultLimit;
  bool redis = false;
  // Calls each connection keeps in flight.
  uint64_t pipeline = 1;
  // --method idle: one call per connection, then the socket is held idle.
  bool idle = false;

  // The regions a scan answers at most, as the server reads the limit.
  uint64_t ScanAnswers() const {
    return scan_limit == 0 ? pdpb::kScanRegionsDefaultLimit : std::min<uint64_t>(scan_limit, pdpb::kScanRegionsMaxLimit);
  }

  bool tls() const {
    return !tls_options.cert.empty() || !tls_options.key.empty() || !tls_options.ca.empty() ||
           !tls_options.server_name.empty();
  }
};

std::string TileKey(uint64_t i) {
  char key[32];
  std::snprintf(key, sizeof(key), "bench/%010llu", static_cast<unsigned long long>(i));
  return key;
}

// The regions the bench routes and rewrites: either `tiles` regions that
// cut the key space into disjoint ranges in key order (region i covers
// [TileKey(i), TileKey(i+1)), the first from -inf, the last to +inf), or,
// without preload, the one region that covers everything.
//
// Tile i is led by store (i mod stores) + 1 and has min(stores, 3) replicas.
// From three stores on, the other two come from the leader's group of
// three consecutive stores (the last one or two stores, outside any whole
// group, take theirs from the first group), so that a region's replicas
// always stand in three zones, store s being in zone s mod 3.
struct Regions {
  uint64_t first_id = 0;
  uint64_t tiles = 0;
  uint64_t stores = 1;

  uint64_t replicas() const { return std::min(stores, kReplicas); }

  // The stores holding tile i, its leader first.
  std::vector<uint64_t> Members(uint64_t i) const {
    const uint64_t leader = i % stores;
    std::vector<uint64_t> members = {leader + 1};
    if (stores < kReplicas) {
      for (uint64_t k = 1; k < stores; ++k) members.push_back((leader + k) % stores + 1);
      return members;
    }
    const uint64_t grouped = stores - stores % kReplicas;
    const uint64_t group = leader < grouped ? leader - leader % kReplicas : 0;
    for (uint64_t k = 1; k < kReplicas; ++k) members.push_back(group + (leader + k) % kReplicas + 1);
    return members;
  }

  pdpb::Region Tile(uint64_t i, uint64_t version) const {
    pdpb::Region region;
    region.id = first_id + i;
    if (i > 0) region.start_key = TileKey(i);
    if (i + 1 < tiles) region.end_key = TileKey(i + 1);
    region.epoch = {1, version};
    // Peer ids follow the region ids in the same allocated block.
    const std::vector<uint64_t> members = Members(i);
    for (size_t k = 0; k < members.size(); ++k) {
      region.peers.push_back(pdpb::Peer{first_id + tiles + i * members.size() + k, members[k], 0});
    }
    return region;
  }

  // Tiles led by store index `leader` (0-based): leader, leader + stores, ...
  uint64_t LedBy(uint64_t leader) const { return leader < tiles ? (tiles - leader + stores - 1) / stores : 0; }
};

// What all connections share while the load runs.
struct Shared {
  std::atomic<bool> stop{false};
  std::atomic<int64_t> budget{0};  // requests left to claim with --requests
  std::atomic<uint64_t> done{0};
  std::atomic<uint64_t> errors{0};
  std::atomic<uint64_t> check_failures{0};
  // The largest timestamp of any answer received so far: an answer to a
  // request sent after it was received must be above it.
  std::atomic<uint64_t> tso_high{0};
  std::mutex mu;
  std::vector<std::string> messages;  // the first few errors and check failures

  void Keep(const std::string& message) {
    std::lock_guard<std::mutex> lock(mu);
    if (messages.size() < kKeptMessages) messages.push_back(message);
  }
};

struct MethodStats {
  LatencyHistogram latency;
  uint64_t errors = 0;
};

struct Address {
  int family = 0;
  int protocol = 0;
  sockaddr_storage addr = {};
  socklen_t length = 0;
};

// The addresses of "host:port", in the resolver's order; none when the
// target does not parse or resolve.
std::vector<Address> Resolve(const std::string& target) {
  std::vector<Address> addresses;
  std::string host, port;
  if (!kanrpc::ParseTarget(target, &host, &port)) return addresses;
  addrinfo hints = {};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* list = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &list) != 0) return addresses;
  for (const addrinfo* ai = list; ai != nullptr; ai = ai->ai_next) {
    if (ai->ai_addrlen > sizeof(sockaddr_storage)) continue;
    Address a;
    a.family = ai->ai_family;
    a.protocol = ai->ai_protocol;
    std::memcpy(&a.addr, ai->ai_addr, ai->ai_addrlen);
    a.length = ai->ai_addrlen;
    addresses.push_back(a);
  }
  freeaddrinfo(list);
  return addresses;
}

// One answer off the wire: the id of the request it answers (kanrpc frames
// carry one; RESP replies follow their requests' order and carry none),
// whether the call succeeded, and the answer's payload or the failure's text.
struct Answer {
  uint64_t request_id = 0;
  bool ok = false;
  std::string text;
};

// How a connection's calls look on the wire. The connection appends its
// requests to its send buffer through it and takes the answers one at a
// time, oldest first, from what the transport has received. Each
// connection has its own; only its driver's thread touches it.
class Wire {
 public:
  virtual ~Wire() = default;
  // Starts over on a new connection's transport (null: none), dropping
  // every byte received and not yet taken.
  virtual void Reset(kanrpc::Transport* transport) = 0;
  // Appends the request of `method` under `request_id`; `request` holds its
  // encoding in this wire's terms (a message payload, a whole command).
  virtual void AppendRequest(uint64_t request_id, Method method, const std::string& request, std::string* out) = 0;
  // Takes the next whole answer into *answer with *got true, receiving
  // what the transport has when the buffered bytes do not hold one; *got
  // false when more must arrive first. A failure leaves the stream at an
  // unknown position: the connection closes it.
  virtual Status TakeAnswer(Answer* answer, bool* got) = 0;
  // Bytes received and not yet taken as an answer.
  virtual size_t buffered() const = 0;
  // Whether answers name the request they answer.
  virtual bool numbered() const = 0;
};

// kanrpc frames, read by the frame reader that the blocking client uses.
class KanrpcWire final : public Wire {
 public:
  void Reset(kanrpc::Transport* transport) override { reader_.Reset(transport); }
  void AppendRequest(uint64_t request_id, Method method, const std::string& request, std::string* out) override {
    kanrpc::AppendFrame(out, kanrpc::FrameType::kRequest, request_id, kRpcNames[method], request);
  }
  Status TakeAnswer(Answer* answer, bool* got) override {
    Status s = reader_.ReadAvailable(&frame_, got);
    if (!s.ok() || !*got) return s;
    answer->request_id = frame_.request_id;
    answer->ok = frame_.type == kanrpc::FrameType::kResponse;
    switch (frame_.type) {
      case kanrpc::FrameType::kResponse:
        answer->text = std::move(frame_.payload);
        break;
      case kanrpc::FrameType::kError:
        answer->text = "remote: " + frame_.payload;
        break;
      default:
        // Refused only after the id is checked, as the blocking client does.
        answer->text = "kanrpc: bad frame type";
        break;
    }
    return Status::OK();
  }
  size_t buffered() const override { return reader_.buffered(); }
  bool numbered() const override { return true; }

 private:
  kanrpc::FrameReader reader_{static_cast<kanrpc::Transport*>(nullptr)};
  kanrpc::Frame frame_;
};

// RESP to a Redis server: requests are whole commands, and the replies are
// parsed out of a buffer that takes as many bytes as the socket holds. A
// success keeps its type byte ("+PONG"), so that the check tells a status
// from a bulk; an error reply fails the call with its text.
class RespWire final : public Wire {
 public:
  void Reset(kanrpc::Transport* transport) override {
    transport_ = transport;
    start_ = end_ = 0;
  }
  void AppendRequest(uint64_t, Method, const std::string& request, std::string* out) override {
    out->append(request);
  }
  Status TakeAnswer(Answer* answer, bool* got) override {
    *got = false;
    for (;;) {
      size_t size = 0;
      Status s = resp::ParseReply(std::string_view(buf_.get() + start_, end_ - start_), &reply_, &size);
      if (!s.ok()) return s;
      if (size > 0) {
        start_ += size;
        if (start_ == end_) start_ = end_ = 0;
        answer->ok = reply_.type != '-';
        answer->text = answer->ok ? reply_.type + reply_.text : "remote: " + reply_.text;
        *got = true;
        return Status::OK();
      }
      MakeRoom();
      size_t n = 0;
      s = transport_->Recv(buf_.get() + end_, capacity_ - end_, &n);
      if (!s.ok() || n == 0) return s;
      end_ += n;
    }
  }
  size_t buffered() const override { return end_ - start_; }
  bool numbered() const override { return false; }

 private:
  // Free space after end_: the unread bytes move to the front, and the
  // buffer grows when they fill it (a long bulk reply).
  void MakeRoom() {
    if (start_ > 0) {
      std::memmove(buf_.get(), buf_.get() + start_, end_ - start_);
      end_ -= start_;
      start_ = 0;
    }
    if (end_ < capacity_) return;
    const size_t capacity = capacity_ + kRespReceiveChunk;
    auto grown = std::make_unique<char[]>(capacity);
    if (end_ > 0) std::memcpy(grown.get(), buf_.get(), end_);
    buf_ = std::move(grown);
    capacity_ = capacity;
  }

  kanrpc::Transport* transport_ = nullptr;
  std::unique_ptr<char[]> buf_;
  size_t capacity_ = 0;
  size_t start_ = 0;  // first byte not yet taken
  size_t end_ = 0;    // one past the last byte received
  resp::Reply reply_;
};

// A call a connection claimed: what it asks, the id it went on the wire
// under, when it was claimed, and what its answer is checked against.
struct Call {
  Method method = kTso;
  std::string request;  // encoded in the wire's terms
  uint64_t id = 0;
  Clock::time_point start;
  uint64_t tso_seen_before = 0;
  std::string key;
  uint64_t scan_tile = 0;                   // the tile holding key, for a scan
  std::vector<uint64_t> heartbeat_regions;  // sorted
};

class Connection;

// One driver thread's event loop over its share of the connections. The
// loop sleeps in epoll_wait until a socket is ready or the earliest time at
// which some connection has to act (a time-out, the end of a pause). From Run
// on, only the driver's thread touches it and its connections; their tallies
// are read once the thread has been joined.
class Driver {
 public:
  Driver() = default;
  ~Driver() {
    if (epoll_fd_ >= 0) close(epoll_fd_);
  }
  Driver(const Driver&) = delete;
  Driver& operator=(const Driver&) = delete;

  Status Open() {
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    if (epoll_fd_ < 0) return Status::Corruption("epoll_create1: " + kanrpc::ErrnoText(errno));
    return Status::OK();
  }
  void Add(Connection* connection);
  // Runs every connection until each has finished: the run is over, or the
  // request budget is used up.
  void Run();

  int epoll_fd() const { return epoll_fd_; }
  // A connection has to act at `when` unless a socket event comes first.
  void WakeAt(Clock::time_point when) { next_check_ = std::min(next_check_, when); }
  void Finished() { --active_; }
  // The tallies of its connections' calls: one set per driver rather than
  // per connection, so that ten thousand connections do not cost ten
  // thousand histograms.
  MethodStats* stats(Method m) { return &stats_[m]; }
  const MethodStats& stats(Method m) const { return stats_[m]; }

 private:
  int epoll_fd_ = -1;
  MethodStats stats_[kMethodCount];
  std::vector<Connection*> connections_;
  size_t active_ = 0;  // connections not finished
  // No connection's deadline is earlier: the time at which to look at them.
  Clock::time_point next_check_ = Clock::time_point::max();
};

// One connection with a window of --pipeline calls in flight (one by
// default): it writes as many requests as refill the window in one send,
// takes every answer the socket has, checks each against the oldest call
// in flight (answers come in request order), and refills. Only its
// driver's thread touches it while the load runs.
//
// A failure closes the socket and fails every call in flight, as the
// blocking client drops its connection after a failure, and the next calls
// connect again after a pause; so no socket is open while a connection
// pauses or has finished. With --method idle a connection makes one call
// and then holds its socket open and idle until the run is over.
class Connection {
 public:
  // `tls`, when not null, makes every connection a TLS session; it
  // outlives the connection.
  Connection(const Config& config, const Regions& regions, const kanrpc::TlsClientContext* tls, Shared* shared,
             uint64_t seed)
      : config_(config),
        regions_(regions),
        tls_(tls),
        shared_(shared),
        random_(seed),
        targets_(kanrpc::SplitTargets(config.addr)) {
    if (config.redis) {
      wire_ = std::make_unique<RespWire>();
      value_.assign(config.value_bytes, 'x');
    } else {
      wire_ = std::make_unique<KanrpcWire>();
    }
  }
  ~Connection() { CloseSocket(); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  void set_driver(Driver* driver) { driver_ = driver; }
  // A region of its own for upsert-region without preloaded regions.
  void set_own_region(uint64_t id) { own_region_ = id; }

  // Claims calls until the window is full and sends them; with none
  // claimed, waits for the answers still due, holds the socket of an idle
  // connection, or finishes once nothing is in flight.
  void Refill(Clock::time_point now) {
    size_t claimed = 0;
    while (calls_.size() < config_.pipeline && Claim(now)) ++claimed;
    if (claimed > 0) {
      redirects_ = 0;
      Attempt(now);
      return;
    }
    if (!calls_.empty()) {
      SetTimeout(now);
      if (!WatchTransport()) Failed("epoll_ctl: " + kanrpc::ErrnoText(errno), now);
      return;
    }
    if (config_.idle && used_ && !shared_->stop.load(std::memory_order_relaxed)) {
      state_ = State::kHolding;
      SetDeadline(now + kHoldCheck);
      return;
    }
    CloseSocket();
    state_ = State::kFinished;
    driver_->Finished();
  }

  // The socket is ready; what to do depends on what the connection waits for.
  void OnReady(Clock::time_point now) {
    switch (state_) {
      case State::kConnecting:
        FinishConnect(now);
        return;
      case State::kHandshaking:
        StepHandshake(now);
        return;
      case State::kSending:
        Flush(now);
        return;
      case State::kAwaiting:
        Receive(now);
        return;
      case State::kHolding:
        // Nothing was asked: the server closed the socket, or wrote what
        // no call answers. The connection makes its call again.
        shared_->errors.fetch_add(1, std::memory_order_relaxed);
        shared_->Keep(std::string(kMethodNames[config_.single]) + ": the server broke off an idle connection");
        CloseSocket();
        state_ = State::kPaused;
        SetDeadline(now + std::chrono::milliseconds(10));
        return;
      case State::kPaused:
      case State::kFinished:
        return;
    }
  }

  // Acts when the deadline of its wait has passed, and tells the driver the
  // next one.
  void CheckDeadline(Clock::time_point now) {
    if (state_ == State::kFinished) return;
    if (now >= deadline_) {
      switch (state_) {
        case State::kPaused:
        case State::kHolding:
          Refill(now);
          break;
        case State::kConnecting:
          CloseSocket();
          ConnectNextAddress(now);
          break;
        case State::kHandshaking:
        case State::kSending:
        case State::kAwaiting:
          Failed("kanrpc: io timeout", now);
          break;
        case State::kFinished:
          break;
      }
      return;  // every transition above set a new deadline or finished
    }
    driver_->WakeAt(deadline_);
  }

  const std::vector<std::pair<uint64_t, uint64_t>>& id_ranges() const { return id_ranges_; }

 private:
  enum class State {
    kConnecting,   // a non-blocking connect is under way
    kHandshaking,  // connected; the TLS session is being set up
    kSending,      // the requests did not fit the socket at once
    kAwaiting,     // the requests are sent; answers are due
    kHolding,      // --method idle: the call is made, the socket is kept idle
    kPaused,       // after a failed call, before the next one
    kFinished,
  };

  // Claims the next call, or says that the run is over (for an idle
  // connection: that it has made its call on this socket).
  bool Claim(Clock::time_point now) {
    if (shared_->stop.load(std::memory_order_relaxed) || (config_.idle && (used_ || !calls_.empty())) ||
        (config_.requests > 0 && shared_->budget.fetch_sub(1) <= 0)) {
      return false;
    }
    Call& call = calls_.emplace_back();
    call.method = config_.single;
    if (config_.mix) {
      int roll = percent_(random_);
      int m = 0;
      while (roll >= kMixWeights[m]) roll -= kMixWeights[m++];
      call.method = static_cast<Method>(m);
    }
    BuildRequest(&call);
    call.start = now;
    return true;
  }

  // Waits of every kind are bounded by the time-out; a pause by its length.
  void SetDeadline(Clock::time_point when) {
    deadline_ = when;
    driver_->WakeAt(when);
  }
  void SetTimeout(Clock::time_point now) { SetDeadline(now + std::chrono::milliseconds(config_.timeout_ms)); }

  // One attempt of the calls not yet sent: on the open connection, or on a
  // new one.
  void Attempt(Clock::time_point now) {
    reached_ = fd_ >= 0;
    if (fd_ >= 0) {
      Send(now);
      return;
    }
    addresses_ = Resolve(targets_[current_]);
    next_address_ = 0;
    ConnectNextAddress(now);
  }

  // Tries the target's addresses in turn until one accepts.
  void ConnectNextAddress(Clock::time_point now) {
    while (next_address_ < addresses_.size()) {
      const Address& a = addresses_[next_address_++];
      const int fd = socket(a.family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, a.protocol);
      if (fd < 0) continue;
      fd_ = fd;
      if (connect(fd, reinterpret_cast<const sockaddr*>(&a.addr), a.length) == 0) {
        Connected(now);
        return;
      }
      if (errno == EINPROGRESS && Watch(EPOLLOUT)) {
        state_ = State::kConnecting;
        SetTimeout(now);
        return;
      }
      CloseSocket();
    }
    Failed("cannot connect to " + targets_[current_], now);
  }

  void FinishConnect(Clock::time_point now) {
    int error = 0;
    socklen_t length = sizeof(error);
    if (getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
      CloseSocket();
      ConnectNextAddress(now);
      return;
    }
    Connected(now);
  }

  void Connected(Clock::time_point now) {
    const int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    reached_ = true;
    if (tls_ == nullptr) {
      transport_ = std::make_unique<kanrpc::SocketTransport>(fd_);
      wire_->Reset(transport_.get());
      Send(now);
      return;
    }
    std::string host, port;
    kanrpc::ParseTarget(targets_[current_], &host, &port);
    Status s = tls_->Connect(fd_, host, &transport_);
    if (!s.ok()) {
      Failed(s.message(), now);
      return;
    }
    state_ = State::kHandshaking;
    StepHandshake(now);
  }

  // One step of the TLS handshake; every step that has to wait is bounded
  // by the time-out, as every wait of a call is. A session that cannot be
  // set up fails the call like a connection that cannot be made.
  void StepHandshake(Clock::time_point now) {
    bool done = false;
    Status s = transport_->Handshake(&done);
    if (!s.ok()) {
      Failed(s.message(), now);
      return;
    }
    if (done) {
      wire_->Reset(transport_.get());
      Send(now);
      return;
    }
    if (!WatchTransport()) {
      Failed("epoll_ctl: " + kanrpc::ErrnoText(errno), now);
      return;
    }
    SetTimeout(now);
  }

  // Writes the requests of the calls not yet on this socket, each under a
  // new id; each attempt has its own, as the blocking client numbers them.
  // The send buffer is empty here: a window is refilled only once the
  // last one is sent, so a TLS session is always offered the same bytes
  // again after it took none.
  void Send(Clock::time_point now) {
    out_.clear();
    sent_ = 0;
    for (size_t i = written_; i < calls_.size(); ++i) {
      Call& call = calls_[i];
      call.id = next_request_id_++;
      wire_->AppendRequest(call.id, call.method, call.request, &out_);
    }
    written_ = calls_.size();
    state_ = State::kSending;
    Flush(now);
  }

  void Flush(Clock::time_point now) {
    SetTimeout(now);
    while (sent_ < out_.size()) {
      size_t n = 0;
      Status s = transport_->Send(out_.data() + sent_, out_.size() - sent_, &n);
      if (!s.ok()) {
        Failed(s.message(), now);
        return;
      }
      if (n == 0) {
        // The next try offers the same bytes again, as a TLS session needs.
        if (!WatchTransport()) Failed("epoll_ctl: " + kanrpc::ErrnoText(errno), now);
        return;
      }
      sent_ += n;
    }
    if (!Watch(EPOLLIN)) {
      Failed("epoll_ctl: " + kanrpc::ErrnoText(errno), now);
      return;
    }
    state_ = State::kAwaiting;
  }

  // Takes every answer that has arrived and checks each as the blocking
  // client does, against the oldest call in flight: the request id (kanrpc),
  // then success or failure, then the payload. Then refills the window.
  //
  // The wire receives until the transport has nothing more or no call is
  // left in flight, so bytes a TLS session decrypted ahead (which no socket
  // event announces) are never left behind while an answer is due, and a
  // connection with one call in flight receives once per answer.
  void Receive(Clock::time_point now) {
    const size_t buffered = wire_->buffered();
    bool answered = false;
    while (!calls_.empty()) {
      bool got = false;
      Status s = wire_->TakeAnswer(&answer_, &got);
      if (!s.ok()) {
        Failed(s.message(), now);
        return;
      }
      if (!got) break;
      answered = true;
      Call& call = calls_.front();
      if (wire_->numbered() && answer_.request_id != call.id) {
        Failed("kanrpc: request id mismatch", now);
        return;
      }
      if (!answer_.ok) {
        Failed(answer_.text, now);
        return;
      }
      if (!CheckAnswer(call, answer_.text)) {
        // The call went through, so the next goes to the same server, on a
        // new connection as after any failure.
        FailAll(config_.redis ? "resp: unexpected reply " + EscapeBytes(answer_.text) : "kanrpc: bad response payload",
                now);
        return;
      }
      Record("", now);
    }
    if (!answered) {
      // Part of an answer arrived: the wait starts over, as each wait of
      // the blocking client's read is bounded on its own.
      if (wire_->buffered() > buffered) SetTimeout(now);
      // A TLS session may have to write before it can read on.
      if (!WatchTransport()) Failed("epoll_ctl: " + kanrpc::ErrnoText(errno), now);
      return;
    }
    if (config_.reconnect) CloseSocket();  // no other call is in flight then
    Refill(now);
  }

  // A failed attempt. Within a cluster, a lone call follows a redirect to
  // the leader at once, and any other failure moves the next calls on, as
  // the blocking client does with one attempt.
  void Failed(const std::string& failure, Clock::time_point now) {
    CloseSocket();
    const bool redirected = targets_.size() > 1 && ChooseNextTarget(failure);
    if (redirected && calls_.size() == 1 && redirects_ < targets_.size()) {
      ++redirects_;
      Attempt(now);
      return;
    }
    FailAll(failure, now);
  }

  // True when the failure named the leader, which becomes the target.
  bool ChooseNextTarget(const std::string& failure) {
    const std::string_view text = failure;
    constexpr std::string_view kNotLeader = "remote: Unavailable: not leader; ";
    constexpr std::string_view kLeaderAt = "leader at ";
    const bool refused = text.starts_with(kNotLeader);
    if (refused && text.substr(kNotLeader.size()).starts_with(kLeaderAt)) {
      const std::string leader(text.substr(kNotLeader.size() + kLeaderAt.size()));
      auto it = std::find(targets_.begin(), targets_.end(), leader);
      if (it == targets_.end()) it = targets_.insert(targets_.end(), leader);
      current_ = static_cast<size_t>(it - targets_.begin());
      return true;
    }
    // A server that could not be reached, broke off or knows no leader: the
    // next call tries the next one. A server that refused the request keeps it.
    if (refused || !reached_ || !text.starts_with("remote: ")) current_ = (current_ + 1) % targets_.size();
    return false;
  }

  // The oldest call in flight is over: its latency is recorded, and it is
  // taken off.
  void Record(const std::string& failure, Clock::time_point now) {
    const Call& call = calls_.front();
    const auto nanos = std::chrono::duration_cast<std::chrono::nanoseconds>(now - call.start);
    MethodStats* stats = driver_->stats(call.method);
    stats->latency.Record(static_cast<uint64_t>(nanos.count()));
    shared_->done.fetch_add(1, std::memory_order_relaxed);
    if (failure.empty()) {
      used_ = true;
    } else {
      stats->errors++;
      shared_->errors.fetch_add(1, std::memory_order_relaxed);
      shared_->Keep(std::string(kMethodNames[call.method]) + ": " + failure);
    }
    calls_.pop_front();
    if (written_ > 0) --written_;
  }

  // Every call in flight failed with `failure` on a closed socket; the
  // next waits out a pause so that a server that is gone is not hammered.
  void FailAll(const std::string& failure, Clock::time_point now) {
    CloseSocket();
    while (!calls_.empty()) Record(failure, now);
    state_ = State::kPaused;
    SetDeadline(now + std::chrono::milliseconds(10));
  }

  // Polls the socket for `events`; false when epoll refused (errno says why).
  bool Watch(uint32_t events) {
    if (watched_ == events) return true;
    epoll_event event = {};
    event.events = events;
    event.data.ptr = this;
    if (epoll_ctl(driver_->epoll_fd(), watched_ == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd_, &event) != 0) {
      return false;
    }
    watched_ = events;
    return true;
  }

  // Polls the socket for what the transport's last call waits for.
  bool WatchTransport() { return Watch(transport_->wait_events() == POLLOUT ? EPOLLOUT : EPOLLIN); }

  void CloseSocket() {
    if (fd_ < 0) return;
    wire_->Reset(nullptr);
    transport_.reset();
    close(fd_);  // which also takes it out of the epoll set
    fd_ = -1;
    watched_ = 0;
    written_ = 0;
    used_ = false;
  }

  void CheckFailed(const std::string& what) {
    shared_->check_failures.fetch_add(1, std::memory_order_relaxed);
    shared_->Keep("check: " + what);
  }

  // Encodes the request of the call's method into call->request, noting
  // what its answer is checked against.
  void BuildRequest(Call* call) {
    switch (call->method) {
      case kTso:
        call->tso_seen_before = shared_->tso_high.load();
        EncodeTo(pdpb::TsoRequest{static_cast<uint32_t>(config_.count)}, &call->request);
        return;
      case kAllocId:
        EncodeTo(pdpb::AllocIdRequest{static_cast<uint32_t>(config_.count)}, &call->request);
        return;
      case kGetRegion:
        call->key = RandomKey();
        EncodeTo(pdpb::GetRegionRequest{call->key}, &call->request);
        return;
      case kUpsertRegion:
        EncodeTo(UpsertRequest(), &call->request);
        return;
      case kHeartbeat:
        EncodeTo(HeartbeatRequest(call), &call->request);
        return;
      case kScanRegions:
        call->key = RandomKey(&call->scan_tile);
        EncodeTo(pdpb::ScanRegionsRequest{call->key, "", static_cast<uint32_t>(config_.scan_limit)},
                 &call->request);
        return;
      case kPing:
        resp::AppendCommand(&call->request, {"PING"});
        return;
      case kSet: {
        char key[32];
        std::snprintf(key, sizeof(key), "key:%012llu", static_cast<unsigned long long>(random_() % kRedisKeys));
        resp::AppendCommand(&call->request, {"SET", key, value_});
        return;
      }
      case kMethodCount:
        return;
    }
  }

  // Decodes and checks the answer's payload; false when it does not decode
  // (or, from Redis, is not the status the command answers).
  bool CheckAnswer(const Call& call, const std::string& payload) {
    switch (call.method) {
      case kTso: {
        pdpb::TsoResponse response;
        if (!Decode(payload.size(), payload.data(), &response)) return false;
        CheckTso(call, response);
        return true;
      }
      case kAllocId: {
        pdpb::AllocIdResponse response;
        if (!Decode(payload.size(), payload.data(), &response)) return false;
        const uint64_t n = std::max<uint64_t>(1, config_.count);
        if (response.count != n) CheckFailed("alloc-id answered count " + std::to_string(response.count));
        // Overlaps across connections are found at the end, when all ranges are known.
        id_ranges_.emplace_back(response.first_id, response.count);
        return true;
      }
      case kGetRegion: {
        pdpb::GetRegionResponse response;
        if (!Decode(payload.size(), payload.data(), &response)) return false;
        CheckRoute(call, response);
        return true;
      }
      case kUpsertRegion: {
        pdpb::UpsertRegionResponse response;
        return Decode(payload.size(), payload.data(), &response);
      }
      case kHeartbeat: {
        pdpb::RegionHeartbeatResponse response;
        if (!Decode(payload.size(), payload.data(), &response)) return false;
        for (const pdpb::ScheduleCommand& command : response.commands) {
          const std::vector<uint64_t>& asked = call.heartbeat_regions;
          if (std::binary_search(asked.begin(), asked.end(), command.region_id)) continue;
          CheckFailed((asked.size() == 1 ? "heartbeat for region " + std::to_string(asked[0])
                                         : "heartbeat for " + std::to_string(asked.size()) + " regions") +
                      " answered a command for region " + std::to_string(command.region_id));
        }
        return true;
      }
      case kScanRegions: {
        pdpb::ScanRegionsResponse response;
        if (!Decode(payload.size(), payload.data(), &response)) return false;
        CheckScan(call, response);
        return true;
      }
      case kPing:
        return payload == "+PONG";
      case kSet:
        return payload == "+OK";
      case kMethodCount:
        break;
    }
    return true;
  }

  void CheckTso(const Call& call, const pdpb::TsoResponse& response) {
    const uint64_t n = std::max<uint64_t>(1, config_.count);
    if (response.count != n) CheckFailed("tso answered count " + std::to_string(response.count));
    if (response.timestamp <= last_timestamp_) {
      CheckFailed("timestamp " + std::to_string(response.timestamp) + " not above this connection's previous " +
                  std::to_string(last_timestamp_));
    }
    if (response.timestamp <= call.tso_seen_before) {
      CheckFailed("timestamp " + std::to_string(response.timestamp) + " not above " +
                  std::to_string(call.tso_seen_before) + ", answered before the request was sent");
    }
    last_timestamp_ = response.timestamp + n - 1;
    uint64_t high = shared_->tso_high.load();
    while (high < last_timestamp_ && !shared_->tso_high.compare_exchange_weak(high, last_timestamp_)) {
    }
  }

  void CheckRoute(const Call& call, const pdpb::GetRegionResponse& response) {
    const std::string& key = call.key;
    const pdpb::Region& r = response.region;
    const bool covers =
        (r.start_key.empty() || r.start_key <= key) && (r.end_key.empty() || key < r.end_key);
    if (!covers) CheckFailed("region " + std::to_string(r.id) + " does not cover key " + EscapeBytes(key));
    if (!r.peers.empty() && !(response.leader == r.peers[0])) {
      CheckFailed("leader of region " + std::to_string(r.id) + " is not its first peer");
    }
  }

  // A scan from inside the preloaded regions answers the tiles from the
  // one holding its start key on, in key order, as many as the limit or
  // as there are left; each presents one of its peers as leader.
  // Without preloaded regions, only the order and the first region are
  // known.
  void CheckScan(const Call& call, const pdpb::ScanRegionsResponse& response) {
    const uint64_t tile = call.scan_tile;
    const std::string from = "scan from " + EscapeBytes(call.key) + ": ";
    if (response.regions.empty()) {
      CheckFailed(from + "no regions");
      return;
    }
    const pdpb::Region& first = response.regions.front().region;
    for (size_t k = 0; k < response.regions.size(); ++k) {
      const pdpb::ScannedRegion& entry = response.regions[k];
      const pdpb::Region* prev = k > 0 ? &response.regions[k - 1].region : nullptr;
      // The preloaded regions leave no gap; any regions come in key order.
      if (prev != nullptr && (regions_.tiles > 0 ? entry.region.start_key != prev->end_key
                                                 : entry.region.start_key <= prev->start_key)) {
        CheckFailed(from + "region " + std::to_string(entry.region.id) + " does not follow region " +
                    std::to_string(prev->id));
        return;
      }
      const auto& peers = entry.region.peers;
      if (!peers.empty() && std::find(peers.begin(), peers.end(), entry.leader) == peers.end()) {
        CheckFailed(from + "the leader of region " + std::to_string(entry.region.id) + " is not one of its peers");
        return;
      }
    }
    if (regions_.tiles == 0) return;
    const uint64_t wanted = std::min(config_.ScanAnswers(), regions_.tiles - tile);
    if (response.regions.size() != wanted || first.id != regions_.first_id + tile) {
      CheckFailed(from + std::to_string(response.regions.size()) + " regions from region " + std::to_string(first.id) +
                  ", wanted " + std::to_string(wanted) + " from region " +
                  std::to_string(regions_.first_id + tile));
    }
  }

  std::string RandomKey(uint64_t* chosen_tile = nullptr) {
    if (regions_.tiles > 0) {
      std::uniform_int_distribution<uint64_t> tile(0, regions_.tiles - 1);
      const uint64_t t = tile(random_);
      if (chosen_tile != nullptr) *chosen_tile = t;
      // Inside a tile: its start key with a suffix, so that keys fall both on
      // and between region boundaries.
      std::string key = TileKey(t);
      if (random_() % 2 == 0) key += "/" + std::to_string(random_() % 1000);
      return key;
    }
    return "bench/key/" + std::to_string(random_());
  }

  pdpb::UpsertRegionRequest UpsertRequest() {
    pdpb::UpsertRegionRequest request;
    if (regions_.tiles > 0) {
      // Rewrites a tile with the same range and a later version, so that
      // routing stays as preloaded while the records keep changing.
      std::uniform_int_distribution<uint64_t> tile(0, regions_.tiles - 1);
      request.regions.push_back(regions_.Tile(tile(random_), ++version_));
    } else {
      // The connection's regions in turn, each with its peer id right after
      // its own; a padded start key makes the record --value-bytes larger.
      const uint64_t id = own_region_ + 2 * (next_own_++ % config_.own_regions);
      pdpb::Region region;
      region.id = id;
      region.start_key = "bench/own/" + std::to_string(id) + "/";
      region.start_key.append(config_.value_bytes, 'v');
      region.end_key = "bench/own/" + std::to_string(id) + "0";
      region.epoch = {1, ++version_};
      region.peers.push_back(pdpb::Peer{id + 1, kBenchStoreId, 0});
      request.regions.push_back(std::move(region));
    }
    return request;
  }

  // A store's heartbeat, as its leader sends it: the next
  // --heartbeat-entries regions it leads from a random one on, wrapping
  // around, each with the members its record lists.
  pdpb::RegionHeartbeatRequest HeartbeatRequest(Call* call) {
    pdpb::RegionHeartbeatRequest request;
    std::vector<uint64_t>& asked = call->heartbeat_regions;
    if (regions_.tiles == 0) {
      request.store_id = kBenchStoreId;
      pdpb::RegionHeartbeatEntry entry;
      entry.region_id = regions_.first_id;
      entry.member_store_ids = {kBenchStoreId};
      request.regions.push_back(entry);
      asked.push_back(entry.region_id);
      return request;
    }
    const uint64_t leader = regions_.stores > 1 ? random_() % std::min(regions_.stores, regions_.tiles) : 0;
    const uint64_t led = regions_.LedBy(leader);
    const uint64_t from = random_() % led;
    request.store_id = leader + 1;
    for (uint64_t k = 0; k < std::min(config_.heartbeat_entries, led); ++k) {
      const uint64_t tile = leader + regions_.stores * ((from + k) % led);
      pdpb::RegionHeartbeatEntry entry;
      entry.region_id = regions_.first_id + tile;
      entry.member_store_ids = regions_.Members(tile);
      request.regions.push_back(std::move(entry));
      asked.push_back(regions_.first_id + tile);
    }
    std::sort(asked.begin(), asked.end());
    return request;
  }

  const Config& config_;
  const Regions& regions_;
  const kanrpc::TlsClientContext* const tls_;
  Shared* const shared_;
  Driver* driver_ = nullptr;
  std::mt19937_64 random_;
  std::uniform_int_distribution<int> percent_{0, 99};

  // The servers calls may go to, and the one they go to.
  std::vector<std::string> targets_;
  size_t current_ = 0;
  // The addresses of the target being connected, and the next to try.
  std::vector<Address> addresses_;
  size_t next_address_ = 0;
  int fd_ = -1;
  uint32_t watched_ = 0;  // epoll events the socket is registered for; 0 when it is not
  // The bytes of fd_ go through it once connected (and the TLS session, if
  // any, is set up); the wire reads through it.
  std::unique_ptr<kanrpc::Transport> transport_;
  std::unique_ptr<Wire> wire_;
  std::string value_;  // what SET writes

  State state_ = State::kPaused;
  Clock::time_point deadline_;
  // The calls in flight, oldest first; the first written_ of them are on
  // the socket.
  std::deque<Call> calls_;
  size_t written_ = 0;
  size_t redirects_ = 0;
  bool reached_ = false;  // this attempt got a connection
  bool used_ = false;     // a call on this socket succeeded
  uint64_t next_request_id_ = 1;
  std::string out_;  // the requests being written
  size_t sent_ = 0;  // bytes of out_ the socket took
  Answer answer_;

  uint64_t last_timestamp_ = 0;
  uint64_t version_ = 1;
  uint64_t own_region_ = 0;
  uint64_t next_own_ = 0;
  std::vector<std::pair<uint64_t, uint64_t>> id_ranges_;  // first id, count
};

void Driver::Add(Connection* connection) {
  connection->set_driver(this);
  connections_.push_back(connection);
}

void Driver::Run() {
  active_ = connections_.size();
  for (Connection* c : connections_) c->Refill(Clock::now());
  epoll_event events[64];
  while (active_ > 0) {
    Clock::time_point now = Clock::now();
    if (now >= next_check_) {
      next_check_ = Clock::time_point::max();
      for (Connection* c : connections_) c->CheckDeadline(now);
      if (active_ == 0) break;
    }
    // Rounded up, so that the loop does not wake just before the deadline.
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next_check_ - now).count();
    const int n = epoll_wait(epoll_fd_, events, static_cast<int>(std::size(events)),
                             static_cast<int>(std::min<int64_t>(wait, INT32_MAX)));
    if (n < 0 && errno != EINTR) {
      std::fprintf(stderr, "%s: epoll_wait: %s\n", kProgram, kanrpc::ErrnoText(errno).c_str());
      std::abort();
    }
    for (int i = 0; i < n; ++i) static_cast<Connection*>(events[i].data.ptr)->OnReady(Clock::now());
  }
}

Status AllocIds(kanrpc::RpcClient* client, uint64_t count, uint64_t* first) {
  pdpb::AllocIdResponse response;
  Status s = client->Call("Pd.AllocId", pdpb::AllocIdRequest{static_cast<uint32_t>(count)}, &response);
  if (s.ok()) *first = response.first_id;
  return s;
}

std::string StoreAddress(uint64_t store_id) {
  return "127.0.0.1:" + std::to_string(kBenchStorePort + store_id - 1);
}

// One store heartbeat from every registered store, each in its zone and
// with statistics that match the regions it holds.
Status SendStoreHeartbeats(kanrpc::RpcClient* client, const Regions& regions) {
  constexpr uint64_t kCapacity = uint64_t{1} << 40;
  for (uint64_t id = 1; id <= regions.stores; ++id) {
    pdpb::StoreHeartbeatRequest request;
    request.store.id = id;
    request.store.address = StoreAddress(id);
    std::string zone = "z";
    zone += std::to_string(id % 3);
    request.store.labels = {pdpb::StoreLabel{"zone", std::move(zone)}};
    request.stats.capacity = kCapacity;
    request.stats.available = kCapacity / 4 * 3;
    request.stats.used_size = kCapacity / 4;
    request.stats.region_count = regions.tiles * regions.replicas() / regions.stores;
    request.stats.leader_count = regions.LedBy(id - 1);
    pdpb::StoreHeartbeatResponse response;
    Status s = client->Call("Pd.StoreHeartbeat", request, &response);
    if (!s.ok()) {
      std::string message = "store heartbeat of store ";
      message += std::to_string(id);
      message += ": ";
      message += s.message();
      return Status(s.code(), std::move(message));
    }
  }
  return Status::OK();
}

// Whether the server holds the tiles of an earlier run with as many of
// them: `first` (the region covering the empty key) is tile 0, and the
// region covering the last tile's start is the last tile, ids in a row
// from it. Then sets regions->first_id.
Status HoldsTiles(kanrpc::RpcClient* client, const pdpb::Region& first, Regions* regions, bool* held) {
  *held = false;
  Regions candidate = *regions;
  candidate.first_id = first.id;
  const pdpb::Region head = candidate.Tile(0, 1);
  if (first.start_key != head.start_key || first.end_key != head.end_key) return Status::OK();
  const pdpb::Region tail = candidate.Tile(candidate.tiles - 1, 1);
  pdpb::GetRegionResponse last;
  Status s = client->Call("Pd.GetRegion", pdpb::GetRegionRequest{tail.start_key}, &last);
  if (!s.ok()) return s;
  if (last.region.id != tail.id || last.region.start_key != tail.start_key || last.region.end_key != tail.end_key) {
    return Status::OK();
  }
  regions->first_id = first.id;
  *held = true;
  return Status::OK();
}

// Bootstraps the cluster unless it exists, registers the stores, preloads
// the regions (unless the server holds them from an earlier run) and, with
// --store-heartbeats, makes every store take part.
Status Prepare(const Config& config, const kanrpc::RpcClientOptions& load_options, bool needs_cluster,
               Regions* regions) {
  kanrpc::RpcClientOptions options = load_options;
  options.timeout_ms = static_cast<int32_t>(std::max<uint64_t>(config.timeout_ms, 60000));
  options.attempts = 1;
  kanrpc::RpcClient client(config.addr, options);
  pdpb::TsoResponse tso;
  Status s = client.Call("Pd.Tso", pdpb::TsoRequest{1}, &tso);
  if (!s.ok()) return s;
  if (!needs_cluster && config.preload == 0) return Status::OK();

  regions->tiles = config.preload;
  regions->stores = config.stores;
  pdpb::GetRegionResponse probe;
  s = client.Call("Pd.GetRegion", pdpb::GetRegionRequest{""}, &probe);
  const bool bootstrapped = s.ok() || s.message().find("cluster not bootstrapped") == std::string::npos;
  if (s.ok() && config.preload > 0) {
    bool held = false;
    Status found = HoldsTiles(&client, probe.region, regions, &held);
    if (!found.ok()) return found;
    if (held) {
      std::fprintf(stderr, "kept %llu regions preloaded before (ids %llu..%llu)\n",
                   static_cast<unsigned long long>(regions->tiles),
                   static_cast<unsigned long long>(regions->first_id),
                   static_cast<unsigned long long>(regions->first_id + regions->tiles - 1));
      if (config.store_heartbeats) return SendStoreHeartbeats(&client, *regions);
      return Status::OK();
    }
  }

  // Ids for the regions and, right after them, their peers.
  const uint64_t wanted = config.preload > 0 ? (1 + regions->replicas()) * config.preload : 2;
  if (wanted > UINT32_MAX) return Status::InvalidArgument("too many regions to preload");
  s = AllocIds(&client, wanted, &regions->first_id);
  if (!s.ok()) return s;
  if (!bootstrapped) {
    pdpb::BootstrapRequest request;
    request.store = pdpb::Store{kBenchStoreId, kBenchStoreAddress, 0};
    if (regions->tiles > 0) {
      request.region = regions->Tile(0, 1);
    } else {
      request.region.id = regions->first_id;
      request.region.epoch = {1, 1};
      request.region.peers.push_back(pdpb::Peer{regions->first_id + 1, kBenchStoreId, 0});
    }
    pdpb::BootstrapResponse response;
    s = client.Call("Pd.Bootstrap", request, &response);
    if (!s.ok()) return s;
  }
  // Bootstrapping an existing cluster is how a store registers itself.
  for (uint64_t id = 2; id <= config.stores; ++id) {
    pdpb::BootstrapRequest request;
    request.store = pdpb::Store{id, StoreAddress(id), 0};
    pdpb::BootstrapResponse response;
    s = client.Call("Pd.Bootstrap", request, &response);
    if (!s.ok()) return s;
    if (!response.already_bootstrapped) return Status::Corruption("store " + std::to_string(id) + " bootstrapped the cluster");
  }
  const auto start = std::chrono::steady_clock::now();
  for (uint64_t i = 0; i < regions->tiles; i += kPreloadBatch) {
    pdpb::UpsertRegionRequest request;
    for (uint64_t j = i; j < std::min(regions->tiles, i + kPreloadBatch); ++j) {
      request.regions.push_back(regions->Tile(j, 1));
    }
    pdpb::UpsertRegionResponse response;
    s = client.Call("Pd.UpsertRegion", request, &response);
    if (!s.ok()) return s;
  }
  if (regions->tiles > 0) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::fprintf(stderr, "preloaded %llu regions (ids %llu..%llu) in %.2f s\n",
                 static_cast<unsigned long long>(regions->tiles), static_cast<unsigned long long>(regions->first_id),
                 static_cast<unsigned long long>(regions->first_id + regions->tiles - 1), seconds);
  }
  if (config.stores > 1) std::fprintf(stderr, "registered %llu stores\n", static_cast<unsigned long long>(config.stores));
  if (config.store_heartbeats) return SendStoreHeartbeats(&client, *regions);
  return Status::OK();
}

// Identifier ranges of all connections must be pairwise disjoint.
uint64_t CountOverlaps(std::vector<std::pair<uint64_t, uint64_t>> ranges, Shared* shared) {
  std::sort(ranges.begin(), ranges.end());
  uint64_t overlaps = 0;
  for (size_t i = 1; i < ranges.size(); ++i) {
    const auto& prev = ranges[i - 1];
    if (ranges[i].first < prev.first + prev.second) {
      if (overlaps++ == 0) {
        shared->Keep("check: identifier ranges overlap: " + std::to_string(prev.first) + "+" +
                     std::to_string(prev.second) + " and " + std::to_string(ranges[i].first) + "+" +
                     std::to_string(ranges[i].second));
      }
    }
  }
  return overlaps;
}

// Every connection holds a descriptor; the soft limit (often 1024) must not
// cap --conns below what the system allows this process.
void RaiseDescriptorLimit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    std::fprintf(stderr, "%s: cannot raise the descriptor limit: %s\n", kProgram, kanrpc::ErrnoText(errno).c_str());
  }
}

double Ms(uint64_t nanos) { return static_cast<double>(nanos) / 1e6; }

nlohmann::json LatencyJson(const LatencyHistogram& h) {
  return nlohmann::json{{"p50", Ms(h.Percentile(0.50))},  {"p90", Ms(h.Percentile(0.90))},
                        {"p99", Ms(h.Percentile(0.99))},  {"p999", Ms(h.Percentile(0.999))},
                        {"max", Ms(h.max())}};
}

std::string LatencyText(const LatencyHistogram& h) {
  char text[160];
  std::snprintf(text, sizeof(text), "p50 %.3f ms  p90 %.3f ms  p99 %.3f ms  p999 %.3f ms  max %.3f ms",
                Ms(h.Percentile(0.50)), Ms(h.Percentile(0.90)), Ms(h.Percentile(0.99)), Ms(h.Percentile(0.999)),
                Ms(h.max()));
  return text;
}

int Main(int argc, char** argv) {
  Config config;
  CommandLine cl(kProgram, "A closed-loop load generator for the kandb-meta server; checks every answer.");
  cl.AddString("addr", &config.addr, "server address HOST:PORT, or the servers of a replicated cluster H1:P1,H2:P2,... (default 127.0.0.1:2379)");
  cl.AddString("method", &config.method,
               "tso, alloc-id, get-region, upsert-region, heartbeat, scan-regions, mix or idle; with --redis "
               "ping, set or idle (default tso, with --redis ping)");
  cl.AddUint("conns", &config.conns, 65536, "connections, each with --pipeline requests outstanding (default 1)");
  cl.AddUint("threads", &config.threads, 4096,
             "threads driving the connections, one event loop each (default 1, at most --conns)");
  cl.AddString("duration", &config.duration, "how long to run, e.g. 500ms, 3s, 2m (default 10s)");
  cl.AddUint("requests", &config.requests, INT64_MAX, "stop after this many requests in all instead");
  cl.AddUint("preload-regions", &config.preload, UINT32_MAX / 2,
             "bootstrap if needed and write N regions with disjoint ranges first, in batches of 1000");
  cl.AddUint("count", &config.count, UINT32_MAX, "timestamps or identifiers per request (default 1)");
  cl.AddUint("timeout-ms", &config.timeout_ms, INT32_MAX, "time-out of every wait, in milliseconds (default 5000)");
  cl.AddSwitch("json", &config.json, "print the final report as JSON");
  cl.AddUint("value-bytes", &config.value_bytes, 1u << 20,
             "upsert-region without preloaded regions: pad each region record by N bytes, and let the "
             "connections rewrite in turn enough regions of their own to hold 64 MiB of distinct records "
             "(default 0: one small region each); with --redis, the bytes of every SET's value (default 100)");
  cl.AddUint("stores", &config.stores, kMaxStores,
             "register N stores first: store 1 bootstraps, stores 2..N register on the cluster; from 3 on, "
             "every preloaded region has replicas on 3 of them (default 1)");
  cl.AddUint("heartbeat-entries", &config.heartbeat_entries, 100000,
             "regions each heartbeat reports: consecutive ones of those its store leads, among the preloaded "
             "regions (default 1)");
  cl.AddSwitch("store-heartbeats", &config.store_heartbeats,
               "send a store heartbeat for every store first and every 2 s during the run, so that the "
               "server schedules by what the stores report");
  cl.AddUint("scan-limit", &config.scan_limit, UINT32_MAX,
             "scan-regions: regions each scan asks for (default 1000; 0 leaves it to the server)");
  AddTlsOptions(&cl, &config.tls_options);
  cl.AddSwitch("reconnect", &config.reconnect,
               "make every call on a new connection: connect, TLS handshake if any, one call, close; the "
               "throughput is then new connections per second");
  cl.AddSwitch("redis", &config.redis,
               "drive a Redis server over RESP instead: ping sends PING, set sends SET key:NNNNNNNNNNNN with "
               "random keys among 100000 and --value-bytes bytes (default 100)");
  cl.AddUint("pipeline", &config.pipeline, 4096,
             "calls each connection keeps in flight, the requests refilling the window written in one send "
             "and the answers taken in order (default 1)");
  cl.SetEpilogue(
      "get-region, upsert-region, heartbeat, scan-regions and mix bootstrap the cluster when it\n"
      "is not (store 1, one region over all keys, or the first preloaded region). With preloaded\n"
      "regions, get-region routes keys inside them, upsert-region rewrites them with a later\n"
      "version, heartbeat reports them, and scan-regions scans from keys inside them and checks\n"
      "the count of every answer. A server that already holds the regions a run with the same\n"
      "--preload-regions wrote keeps them: they are not written again. Over TLS a failed handshake counts as a failed\n"
      "call, as a failed connect does. With --pipeline a failure closes the connection and\n"
      "fails every call in flight on it. idle makes one call on every connection (tso, or\n"
      "PING with --redis) and then holds them all open and idle for --duration, for the\n"
      "server's memory per connection. Exit status: 0 no error and no wrong answer,\n"
      "1 some call failed or an answer was wrong, 2 bad command line or the setup failed.\n");
  std::vector<std::string> args(argv + 1, argv + argc);
  if (int rc = cl.Parse(args, stdout, stderr); rc >= 0) return rc;
  auto usage_error = [](const std::string& message) {
    std::fprintf(stderr, "%s: %s\n(see %s --help)\n", kProgram, message.c_str(), kProgram);
    return kExitUsage;
  };
  if (config.method.empty()) config.method = config.redis ? "ping" : "tso";
  if (config.method == "mix") {
    config.mix = true;
  } else if (config.method == "idle") {
    config.idle = true;
    config.single = config.redis ? kPing : kTso;
  } else {
    auto it = std::find_if(std::begin(kMethodNames), std::end(kMethodNames),
                           [&](const char* name) { return config.method == name; });
    if (it == std::end(kMethodNames)) return usage_error("unknown method '" + config.method + "'");
    config.single = static_cast<Method>(it - std::begin(kMethodNames));
  }
  if (config.redis) {
    if (config.mix || (!config.idle && config.single < kFirstRedis)) {
      return usage_error("with --redis, --method is ping, set or idle");
    }
    if (config.preload > 0 || config.stores > 1 || config.heartbeat_entries > 1 || config.store_heartbeats) {
      return usage_error("--redis drives no cluster: give no --preload-regions, --stores, --heartbeat-entries "
                         "or --store-heartbeats");
    }
    if (config.tls()) return usage_error("--redis speaks plain TCP: give no --tls-* options");
    if (config.value_bytes == 0) config.value_bytes = kRedisValueBytes;
  } else if (!config.idle && config.single >= kFirstRedis) {
    return usage_error("--method " + config.method + " is a Redis command: give --redis");
  }
  if (config.pipeline == 0) return usage_error("--pipeline must be at least 1");
  if (config.pipeline > 1 && config.reconnect) {
    return usage_error("--pipeline keeps calls in flight on one connection: give it without --reconnect");
  }
  if (config.idle && (config.requests > 0 || config.reconnect)) {
    return usage_error("--method idle holds its connections for --duration: give no --requests or --reconnect");
  }
  if (config.conns == 0) return usage_error("--conns must be at least 1");
  if (config.value_bytes > 0 && config.preload > 0) {
    return usage_error("--value-bytes pads the connections' own regions: give it without --preload-regions");
  }
  if (config.value_bytes > 0 && !config.redis) {
    const uint64_t per_conn = config.value_bytes * config.conns;
    config.own_regions = std::max<uint64_t>(1, (kLargeValueWorkingSet + per_conn - 1) / per_conn);
  }
  if (config.threads == 0) return usage_error("--threads must be at least 1");
  if (config.stores == 0) return usage_error("--stores must be at least 1");
  if (config.heartbeat_entries == 0) return usage_error("--heartbeat-entries must be at least 1");
  if (config.heartbeat_entries > 1 && config.preload < config.heartbeat_entries * config.stores) {
    // Each store then leads at least as many regions as a heartbeat reports.
    return usage_error("--heartbeat-entries " + std::to_string(config.heartbeat_entries) +
                       " needs --preload-regions of at least " +
                       std::to_string(config.heartbeat_entries * config.stores) + " (entries x stores)");
  }
  if (!config.duration.empty() && config.requests > 0) return usage_error("give --duration or --requests, not both");
  if (!config.duration.empty()) {
    Status s = ParseDurationMillis(config.duration, &config.duration_ms);
    if (!s.ok()) return usage_error("--duration: " + s.message());
  }

  // Every client of the run, the load's and the setup's, speaks TLS alike.
  kanrpc::RpcClientOptions client_options;
  std::shared_ptr<const kanrpc::TlsClientContext> tls;
  if (Status s = ClientTls(config.tls_options, &tls); !s.ok()) return usage_error(s.message());
  client_options.tls = tls;

  const bool needs_cluster = config.mix || config.single == kGetRegion || config.single == kUpsertRegion ||
                             config.single == kHeartbeat || config.single == kScanRegions || config.stores > 1 ||
                             config.store_heartbeats;
  RaiseDescriptorLimit();
  Regions regions;
  Status s = config.redis ? Status::OK() : Prepare(config, client_options, needs_cluster, &regions);
  if (!s.ok()) {
    std::fprintf(stderr, "%s: setup failed: %s\n", kProgram, s.message().c_str());
    return kExitUsage;
  }

  Shared shared;
  shared.budget = static_cast<int64_t>(config.requests);
  std::vector<std::unique_ptr<Connection>> connections;
  std::random_device seed_source;
  const uint64_t seed = (static_cast<uint64_t>(seed_source()) << 32) | seed_source();
  for (uint64_t i = 0; i < config.conns; ++i) {
    connections.push_back(std::make_unique<Connection>(config, regions, tls.get(), &shared, seed + i));
  }
  if ((config.mix || config.single == kUpsertRegion) && regions.tiles == 0) {
    // Each connection rewrites a region of its own: a narrow range, with a
    // peer id right after the region id.
    uint64_t first = 0;
    kanrpc::RpcClient client(config.addr, client_options);
    s = AllocIds(&client, 2 * config.conns * config.own_regions, &first);
    if (!s.ok()) {
      std::fprintf(stderr, "%s: setup failed: %s\n", kProgram, s.message().c_str());
      return kExitUsage;
    }
    for (uint64_t i = 0; i < config.conns; ++i) connections[i]->set_own_region(first + 2 * i * config.own_regions);
  }

  // Connection i runs on driver i mod the thread count.
  std::vector<std::unique_ptr<Driver>> drivers;
  for (uint64_t i = 0; i < std::min(config.threads, config.conns); ++i) {
    drivers.push_back(std::make_unique<Driver>());
    s = drivers.back()->Open();
    if (!s.ok()) {
      std::fprintf(stderr, "%s: setup failed: %s\n", kProgram, s.message().c_str());
      return kExitUsage;
    }
  }
  for (uint64_t i = 0; i < config.conns; ++i) drivers[i % drivers.size()]->Add(connections[i].get());

  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (auto& d : drivers) threads.emplace_back([driver = d.get()] { driver->Run(); });

  // The stores stay Up while the load runs.
  std::atomic<bool> over{false};
  std::thread store_heartbeats;
  if (config.store_heartbeats) {
    store_heartbeats = std::thread([&] {
      kanrpc::RpcClientOptions options = client_options;
      options.timeout_ms = static_cast<int32_t>(config.timeout_ms);
      options.attempts = 1;
      kanrpc::RpcClient client(config.addr, options);
      auto next = std::chrono::steady_clock::now() + kStoreHeartbeatPeriod;
      while (!over.load()) {
        if (std::chrono::steady_clock::now() < next) {
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
          continue;
        }
        next += kStoreHeartbeatPeriod;
        Status sent = SendStoreHeartbeats(&client, regions);
        if (!sent.ok()) {
          shared.errors.fetch_add(1);
          shared.Keep("store-heartbeat: " + sent.message());
        }
      }
    });
  }

  // Progress once a second until the duration is over or the request budget
  // is used up.
  std::atomic<int> running{static_cast<int>(threads.size())};
  std::thread waiter([&] {
    for (std::thread& t : threads) t.join();
    running = 0;
  });
  uint64_t last_done = 0;
  int second = 0;
  while (running.load() > 0) {
    const auto next = start + std::chrono::seconds(second + 1);
    while (running.load() > 0 && std::chrono::steady_clock::now() < next) {
      const auto elapsed = std::chrono::steady_clock::now() - start;
      if (config.requests == 0 && elapsed >= std::chrono::milliseconds(config.duration_ms)) shared.stop = true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (running.load() == 0) break;
    ++second;
    const uint64_t done = shared.done.load();
    std::fprintf(stderr, "[%4ds] %8llu req/s  total %llu  errors %llu  wrong answers %llu\n", second,
                 static_cast<unsigned long long>(done - last_done), static_cast<unsigned long long>(done),
                 static_cast<unsigned long long>(shared.errors.load()),
                 static_cast<unsigned long long>(shared.check_failures.load()));
    last_done = done;
  }
  waiter.join();
  over = true;
  if (store_heartbeats.joinable()) store_heartbeats.join();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

  LatencyHistogram all;
  LatencyHistogram per_method[kMethodCount];
  uint64_t method_errors[kMethodCount] = {};
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  for (const auto& d : drivers) {
    for (int m = 0; m < kMethodCount; ++m) {
      const MethodStats& stats = static_cast<const Driver&>(*d).stats(static_cast<Method>(m));
      per_method[m].Merge(stats.latency);
      all.Merge(stats.latency);
      method_errors[m] += stats.errors;
    }
  }
  for (const auto& c : connections) ranges.insert(ranges.end(), c->id_ranges().begin(), c->id_ranges().end());
  shared.check_failures += CountOverlaps(std::move(ranges), &shared);
  const uint64_t errors = shared.errors.load();
  const uint64_t wrong = shared.check_failures.load();
  const double throughput = seconds > 0 ? static_cast<double>(all.count()) / seconds : 0;
  // Region entries the answered heartbeats carried; reported only when the
  // new options are given, so that other runs print what they always did.
  const bool cluster_options = config.stores > 1 || config.heartbeat_entries > 1 || config.store_heartbeats;
  const uint64_t entries_per_heartbeat = regions.tiles > 0 ? config.heartbeat_entries : 1;
  const double entries_rate =
      seconds > 0 ? static_cast<double>((per_method[kHeartbeat].count() - method_errors[kHeartbeat]) *
                                        entries_per_heartbeat) / seconds
                  : 0;

  if (config.json) {
    nlohmann::json report{{"method", config.method},
                          {"addr", config.addr},
                          {"conns", config.conns},
                          {"preloaded_regions", regions.tiles},
                          {"seconds", seconds},
                          {"requests", all.count()},
                          {"throughput", throughput},
                          {"latency_ms", LatencyJson(all)},
                          {"errors", errors},
                          {"wrong_answers", wrong},
                          {"messages", shared.messages}};
    if (config.tls() || config.reconnect) {
      report["tls"] = config.tls();
      report["reconnect"] = config.reconnect;
    }
    if (config.redis) report["redis"] = true;
    if (config.pipeline > 1) report["pipeline"] = config.pipeline;
    if (cluster_options) {
      report["stores"] = config.stores;
      report["store_heartbeats"] = config.store_heartbeats;
      report["heartbeat_entries"] = entries_per_heartbeat;
      report["heartbeat_entries_per_second"] = entries_rate;
    }
    if (config.mix) {
      for (int m = 0; m < kMethodCount; ++m) {
        if (kMixWeights[m] == 0) continue;
        report["per_method"][kMethodNames[m]] = {{"requests", per_method[m].count()},
                                                 {"errors", method_errors[m]},
                                                 {"latency_ms", LatencyJson(per_method[m])}};
      }
    }
    std::printf("%s\n", report.dump(2).c_str());
  } else {
    const std::string window =
        config.pipeline > 1 ? ", " + std::to_string(config.pipeline) + " calls in flight on each" : "";
    std::printf("%s: %s against %s%s, %llu connections%s%s%s, %llu preloaded regions, %.2f s\n", kProgram,
                config.method.c_str(), config.redis ? "Redis at " : "", config.addr.c_str(),
                static_cast<unsigned long long>(config.conns), window.c_str(), config.tls() ? " over TLS" : "",
                config.reconnect ? ", a new one for every call" : "", static_cast<unsigned long long>(regions.tiles),
                seconds);
    std::printf("requests       %llu\nthroughput     %.0f req/s\nlatency        %s\n",
                static_cast<unsigned long long>(all.count()), throughput, LatencyText(all).c_str());
    if (cluster_options) {
      std::printf("stores         %llu%s\nentries        %.0f regions/s in heartbeats of %llu\n",
                  static_cast<unsigned long long>(config.stores),
                  config.store_heartbeats ? ", each sending store heartbeats" : "", entries_rate,
                  static_cast<unsigned long long>(entries_per_heartbeat));
    }
    if (config.mix) {
      for (int m = 0; m < kMethodCount; ++m) {
        if (kMixWeights[m] == 0) continue;
        std::printf("  %-13s %8llu requests, %llu errors, %s\n", kMethodNames[m],
                    static_cast<unsigned long long>(per_method[m].count()),
                    static_cast<unsigned long long>(method_errors[m]), LatencyText(per_method[m]).c_str());
      }
    }
    std::printf("errors         %llu\nwrong answers  %llu\n", static_cast<unsigned long long>(errors),
                static_cast<unsigned long long>(wrong));
    for (const std::string& message : shared.messages) std::printf("  %s\n", message.c_str());
  }
  return errors == 0 && wrong == 0 ? kExitOk : kExitFailure;
}

}  // namespace
}  // namespace kandb::tools

int main(int argc, char** argv) { return kandb::tools::Main(argc, argv); }
