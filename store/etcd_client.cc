#include "store/etcd_client.h"

#include <curl/curl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string_view>
#include <utility>

#include "store/etcd_json.h"

namespace kandb::store {

namespace {

// gRPC status codes that etcd's gateway passes on: an endpoint that
// answers with these cannot serve now, another one may.
constexpr int64_t kGrpcDeadlineExceeded = 4;
constexpr int64_t kGrpcNotFound = 5;
constexpr int64_t kGrpcUnavailable = 14;

// Idle handles kept for reuse; more calls than this at once get handles of
// their own that are closed afterwards.
constexpr size_t kMaxIdleHandles = 32;

void GlobalInit() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

size_t CollectBody(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

// Applied to every handle before it is used (again after a reset): calls
// and watch streams alike, so that no connection to an https:// endpoint
// goes out without the client certificate or unverified.
void ApplyTls(CURL* curl, const EtcdTls& tls) {
  if (!tls.ca_file.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, tls.ca_file.c_str());
  if (!tls.cert_file.empty()) curl_easy_setopt(curl, CURLOPT_SSLCERT, tls.cert_file.c_str());
  if (!tls.key_file.empty()) curl_easy_setopt(curl, CURLOPT_SSLKEY, tls.key_file.c_str());
  // libcurl's defaults, stated: a member that cannot prove it is the one
  // the endpoint's URL names is never spoken to.
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
}

}  // namespace

// One libcurl handle: it keeps its connections open between calls.
class EtcdClient::Handle {
 public:
  // Post sets only what changes between calls: the TLS settings are made
  // once, here (libcurl keeps its own copies of the paths).
  explicit Handle(const EtcdTls& tls) : curl_(curl_easy_init()) {
    headers_ = curl_slist_append(nullptr, "Content-Type: application/json");
    if (curl_ != nullptr) ApplyTls(curl_, tls);
  }
  ~Handle() {
    if (curl_ != nullptr) curl_easy_cleanup(curl_);
    curl_slist_free_all(headers_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  // One POST. On a transport failure returns false with *error set;
  // otherwise true with the HTTP status and body.
  bool Post(const std::string& url, const std::string& body, int timeout_ms, long* http_status,
            std::string* answer, std::string* error, bool* connected) {
    if (curl_ == nullptr) {
      *error = "cannot create a connection handle";
      return false;
    }
    answer->clear();
    curl_easy_setopt(curl_, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl_, CURLOPT_POST, 1L);
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl_, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl_, CURLOPT_HTTPHEADER, headers_);
    curl_easy_setopt(curl_, CURLOPT_WRITEFUNCTION, CollectBody);
    curl_easy_setopt(curl_, CURLOPT_WRITEDATA, answer);
    curl_easy_setopt(curl_, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout_ms));
    curl_easy_setopt(curl_, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout_ms));
    // No signals from the resolver: calls run on many threads.
    curl_easy_setopt(curl_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl_, CURLOPT_TCP_NODELAY, 1L);
    const CURLcode rc = curl_easy_perform(curl_);
    if (rc != CURLE_OK) {
      *error = curl_easy_strerror(rc);
      // Only a request that never left (no member took the connection, or
      // the TLS handshake before it failed) certainly did nothing.
      *connected = rc != CURLE_COULDNT_CONNECT && rc != CURLE_COULDNT_RESOLVE_HOST &&
                   rc != CURLE_COULDNT_RESOLVE_PROXY && rc != CURLE_UNSUPPORTED_PROTOCOL &&
                   rc != CURLE_URL_MALFORMAT && rc != CURLE_SSL_CONNECT_ERROR &&
                   rc != CURLE_PEER_FAILED_VERIFICATION && rc != CURLE_SSL_CERTPROBLEM &&
                   rc != CURLE_SSL_CACERT_BADFILE;
      return false;
    }
    curl_easy_getinfo(curl_, CURLINFO_RESPONSE_CODE, http_status);
    return true;
  }

 private:
  CURL* const curl_;
  curl_slist* headers_ = nullptr;
};

Status EtcdClient::ParseEndpoints(const std::string& list, std::vector<std::string>* out, bool tls) {
  std::vector<std::string> endpoints;
  size_t start = 0;
  for (;;) {
    const size_t comma = list.find(',', start);
    std::string item = list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
    if (item.empty()) return Status::InvalidArgument("empty etcd endpoint in '" + list + "'");
    if (item.find("://") == std::string::npos) item = (tls ? "https://" : "http://") + item;
    while (!item.empty() && item.back() == '/') item.pop_back();
    endpoints.push_back(std::move(item));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  *out = std::move(endpoints);
  return Status::OK();
}

EtcdClient::EtcdClient(std::vector<std::string> endpoints, int timeout_ms, EtcdTls tls)
    : endpoints_(std::move(endpoints)), timeout_ms_(timeout_ms), tls_(std::move(tls)) {
  GlobalInit();
}

EtcdClient::~EtcdClient() = default;

std::unique_ptr<EtcdClient::Handle> EtcdClient::Borrow() {
  {
    MutexLock lock(&pool_mu_);
    if (!idle_.empty()) {
      std::unique_ptr<Handle> handle = std::move(idle_.back());
      idle_.pop_back();
      return handle;
    }
  }
  return std::make_unique<Handle>(tls_);
}

void EtcdClient::Return(std::unique_ptr<Handle> handle) {
  MutexLock lock(&pool_mu_);
  if (idle_.size() < kMaxIdleHandles) idle_.push_back(std::move(handle));
}

Status EtcdClient::Post(const char* path, const std::string& body, std::string* answer) {
  if (endpoints_.empty()) return Status::Unavailable("etcd unreachable: no endpoints");
  std::unique_ptr<Handle> handle = Borrow();
  const size_t first = preferred_.load(std::memory_order_relaxed);
  std::string last_error;
  Status result;
  bool done = false;
  // Whether an attempt that failed may still have reached etcd (it timed
  // out, or the member could not serve it): a later refusal then says
  // nothing about that attempt, so the call's outcome stays unknown.
  bool maybe_sent = false;
  for (size_t i = 0; i < endpoints_.size() && !done; ++i) {
    const size_t index = (first + i) % endpoints_.size();
    const std::string& endpoint = endpoints_[index];
    long http_status = 0;
    std::string error;
    bool connected = false;
    if (!handle->Post(endpoint + path, body, timeout_ms_, &http_status, answer, &error, &connected)) {
      last_error = endpoint + ": " + error;
      maybe_sent = maybe_sent || connected;
      continue;
    }
    if (http_status == 200) {
      preferred_.store(index, std::memory_order_relaxed);
      result = Status::OK();
      done = true;
      break;
    }
    // etcd's refusals come as {"error": reason, "code": gRPC code}.
    int64_t code = -1;
    std::string reason = "http status " + std::to_string(http_status);
    etcd_json::DecodeRefusal(*answer, &reason, &code);
    if (code == kGrpcUnavailable || code == kGrpcDeadlineExceeded || http_status >= 500) {
      last_error = endpoint + ": " + reason;
      maybe_sent = true;
      continue;
    }
    preferred_.store(index, std::memory_order_relaxed);
    if (maybe_sent) {
      result = Status::Unavailable("etcd unreachable: " + last_error + "; then " + endpoint + ": " + reason);
    } else {
      result = code == kGrpcNotFound ? Status::NotFound("etcd: " + reason)
                                     : Status::InvalidArgument("etcd: " + reason);
    }
    done = true;
  }
  Return(std::move(handle));
  if (!done) {
    // Start the next call one further, so that a dead preferred endpoint
    // does not cost every call a time-out.
    preferred_.store((first + 1) % endpoints_.size(), std::memory_order_relaxed);
    return Status::Unavailable("etcd unreachable: " + last_error);
  }
  return result;
}

Status EtcdClient::Range(const std::string& key, const std::string& range_end, int64_t limit,
                         int64_t revision, std::vector<EtcdKv>* kvs, bool* more,
                         int64_t* header_revision) {
  std::string text;
  Status s = Post("/v3/kv/range", etcd_json::RangeRequest(key, range_end, limit, revision), &text);
  if (!s.ok()) return s;
  return etcd_json::DecodeRange(text, kvs, more, header_revision);
}

Status EtcdClient::Txn(const std::vector<EtcdCompare>& compares, const std::vector<EtcdOp>& success,
                       const std::vector<EtcdOp>& failure, EtcdTxnResult* result) {
  std::string text;
  Status s = Post("/v3/kv/txn", etcd_json::TxnRequest(compares, success, failure), &text);
  if (!s.ok()) return s;
  return etcd_json::DecodeTxn(text, success, failure, result);
}

Status EtcdClient::LeaseGrant(int64_t ttl_seconds, int64_t* id, int64_t* granted_ttl) {
  std::string text;
  Status s = Post("/v3/lease/grant", etcd_json::LeaseRequest("TTL", ttl_seconds), &text);
  if (!s.ok()) return s;
  return etcd_json::DecodeLeaseGrant(text, id, granted_ttl);
}

Status EtcdClient::LeaseKeepAlive(int64_t id, int64_t* ttl) {
  std::string text;
  Status s = Post("/v3/lease/keepalive", etcd_json::LeaseRequest("ID", id), &text);
  if (!s.ok()) return s;
  return etcd_json::DecodeKeepAlive(text, ttl);
}

Status EtcdClient::LeaseRevoke(int64_t id) {
  std::string text;
  return Post("/v3/lease/revoke", etcd_json::LeaseRequest("ID", id), &text);
}

void EtcdWatchStop::Stop() {
  MutexLock lock(&mu_);
  stopped_.store(true, std::memory_order_release);
  // Shutting the socket down fails the stream's read at once; the socket
  // is closed by the stream's own thread.
  for (int socket : sockets_) shutdown(socket, SHUT_RDWR);
}

bool EtcdWatchStop::Track(int socket) {
  MutexLock lock(&mu_);
  if (stopped()) return false;
  sockets_.push_back(socket);
  return true;
}

void EtcdWatchStop::Close(int socket) {
  MutexLock lock(&mu_);
  sockets_.erase(std::remove(sockets_.begin(), sockets_.end(), socket), sockets_.end());
  close(socket);
}

namespace {

// What one watch stream has seen: the bytes of a line not yet complete,
// and how it ended.
struct WatchStream {
  const std::function<bool(const EtcdWatchAnswer&)>* on_answer = nullptr;
  EtcdWatchStop* stop = nullptr;
  std::string pending;
  size_t scanned = 0;  // bytes of `pending` known to hold no line end
  bool answered = false;  // some answer arrived: the stream was up
  bool ended = false;     // on_answer asked to end it
  Status failure;         // an answer that did not parse, or a stream error
};

// Splits the stream into its lines (one answer each) as bytes arrive.
// Returning less than it was given ends the transfer.
size_t OnWatchBytes(char* data, size_t size, size_t count, void* user) {
  auto* stream = static_cast<WatchStream*>(user);
  const size_t bytes = size * count;
  stream->pending.append(data, bytes);
  size_t start = 0;
  // An answer of many revisions may arrive in hundreds of pieces: only the
  // new bytes are searched for its end.
  for (size_t newline; (newline = stream->pending.find('\n', std::max(start, stream->scanned))) != std::string::npos;
       start = newline + 1) {
    if (newline == start) continue;
    EtcdWatchAnswer answer;
    const std::string_view line = std::string_view(stream->pending).substr(start, newline - start);
    stream->failure = etcd_json::DecodeWatch(line, &answer);
    if (!stream->failure.ok()) return 0;
    stream->answered = true;
    if (!(*stream->on_answer)(answer)) {
      stream->ended = true;
      return 0;
    }
  }
  stream->pending.erase(0, start);
  stream->scanned = stream->pending.size();
  return bytes;
}

curl_socket_t OpenWatchSocket(void* user, curlsocktype, struct curl_sockaddr* address) {
  const int fd = socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
  if (fd < 0) return CURL_SOCKET_BAD;
  if (!static_cast<EtcdWatchStop*>(user)->Track(fd)) {
    close(fd);
    return CURL_SOCKET_BAD;
  }
  return fd;
}

int CloseWatchSocket(void* user, curl_socket_t fd) {
  static_cast<EtcdWatchStop*>(user)->Close(fd);
  return 0;
}

// Called by libcurl at least once a second during a transfer: a stop that
// came between the socket's creation and its tracking is seen here.
int WatchProgress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
  return static_cast<EtcdWatchStop*>(user)->stopped() ? 1 : 0;
}

}  // namespace

Status EtcdClient::Watch(const std::string& key, const std::string& range_end, int64_t start_revision,
                         const std::function<bool(const EtcdWatchAnswer&)>& on_answer, EtcdWatchStop* stop) {
  if (endpoints_.empty()) return Status::Unavailable("etcd unreachable: no endpoints");
  const std::string body = etcd_json::WatchRequest(key, range_end, start_revision);

  CURL* curl = curl_easy_init();
  if (curl == nullptr) return Status::Unavailable("etcd unreachable: cannot create a connection handle");
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  const size_t first = preferred_.load(std::memory_order_relaxed);
  std::string last_error = "no endpoint tried";
  Status result;
  bool done = false;
  for (size_t i = 0; i < endpoints_.size() && !done && !stop->stopped(); ++i) {
    const size_t index = (first + i) % endpoints_.size();
    const std::string url = endpoints_[index] + "/v3/watch";
    WatchStream stream;
    stream.on_answer = &on_answer;
    stream.stop = stop;
    curl_easy_reset(curl);
    ApplyTls(curl, tls_);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnWatchBytes);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &stream);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETFUNCTION, OpenWatchSocket);
    curl_easy_setopt(curl, CURLOPT_OPENSOCKETDATA, stop);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETFUNCTION, CloseWatchSocket);
    curl_easy_setopt(curl, CURLOPT_CLOSESOCKETDATA, stop);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, WatchProgress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, stop);
    // A stream lasts as long as it is wanted; only the connect is bounded.
    // Keep-alive probes find a peer that went away without a word.
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(timeout_ms_));
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPIDLE, 2L);
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPINTVL, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
    const CURLcode rc = curl_easy_perform(curl);
    long http_status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &http_status);
    if (stream.ended || stop->stopped()) {
      done = true;
    } else if (!stream.failure.ok()) {
      result = stream.failure;
      done = true;
    } else if (stream.answered) {
      // A stream that was up and broke: the caller resumes from what it
      // has, perhaps on another endpoint.
      preferred_.store(index, std::memory_order_relaxed);
      result = Status::Unavailable("etcd unreachable: " + endpoints_[index] + ": watch ended: " +
                                   (rc == CURLE_OK ? std::string("closed by etcd") : curl_easy_strerror(rc)));
      done = true;
    } else {
      last_error = endpoints_[index] + ": " +
                   (rc == CURLE_OK ? "http status " + std::to_string(http_status) : curl_easy_strerror(rc));
    }
  }
  curl_slist_free_all(headers);
  curl_easy_cleanup(curl);
  if (done || stop->stopped()) return result;
  preferred_.store((first + 1) % endpoints_.size(), std::memory_order_relaxed);
  return Status::Unavailable("etcd unreachable: " + last_error);
}

std::string PrefixEnd(const std::string& prefix) {
  std::string end = prefix;
  while (!end.empty()) {
    if (static_cast<unsigned char>(end.back()) < 0xFF) {
      end.back() = static_cast<char>(static_cast<unsigned char>(end.back()) + 1);
      return end;
    }
    end.pop_back();
  }
  return end;
}

}  // namespace kandb::store
