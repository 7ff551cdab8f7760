#ifndef KANDB_STORE_ETCD_CLIENT_H_
#define KANDB_STORE_ETCD_CLIENT_H_

// EtcdClient: the calls of etcd's v3 API that the replicated placement
// server needs (range reads, transactions, leases), spoken as JSON over
// HTTP/1.1 to etcd's gateway ("/v3/..."), with libcurl keeping connections
// open between calls. https:// endpoints are reached over libcurl's TLS,
// with etcd's certificate verified and, where etcd asks for one
// (--client-cert-auth), a client certificate of EtcdTls.
//
// Several endpoints may be given; a call goes to the one that answered
// last and moves on to the next one when an endpoint cannot be reached or
// answers that it cannot serve (no quorum, time-out), trying each endpoint
// at most once per call. Other refusals (a transaction over etcd's limits,
// an unknown lease) are etcd's answer and are returned at once.
//
// Failures: code 4 (Unavailable) "etcd unreachable: " + the last
// endpoint's error when no endpoint could serve the call, and also when
// one refused it after an earlier one may have received it (timed out, or
// could not serve it): then the call may still have been applied; code 1
// (InvalidArgument) "etcd: " + etcd's own reason when etcd refused it;
// code 3 (NotFound) "etcd: " + reason for an unknown lease; code 2
// (Corruption) "etcd: bad answer: " + why, when the answer does not parse
// (the bodies and their decoding are in store/etcd_json.h).
// A call that failed for want of an endpoint may still have been applied.
//
// Thread-safe: each call borrows a connection handle of its own from a
// small pool, so concurrent calls run in parallel.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "common/mutex.h"
#include "common/status.h"
#include "common/thread_annotations.h"

namespace kandb::store {

// One key-value record as etcd keeps it.
struct EtcdKv {
  std::string key;
  std::string value;
  int64_t create_revision = 0;
  int64_t mod_revision = 0;
  int64_t lease = 0;
};

// A condition of a transaction: the key's creation revision, or its
// modification revision, equals `revision` (0: the key does not exist).
struct EtcdCompare {
  enum class Target { kCreate, kMod };
  std::string key;
  Target target = Target::kCreate;
  int64_t revision = 0;
};

// One operation of a transaction.
struct EtcdOp {
  enum class Kind { kPut, kDelete, kGet };
  Kind kind = Kind::kPut;
  std::string key;
  std::string value;  // puts only
  int64_t lease = 0;  // puts only; 0 attaches none
};

struct EtcdTxnResult {
  bool succeeded = false;
  int64_t revision = 0;  // the store's revision after the transaction
  // For each kGet of the branch that ran, in order, the records it found.
  std::vector<std::vector<EtcdKv>> gets;
};

// One change of a watched range. A deletion carries the key and its
// mod_revision (the revision of the deletion) only.
struct EtcdEvent {
  enum class Type { kPut, kDelete };
  Type type = Type::kPut;
  EtcdKv kv;
};

// One answer of a watch stream: the stream was created, or events came
// (those of one revision are never split across answers, and they come in
// revision order), or etcd cancelled it (`compact_revision` set when the
// revisions asked for were compacted away).
struct EtcdWatchAnswer {
  bool created = false;
  bool canceled = false;
  int64_t compact_revision = 0;
  std::string cancel_reason;
  std::vector<EtcdEvent> events;
};

// Ends a watch stream from another thread: Stop makes the Watch call that
// was given it return soon (at once when it is streaming), and every later
// one at once. Thread-safe.
class EtcdWatchStop {
 public:
  void Stop() EXCLUDES(mu_);
  bool stopped() const { return stopped_.load(std::memory_order_acquire); }

  // For the stream's own thread: the socket it opened (false, and the
  // socket is not taken, once stopped), and its close.
  bool Track(int socket) EXCLUDES(mu_);
  void Close(int socket) EXCLUDES(mu_);

 private:
  // The sockets of the stream in progress (a connect may try several
  // addresses), so that Stop can shut them down; added and removed under
  // mu_ by the stream's own thread, which also closes them under mu_, so
  // Stop never shuts down a reused number.
  Mutex mu_;
  std::vector<int> sockets_ GUARDED_BY(mu_);
  std::atomic<bool> stopped_{false};
};

// TLS towards https:// endpoints: paths of PEM files, empty when not
// given. http:// endpoints ignore them. The files are read when a
// connection is made, not before: a caller that wants a missing file
// reported as such checks the paths itself.
struct EtcdTls {
  std::string ca_file;    // CAs that etcd's certificate must chain to; empty: the system's
  std::string cert_file;  // the client certificate etcd's --client-cert-auth asks for
  std::string key_file;   // its private key, unencrypted
};

class EtcdClient {
 public:
  // Splits "http://h1:p1,http://h2:p2" into endpoints. A bare "host:port"
  // gets "http://" in front, or "https://" with `tls`. Fails with code 1 on
  // an empty list or entry.
  static Status ParseEndpoints(const std::string& list, std::vector<std::string>* out, bool tls = false);

  // `timeout_ms` bounds every call on one endpoint, connecting (and the
  // TLS handshake) included.
  EtcdClient(std::vector<std::string> endpoints, int timeout_ms, EtcdTls tls = {});
  ~EtcdClient();
  EtcdClient(const EtcdClient&) = delete;
  EtcdClient& operator=(const EtcdClient&) = delete;

  // The records of [key, range_end) in key order (an empty range_end: the
  // one key), at most `limit` (0: no limit), as of `revision` (0: the
  // newest). *more tells whether records beyond the limit exist;
  // *header_revision is the revision the read saw.
  Status Range(const std::string& key, const std::string& range_end, int64_t limit,
               int64_t revision, std::vector<EtcdKv>* kvs, bool* more, int64_t* header_revision);

  // Runs `success` when every compare holds, else `failure`, as one
  // transaction.
  Status Txn(const std::vector<EtcdCompare>& compares, const std::vector<EtcdOp>& success,
             const std::vector<EtcdOp>& failure, EtcdTxnResult* result);

  // A lease of at least `ttl_seconds`; *granted_ttl is what etcd granted.
  Status LeaseGrant(int64_t ttl_seconds, int64_t* id, int64_t* granted_ttl);
  // Renews the lease; *ttl is its new length in seconds, 0 when the lease
  // no longer exists.
  Status LeaseKeepAlive(int64_t id, int64_t* ttl);
  Status LeaseRevoke(int64_t id);

  // Streams the changes of [key, range_end) (an empty range_end: the one
  // key) from `start_revision` on, handing each answer to `on_answer` as it
  // arrives, on the calling thread, until on_answer returns false or `stop`
  // is stopped (then OK), or the stream fails or etcd cancels it (then why:
  // code 4 "etcd unreachable: ..." when no endpoint could be reached or a
  // stream broke, code 2 for an answer that does not parse). Endpoints are
  // tried in turn until one streams; a stream has no time-out of its own,
  // only the connect is bounded.
  Status Watch(const std::string& key, const std::string& range_end, int64_t start_revision,
               const std::function<bool(const EtcdWatchAnswer&)>& on_answer, EtcdWatchStop* stop);

  const std::vector<std::string>& endpoints() const { return endpoints_; }

 private:
  class Handle;

  // POSTs `body` to `path` on one endpoint after another, as the class
  // comment says; on OK *answer holds the parsed answer.
  Status Post(const char* path, const std::string& body, std::string* answer);
  std::unique_ptr<Handle> Borrow() EXCLUDES(pool_mu_);
  void Return(std::unique_ptr<Handle> handle) EXCLUDES(pool_mu_);

  const std::vector<std::string> endpoints_;
  const int timeout_ms_;
  // Given to every handle, pooled or streaming.
  const EtcdTls tls_;
  // The endpoint that answered last; calls start there.
  std::atomic<size_t> preferred_{0};

  // Idle connection handles; a call takes one and gives it back.
  Mutex pool_mu_;
  std::vector<std::unique_ptr<Handle>> idle_ GUARDED_BY(pool_mu_);
};

// The smallest key above every key that starts with `prefix`: etcd's range
// end for a prefix read. Empty when there is none ("\xff..." prefixes).
std::string PrefixEnd(const std::string& prefix);

}  // namespace kandb::store

#endif  // KANDB_STORE_ETCD_CLIENT_H_
